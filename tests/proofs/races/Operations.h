// Every public method of the client as a random operation, and the threads that carry them out.
#pragma once

#include <cstdint>
#include <random>
#include <vector>

#include "orvel/OrvelDelegateClient.h"

namespace orvel::races {

using Client = service_apis::OrvelDelegateClient;
using Random = std::mt19937_64;

// One public method with arguments drawn at random. What it registers calls back into the client.
struct Operation {
  const char* name;
  void (*run)(Client& client, Random& random);
};

// All of them. Lives as long as the process.
const std::vector<Operation>& operations();

// Runs one at random; a shutdown() is rarer than the rest, so that the client is in use most of the time.
void run_one(Client& client, Random& random);

// Runs `count` operations on `threads` threads and returns when all are done.
void run_operations(Client& client, std::uint64_t seed, int threads, long count);

// How many notifications have reached a callback so far.
long heard();

// Says what does not hold, once for each promise; how many promises were broken so far.
void require(bool condition, const char* promise);
int broken();

}  // namespace orvel::races

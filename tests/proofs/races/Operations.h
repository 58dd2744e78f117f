// Public methods on several threads at once, at random.
#pragma once

#include <cstdint>
#include <random>

#include "support/Methods.h"

namespace orvel::races {

using test::Client;
using Random = std::mt19937_64;

// Whether a device gives the answers of the table of methods, or those of a scenario.
enum class Answers { kOfTable, kAny };

// One public method, chosen at random; a shutdown() is rarer than the rest, so that the client is in use most of the time.
// What it subscribes to calls back into the client, half of the time.
void make_call(Client& client, Random& random, Answers answers);

// Makes `count` such calls on `threads` threads and returns when all have returned.
void make_calls(Client& client, std::uint64_t seed, int threads, long count, Answers answers);

// How many notifications have reached a callback so far.
long heard();

}  // namespace orvel::races

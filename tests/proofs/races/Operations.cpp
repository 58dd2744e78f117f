#include "races/Operations.h"

#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include "support/Runner.h"

namespace orvel::races {
namespace {

using test::kMethods;
using test::Method;

std::atomic<long> g_heard{0};
std::atomic<std::uint64_t> g_callback_seed{1};
thread_local bool t_called_back = false;

test::Hear hear(Client& client, Answers answers) {
  return [&client, answers](const std::string&) {
    ++g_heard;
    Random random(g_callback_seed++);
    if (t_called_back || random() % 2 == 0) return;
    t_called_back = true;
    make_call(client, random, answers);
    t_called_back = false;
  };
}

void restart(Client& client, Random& random) {
  if (random() % 8 == 0) client.shutdown();
  if (random() % 8 != 0) client.initialize();
}

}  // namespace

void make_call(Client& client, Random& random, Answers answers) {
  const std::size_t chosen = random() % (kMethods.size() + 2);
  if (chosen == kMethods.size()) return restart(client, random);
  if (chosen == kMethods.size() + 1) {
    client.registerForDirective("N" + std::to_string(random() % 4),
                                [hear = hear(client, answers)](auto&&...) { hear(""); });
    return;
  }
  const Method& method = kMethods.at(chosen);
  const std::string result = method.call(client, hear(client, answers));
  // Refused is false where nothing is asked, too: the connectivity callback may hold the client.
  const bool known =
      result == method.result || result == method.failure || result == method.refused || result == "false";
  test::require(known || answers == Answers::kAny, std::string(method.name) + " gives " + result);
}

void make_calls(Client& client, std::uint64_t seed, int threads, long count, Answers answers) {
  std::vector<std::thread> workers;
  for (int n = 0; n < threads; ++n) {
    const long share = count / threads + (n < count % threads ? 1 : 0);
    workers.emplace_back([&client, share, answers, own_seed = seed * 1000 + static_cast<std::uint64_t>(n)] {
      Random random(own_seed);
      for (long made = 0; made < share; ++made) make_call(client, random, answers);
    });
  }
  for (std::thread& worker : workers) worker.join();
}

long heard() {
  return g_heard;
}

}  // namespace orvel::races

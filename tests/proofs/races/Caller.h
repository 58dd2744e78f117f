// Public methods on several threads at once, at random.
#pragma once

#include <atomic>
#include <cstdint>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "support/Methods.h"
#include "support/Runner.h"

namespace orvel::races {

using test::Client;
using Random = std::mt19937_64;

// Makes calls of one client. Any thread.
class Caller {
 public:
  // `by_table`: the device gives the answers of the table of methods, so that each result must be one that it knows.
  Caller(Client& client, bool by_table) : m_client(client), m_by_table(by_table) {}

  // Calls a public method, chosen at random; a shutdown() is rarer than the rest, so that the client is in use most of
  // the time. What it subscribes to calls back into the client, half of the time.
  void make_call(Random& random) {
    const test::Hear hear = [this](const std::string&) { heard(); };
    const std::size_t chosen = random() % (test::kMethods.size() + 2);
    if (chosen == test::kMethods.size()) {
      if (random() % 8 == 0) m_client.shutdown();
      if (random() % 8 != 0) m_client.initialize();
    } else if (chosen == test::kMethods.size() + 1) {
      m_client.registerForDirective("N" + std::to_string(random() % 4), [hear](auto&&...) { hear(""); });
    } else {
      const test::Method& method = test::kMethods.at(chosen);
      const std::string result = method.call(m_client, hear);
      // Refused is false where nothing is asked, too: the connectivity callback may hold the client.
      const bool known =
          result == method.result || result == method.failure || result == method.refused || result == "false";
      test::require(known || !m_by_table, std::string(method.name) + " gives " + result);
    }
  }

  // Makes `count` such calls on `threads` threads and returns when all have returned.
  void make_calls(std::uint64_t seed, int threads, long count) {
    std::vector<std::thread> workers;
    for (int n = 0; n < threads; ++n) {
      const long share = count / threads + (n < count % threads ? 1 : 0);
      workers.emplace_back([this, share, random = Random(seed * 1000 + static_cast<std::uint64_t>(n))]() mutable {
        for (long made = 0; made < share; ++made) make_call(random);
      });
    }
    for (std::thread& worker : workers) worker.join();
  }

  // How many notifications have reached a callback so far.
  long notifications() const { return m_heard; }

 private:
  void heard() {
    thread_local bool t_calls = false;
    Random random(static_cast<std::uint64_t>(++m_heard));
    if (t_calls || random() % 2 == 0) return;
    t_calls = true;
    make_call(random);
    t_calls = false;
  }

  Client& m_client;
  const bool m_by_table;
  std::atomic<long> m_heard{0};
};

}  // namespace orvel::races

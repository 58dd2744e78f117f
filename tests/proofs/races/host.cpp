// The same calls between processes: on the host runtime, against a simulated device whose services are killed, started and
// made to send. Run as: orvel-sim run --isolate -- orvel-races-host
#include <android/log.h>

#include <atomic>
#include <string>
#include <thread>

#include "races/Operations.h"
#include "support/Process.h"
#include "support/Runner.h"

namespace {

using namespace orvel::races;  // NOLINT(google-build-using-namespace)
using orvel::test::require;
using orvel::test::Runner;

// Gives the device an order and waits until it has obeyed.
void order(orvel::test::Words words) {
  words.insert(words.begin(), "orvel-sim");
  orvel::test::run(words);
}

// What happens to the device until `stop`; every service runs when it returns. How many it killed.
long act(std::uint64_t seed, const std::atomic<bool>& stop) {
  static const char* const kNames[] = {"delegate", "power", "events", "coordinator", "packages", "connectivity"};
  Random random(seed);
  long kills = 0;
  const auto either = [&random](const char* one, const char* other) { return random() % 2 == 0 ? one : other; };
  while (!stop) {
    const char* const service = kNames[random() % std::size(kNames)];
    const auto choice = random() % 6;
    if (choice == 0) {
      order({"kill", service});
      order({"screen", "off"});
      order({"restart", service});
      ++kills;
    }
    if (choice == 1) order({"set", "name", either("a name", "")});
    if (choice == 2) order({"maro", either("connected", "disconnected")});
    if (choice == 3) order({"screen", either("on", "off")});
    if (choice == 4) order({"network", either("connected", "disconnected")});
    if (choice == 5) order({"directive", "N1", "text"});
  }
  return kills;
}

}  // namespace

int main(int argc, char** argv) {
  Runner runner("orvel-races-host", "Races of the client library against a device of other processes; --count calls",
                3000);
  long kills = 0;
  runner.add("calls", [&] {
    std::atomic<bool> stop{false};
    std::thread device([&] { kills = act(runner.seed(), stop); });
    Client& client = Client::getClient();
    require(client.initialize(), "the client starts");
    make_calls(client, runner.seed(), 8, runner.count(), Answers::kAny);
    stop = true;
    device.join();
    order({"set", "name", runner.canary() ? "another name" : "a name"});
    client.shutdown();
    require(client.initialize(), "the client starts again after it all");
    require(client.getDeviceName() == "a name", "the client works after it all");
    client.shutdown();
  });
  if (const auto ended = runner.parse(argc, argv)) return *ended;
  __android_log_set_minimum_priority(ANDROID_LOG_VERBOSE);
  __android_log_set_logger([](const __android_logger_data*, const char*) {});
  return runner.run([&] {
    return std::to_string(runner.count()) + " calls on 8 threads, " + std::to_string(kills) + " kills, " +
           std::to_string(heard()) + " notifications";
  });
}

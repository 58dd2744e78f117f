// The same calls between processes: on the host runtime, against a simulated device whose services are killed, started
// and made to send. Run as: orvel-sim run --isolate -- orvel-races-host
#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include "races/Caller.h"
#include "support/LogRecorder.h"
#include "support/Process.h"

namespace {

using namespace orvel::races;  // NOLINT(google-build-using-namespace)
using orvel::test::require;
using orvel::test::Words;

// Gives the device an order and waits until it has obeyed.
void order(Words words) {
  words.insert(words.begin(), "orvel-sim");
  orvel::test::run(words);
}

// What happens to the device until `stop`; every service runs when it returns. How many it killed.
long act(Random random, const std::atomic<bool>& stop) {
  const char* const services[] = {"delegate", "power", "events", "coordinator", "packages", "connectivity"};
  const std::vector<Words> orders = {
      {"set", "name", "a name"}, {"set", "name", ""}, {"maro", "connected"},    {"maro", "disconnected"},
      {"screen", "on"},          {"screen", "off"},   {"network", "connected"}, {"network", "disconnected"},
      {"directive", "N", "text"}};
  long kills = 0;
  while (!stop) {
    order(orders[random() % orders.size()]);
    if (random() % 4 != 0) continue;
    const char* const service = services[random() % std::size(services)];
    order({"kill", service});
    order({"screen", "off"});
    order({"restart", service});
    ++kills;
  }
  return kills;
}

}  // namespace

int main(int argc, char** argv) {
  orvel::test::Runner runner("orvel-races-host", "Races against a device of other processes; --count calls", 3000);
  Client& client = Client::getClient();
  Caller caller(client, /*by_table=*/false);  // those are of its scenario
  long kills = 0;
  runner.add("calls", [&] {
    std::atomic<bool> stop{false};
    std::thread device([&] { kills = act(Random(runner.seed()), stop); });
    require(client.initialize(), "the client starts");
    caller.make_calls(runner.seed(), 8, runner.count());
    stop = true;
    device.join();
    order({"set", "name", runner.canary() ? "another name" : "a name"});
    client.shutdown();
    require(client.initialize(), "the client starts again after it all");
    require(client.getDeviceName() == "a name", "the client works after it all");
    client.shutdown();
  });
  if (const auto ended = runner.parse(argc, argv)) return *ended;
  orvel::test::discard_log();
  return runner.run([&] {
    return std::to_string(runner.count()) + " calls on 8 threads, " + std::to_string(kills) + " kills, " +
           std::to_string(caller.notifications()) + " notifications";
  });
}

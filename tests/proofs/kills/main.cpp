// orvel-kill-loop: kills the services of a device again and again under clients that use all of it, and has the checker
// judge what clients and device say.
#include <CLI/CLI.hpp>
#include <chrono>
#include <csignal>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <fstream>
#include <future>
#include <map>
#include <memory>
#include <random>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "Checker.h"
#include "Client.h"
#include "Device.h"
#include "support/Process.h"
#include "support/Runner.h"

namespace orvel::kills {
namespace {

using Services = std::vector<std::string>;

// What a client may take beyond what it has when it is ready. One message forgotten at each death would be more. Three
// services call it back, and four descriptors of each connection may be missing while that is being made again.
constexpr test::Usage kGrowth = {16 << 10, 0, 4, 12};

constexpr std::int64_t kSpecialEvery = 4000;  // kills

const std::string kClock = "com.quarlo.velmos.service.timeservice.clock.";

Json change(const std::string& path, const Json& value) {
  return {{"order", "change"}, {"change", {{"path", path}, {"value", value}}}};
}
Json happening(const char* service, const Json& event) {
  return {{"order", "event"}, {"service", service}, {"event", event}};
}

// A run: which processes are killed when, what is changed in between, and what is asked of the clients.
class Loop {
 public:
  // The device and the logs are in `folder`.
  Loop(std::string folder, std::uint64_t seed, std::size_t clients)
      : m_folder(std::move(folder)), m_random(seed), m_device(m_folder), m_clients(clients) {
    for (const Device::Service& each : m_device.services()) m_services.push_back(each.name);
  }

  // Throws what clients and the device throw.
  void run(std::int64_t kills) {
    for (std::size_t i = 0; i < m_clients.size(); ++i) start(i);
    for (std::int64_t nextSpecial = 0; m_device.kills() < kills; round()) {
      if (m_device.kills() < nextSpecial) continue;
      nextSpecial = m_device.kills() + kSpecialEvery;
      special();
    }
    renewNetwork(false);
    actAndAwait();
    // What was sent some time before a client stops, it must have had.
    std::this_thread::sleep_for(std::chrono::milliseconds(600));
    for (const auto& client : m_clients) end(*client);
  }

  // What the checker says, when the run is over.
  Findings judge() { return check(m_device.end(), m_records); }

  std::string summary() const {
    return std::to_string(m_device.kills()) + " kills, " + std::to_string(m_started) + " clients";
  }

 private:
  // ---- What happens in a round ----

  void round() {
    // Registering may meet the death as well.
    const bool more = m_more < 3 && chance(30);
    if (more) {
      for (const auto& client : m_clients) client->order("kill.more." + std::to_string(m_more));
      ++m_more;
    }
    const Services victims = killSome();
    for (const auto& client : m_clients) client->awaitObeyed();
    recover(victims);
    replaceThoseWhoGaveUp();
    if (chance(60)) renewNetwork(chance(15));
    act();
    if (chance(75)) awaitTold();
  }

  // Kills some services, and some of them again before they have done much. Gives their names.
  Services killSome() {
    enum { kOne, kStopped, kBusy, kTwo, kAll, kReplaying, kBinding, kAgain };
    const int way = std::discrete_distribution<int>({40, 15, 12, 10, 2, 9, 7, 5})(m_random);
    Services victims = {way == kReplaying ? kDelegate : anyService()};
    const std::string first = victims.front();
    if (way == kTwo) victims.push_back(anyService());
    if (way == kAll) victims = m_services;

    // While orders are carried out, and calls of clients wait; some stand still in the middle of what they do.
    std::future<void> acting;
    if (way == kStopped || way == kBusy) acting = std::async(std::launch::async, [this] { act(); });
    pause(8);
    if (way == kStopped) {
      m_device.stop(first);
      pause(15);
    }
    for (const std::string& victim : victims) m_device.kill(victim);
    if (acting.valid()) acting.get();

    for (int times = way == kAgain ? 2 + pick(3) : way >= kReplaying ? 1 : 0; times > 0; --times) {
      m_device.awaitLife(first);  // from its start on, before it serves
      Client& client = *m_clients[static_cast<std::size_t>(pick(static_cast<int>(m_clients.size())))];
      if (way == kReplaying) client.awaitBound(first, m_device.killed(first));
      pause(way == kAgain ? 30 : 5);
      m_device.kill(first);
    }
    return victims;
  }

  // ---- What happens once in a while ----

  void special() {
    renewNetwork(false);
    actAndAwait();
    // One is not restored, and the other leaves events without a status.
    killAndRecover({kConnectivity, kEvents});
    actAndAwait();
    refuseReplays();
    stayAway(anyService());
  }

  // What a new process refuses has to wait for the one after it.
  void refuseReplays() {
    const std::string fault = "/delegate/faults/registerForBroadcastWithDataTypeOrScheme";
    const Json exception = {{"code", -5}, {"message", "refused by the kill loop"}, {"trace", ""}};
    m_device.order(change(fault, {{"exception", exception}}));
    killAndRecover({kDelegate});
    m_device.order({{"order", "change"}, {"change", {{"path", fault + "/exception"}}}});
    act();
    killAndRecover({kDelegate});
    actAndAwait();
  }

  // Longer than clients look for it, so that they do without it from then on; others take their place.
  void stayAway(const std::string& service) {
    m_device.kill(service, /*lasting=*/true);
    for (const auto& client : m_clients) client->awaitGivenUp(service);
    m_device.awaitLife(service);
    act();
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    replaceThoseWhoGaveUp();
  }

  // ---- What both are made of ----

  void killAndRecover(const Services& services) {
    for (const std::string& service : services) m_device.kill(service);
    recover(services);
  }

  void recover(const Services& services) {
    for (const std::string& service : services) m_device.awaitLife(service);
    for (const auto& client : m_clients) {
      test::begin("kill " + std::to_string(m_device.kills()));
      for (const std::string& service : services) client->awaitRebound(service, m_device.killed(service));
    }
  }

  // One change of each kind.
  void act() {
    const std::string text = std::to_string(++m_number);
    m_flag = !m_flag;
    const std::string flag = m_flag ? "true" : "false";
    const auto delegate = [this](const std::string& key, const std::string& value, const Json& order) {
      m_device.act(kDelegate, key, value, order);
    };
    delegate("com.quarlo.hux.sso.action.QuarloAccountPropertyService.property.changed", "kill " + text,
             change("/delegate/name", "kill " + text));
    delegate(std::string("com.quarlo.hux.sso.action.account.") + (m_flag ? "added" : "removed"), flag,
             change("/delegate/customerId", m_flag ? "account" : ""));
    delegate("com.quarlo.speech.CONNECTIVITY_ACTION", flag, change("/delegate/maroConnected", m_flag));
    m_device.act(kConnectivity, kNetwork, flag, change("/connectivity/networkConnected", m_flag));
    delegate(std::string("android.intent.action.SCREEN_") + (m_flag ? "ON" : "OFF"), flag,
             change("/power/screenOn", m_flag));
    delegate(kSetting + std::string("k"), text, change("/delegate/settings/k", text));
    for (int i = 0; i < m_more; ++i) {
      const std::string more = "kill.more." + std::to_string(i);
      delegate(kSetting + more, text, change("/delegate/settings/" + more, text));
    }
    delegate("a.P", "a.P,kill" + text,
             happening("delegate", {{"action", "a.P"}, {"data", "package:kill" + text}, {"type", "t"}}));
    for (const auto& client : m_clients) {
      const Json event = {{"namespace", client->name()}, {"texts", {text, "", "", "", "", "", ""}}};
      m_device.act(kCoordinator, kDirective + client->name(), text, happening("coordinator", event));
    }
    const Json from = {{"key", kClock + "OLD_TIME_MILLIS"}, {"type", "long"}, {"value", m_number}};
    const Json to = {{"key", kClock + "NEW_TIME_MILLIS"}, {"type", "long"}, {"value", 0}};
    delegate(kClock + "TIME_SYNC", text + ",0",
             happening("delegate", {{"action", kClock + "TIME_SYNC"}, {"extras", {from, to}}}));
  }

  // A client that came back to a process that was just ending may have missed the last change, and hears of another.
  // The checker knows what it was owed.
  void awaitTold() {
    try {
      awaitLast();
    } catch (const std::runtime_error&) {
      test::begin("kill " + std::to_string(m_device.kills()) + ", told again");
      act();
      awaitLast();
    }
  }

  // The last change of each service that the client hears of.
  void awaitLast() {
    for (const auto& client : m_clients) {
      client->awaitTold(kClock + "TIME_SYNC", std::to_string(m_number) + ",0");
      client->awaitTold(kDirective + client->name(), std::to_string(m_number));
    }
  }

  // On a busy machine a service may be away for so long that clients give up on it, and hear no more of it.
  void actAndAwait() {
    replaceThoseWhoGaveUp();
    act();
    awaitTold();
  }

  void renewNetwork(bool quiet) {
    for (const auto& client : m_clients) client->order(quiet ? "quiet" : "network");
    for (const auto& client : m_clients) client->awaitObeyed();
  }

  void start(std::size_t place) {
    m_clients[place] = std::make_unique<Client>(m_folder, "client" + std::to_string(++m_started));
    // It has to catch up with those that were told before.
    for (int i = 0; i < m_more; ++i) m_clients[place]->order("kill.more." + std::to_string(i));
    m_clients[place]->awaitObeyed();
    m_early[m_clients[place]->name()] = test::usageOf(m_clients[place]->pid());
  }

  void end(Client& client) {
    const test::Usage& early = m_early[client.name()];
    const test::Usage late = test::usageOf(client.pid());
    const auto text = [](const test::Usage& usage) {
      return std::to_string(usage.resident_kb) + " KiB, " + std::to_string(usage.threads) + " threads and " +
             std::to_string(usage.descriptors) + " descriptors";
    };
    test::require(late.resident_kb <= early.resident_kb + kGrowth.resident_kb &&
                      late.threads <= early.threads + kGrowth.threads &&
                      late.descriptors <= early.descriptors + kGrowth.descriptors,
                  client.name() + " has grown from " + text(early) + " to " + text(late));
    m_records[client.name()] = client.end();
  }

  void replaceThoseWhoGaveUp() {
    for (std::size_t i = 0; i < m_clients.size(); ++i) {
      if (!m_clients[i]->hasGivenUp()) continue;
      end(*m_clients[i]);
      start(i);
    }
  }

  bool chance(int percent) { return pick(100) < percent; }
  int pick(int count) { return std::uniform_int_distribution<int>(0, count - 1)(m_random); }
  std::string anyService() {
    return chance(35) ? kDelegate : m_services[static_cast<std::size_t>(pick(static_cast<int>(m_services.size())))];
  }
  void pause(int mostMilliseconds) {
    std::this_thread::sleep_for(std::chrono::microseconds(pick(1000 * mostMilliseconds)));
  }

  const std::string m_folder;
  std::mt19937_64 m_random;
  Device m_device;
  std::vector<std::unique_ptr<Client>> m_clients;
  std::map<std::string, std::vector<Record>> m_records;  // of the clients
  std::map<std::string, test::Usage> m_early;            // of the clients, when they were ready
  Services m_services;
  int m_started = 0;          // clients
  std::int64_t m_number = 0;  // of the latest changes
  int m_more = 0;             // settings that the clients have been told to register for beside the first
  bool m_flag = true;         // what has two states, and the state that it had last
};

// Gives what to add to the line of result.
std::string run(const test::Runner& runner, std::size_t clients) {
  const test::TemporaryDirectory folder;
  setenv("ORVEL_RUNTIME_DIR", (folder.path() / "device").c_str(), 1);
  // What the device knows is little, because each change sends all of it to every service.
  const Json scenario = {
      {"packages", {{"packages", {{"com.example.app", Json::object()}}}}},
      {"activity", {{"processes", {{"com.example.app", {{"pid", 4000}, {"importance", 100}}}}}}},
      {"events", {{"resultDelayMs", kEventDelay / kMillisecond}}},
  };
  std::ofstream(folder.path() / "scenario.json") << scenario.dump() << '\n';

  Loop loop(folder.path(), runner.seed(), clients);
  loop.run(runner.count());
  test::begin("what was said");
  Findings findings = loop.judge();
  for (const std::string& complaint : findings.complaints) test::require(complaint);
  // What must have happened in a run for its result to mean anything.
  for (const char* what : {"given up", "refused replays", "not restored", "owed", "replays", "links"})
    test::require(findings.counts[what] > 0, std::string("the run never counted: ") + what);
  std::string summary = loop.summary();
  for (const auto& [what, count] : findings.counts) summary += ", " + std::to_string(count) + ' ' + what;
  return summary;
}

}  // namespace
}  // namespace orvel::kills

int main(int argc, char** argv) {
  orvel::test::Runner runner("kills", "Kills the services of a simulated device under clients that use all of it", 300);
  std::size_t clients = 3;
  runner.options().add_option("--clients", clients, "at a time")->check(CLI::Range(1, 20))->capture_default_str();
  if (const auto status = runner.parse(argc, argv)) return *status;
  std::signal(SIGPIPE, SIG_IGN);
  std::string summary;
  runner.add("loop", [&] { summary = orvel::kills::run(runner, clients); });
  return runner.run([&] { return summary; });
}

// A run: which processes are killed when, what is changed in between, and what is asked of the clients.
#pragma once

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <future>
#include <memory>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "Client.h"
#include "Device.h"
#include "support/Runner.h"

namespace orvel::kills {

// Between an early moment of a client and its end. What the C library keeps for later is a few hundred kilobytes; a
// single message that was forgotten at each death would be more.
constexpr test::Usage kGrowth = {4096, 0, 1, 4};

class Loop {
 public:
  // `directory` is for the histories; the device lives in it too.
  Loop(const std::filesystem::path& directory, std::uint64_t seed, std::int64_t kills, std::size_t clients)
      : m_directory(directory), m_wanted(kills), m_random(seed), m_device(directory), m_clients(clients) {
    for (const Device::Service& each : m_device.services()) m_services.push_back(each.name);
    const Json delay = m_device.order({{"order", "scenario"}}).at("scenario").at("events").at("resultDelayMs");
    m_device.note({0, "limits", {}, {}, delay.dump()});
  }

  // Throws Failure, and what the device throws.
  void run() {
    for (std::size_t i = 0; i < m_clients.size(); ++i) start(i);
    while (kills() < m_wanted) {
      if (kills() >= m_nextSpecial) special();
      round();
    }
    renewNetwork(false);
    actAndAwait();
    // What was sent some time before a client stops, it must have had.
    std::this_thread::sleep_for(std::chrono::milliseconds(600));
    for (const auto& client : m_clients) end(*client);
  }

  std::int64_t kills() const { return m_device.kills(); }
  const std::vector<std::string>& clients() const { return m_names; }  // all that there were

 private:
  using Services = std::vector<std::string>;
  static constexpr std::int64_t kSpecialEvery = 4000;  // kills
  // When what a process allocates once has been allocated, in kills since it started.
  static constexpr std::int64_t kGrownUp = 30;

  // ---- What happens in a round ----

  void round() {
    // Registering may meet the death as well.
    const std::size_t before = m_clients.front()->registrations();
    const bool more = m_more < 3 && chance(30);
    if (more) {
      for (const auto& client : m_clients) client->order("more " + std::to_string(m_more));
      ++m_more;
    }
    const Services victims = killSome();
    if (more) {
      for (const auto& client : m_clients) client->awaitRegistered(before + 1);
    }
    recover(victims);
    replaceThoseWhoGaveUp();
    if (chance(60)) renewNetwork(chance(15));
    act();
    if (chance(75)) awaitTold();
    for (const auto& client : m_clients) {
      if (kills() > m_young + kGrownUp && client->early.resident_kb == 0) client->early = test::usageOf(client->pid());
    }
  }

  // Kills some services, and some of them again before they have done much. Gives their names.
  Services killSome() {
    enum Way { kOne = 40, kStopped = 55, kBusy = 67, kTwo = 77, kAll = 79, kReplaying = 88, kBinding = 95 };
    const int way = pick(100);
    const bool isReplaying = way >= kAll && way < kReplaying;
    Services victims = {isReplaying ? kDelegate : anyService()};
    const std::string& first = victims.front();
    if (way >= kTwo && way < kAll) victims = m_services;
    if (way >= kBusy && way < kTwo) victims.push_back(anyService());

    // While orders are carried out, and calls of clients wait; some stand still in the middle of what they do.
    std::future<void> acting;
    if (way >= kOne && way < kBusy) acting = std::async(std::launch::async, [this] { act(); });
    pause(8);
    if (way >= kOne && way < kStopped) {
      m_device.stop(first);
      pause(15);
    }
    pid_t last = 0;
    for (const std::string& victim : victims) last = m_device.kill(victim);
    if (acting.valid()) acting.get();

    if (isReplaying) {  // while clients make their registrations with the next process
      m_device.awaitLife(first);
      m_clients[static_cast<std::size_t>(pick(static_cast<int>(m_clients.size())))]->awaitBound(first,
                                                                                                m_device.killed(first));
      pause(5);
      m_device.kill(first);
    }
    if (way >= kReplaying && way < kBinding) {  // before it serves
      Device::poll(first + " is not started", [&] { return m_device.service(first).pid != last; });
      pause(4);
      m_device.kill(first);
    }
    for (int times = way < kBinding ? 0 : 2 + pick(3); times > 0; --times) {
      m_device.awaitLife(first);
      pause(30);
      m_device.kill(first);
    }
    return victims;
  }

  // ---- What happens once in a while ----

  void special() {
    m_nextSpecial = kills() + kSpecialEvery;
    renewNetwork(false);
    actAndAwait();
    // One is not restored, and the other leaves events without a status.
    killAndRecover({kConnectivity, kEvents});
    actAndAwait();
    refuseReplays();
    fillQueue();
    passCallLimit();
    const char* const services[] = {kDelegate, kConnectivity, kEvents, kPower};
    stayAway(services[pick(4)]);
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

  // More directives than fit between the device and a client that takes none: the device says which it refuses.
  void fillQueue() {
    Client& client = *m_clients.front();
    const std::string nspace = namespaceOf(client.name(), 0);
    const std::string bulky(400'000, 'x');  // so that the client stands still for a moment only
    std::string newest;
    m_device.note({0, "frozen", client.name()});
    client.freeze(true);
    for (int refused = 0; refused < 3;) {
      const std::string text = std::to_string(++m_number);
      const bool taken = m_device.act(kCoordinator, kDirective + nspace, text, directive(nspace, text, bulky));
      if (taken) newest = text;
      if (!taken) ++refused;
    }
    client.freeze(false);
    m_device.note({0, "thawed", client.name()});
    client.awaitTold(kDirective + nspace, newest);
    actAndAwait();
  }

  // A service that lives and does not answer keeps no call waiting for longer than its limit.
  void passCallLimit() {
    m_device.stop(kPower);
    std::this_thread::sleep_for(std::chrono::milliseconds(1500));
    killAndRecover({kPower});
  }

  // ---- What both are made of ----

  void killAndRecover(const Services& services) {
    for (const std::string& service : services) m_device.kill(service);
    recover(services);
  }

  void recover(const Services& services) {
    for (const std::string& service : services) m_device.awaitLife(service);
    for (const auto& client : m_clients) {
      test::begin("kill " + std::to_string(kills()));
      for (const std::string& service : services) client->awaitRebound(service, m_device.killed(service));
    }
  }

  static Json change(const std::string& path, const Json& value) {
    return {{"order", "change"}, {"change", {{"path", path}, {"value", value}}}};
  }
  static Json happening(const char* service, const Json& event) {
    return {{"order", "event"}, {"service", service}, {"event", event}};
  }
  static Json directive(const std::string& nspace, const std::string& text, const std::string& rest = "") {
    const Json texts = {text, "", "", "", "", "", rest};
    return happening("coordinator", {{"namespace", nspace}, {"texts", texts}});
  }

  // One change of each kind.
  void act() {
    const std::int64_t number = ++m_number;
    const std::string text = std::to_string(number);
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
      for (int i = 0; i < kNamespaces; ++i) {
        const std::string nspace = namespaceOf(client->name(), i);
        m_device.act(kCoordinator, kDirective + nspace, text, directive(nspace, text));
      }
    }
    const Json from = {{"key", kClock + "OLD_TIME_MILLIS"}, {"type", "long"}, {"value", number}};
    const Json to = {{"key", kClock + "NEW_TIME_MILLIS"}, {"type", "long"}, {"value", number + 1}};
    delegate(kClock + "TIME_SYNC", times(),
             happening("delegate", {{"action", kClock + "TIME_SYNC"}, {"extras", {from, to}}}));
  }

  // The last change of each service that the client hears of.
  void awaitTold() {
    for (const auto& client : m_clients) {
      client->awaitTold(kClock + "TIME_SYNC", times());
      for (int i = 0; i < kNamespaces; ++i)
        client->awaitTold(kDirective + namespaceOf(client->name(), i), std::to_string(m_number));
    }
  }

  // On a busy machine a service may be away for so long that clients give up on it, and hear no more of it.
  void actAndAwait() {
    replaceThoseWhoGaveUp();
    act();
    awaitTold();
  }

  std::string times() const { return std::to_string(m_number) + "," + std::to_string(m_number + 1); }

  void renewNetwork(bool quiet) {
    for (const auto& client : m_clients) {
      const std::size_t before = client->registrations();
      client->order(quiet ? "quiet" : "network");
      if (!quiet) client->awaitRegistered(before + 1);
    }
  }

  void start(std::size_t place) {
    m_names.push_back("client" + std::to_string(m_names.size() + 1));
    m_clients[place] = std::make_unique<Client>(m_directory, m_names.back());
    m_clients[place]->awaitReady();
    // It has to catch up with those that were told before.
    for (int i = 0; i < m_more; ++i) m_clients[place]->order("more " + std::to_string(i));
    m_young = kills();
  }

  void end(Client& client) {
    const test::Usage& early = client.early;
    const test::Usage late = test::usageOf(client.pid());
    test::require(early.resident_kb == 0 || (late.resident_kb <= early.resident_kb + kGrowth.resident_kb &&
                                             late.threads <= early.threads + kGrowth.threads &&
                                             late.descriptors <= early.descriptors + kGrowth.descriptors),
                  client.name() + " has grown to " + std::to_string(late.resident_kb) + " KiB, " +
                      std::to_string(late.threads) + " threads, " + std::to_string(late.descriptors) + " descriptors");
    client.end();
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

  const std::string kClock = "com.quarlo.velmos.service.timeservice.clock.";
  const std::filesystem::path m_directory;
  const std::int64_t m_wanted;  // kills
  std::mt19937_64 m_random;
  Device m_device;
  std::vector<std::unique_ptr<Client>> m_clients;
  std::vector<std::string> m_names;
  std::vector<std::string> m_services;
  std::int64_t m_number = 0;  // of the latest changes
  int m_more = 0;             // settings that the clients have been told to register for beside the first
  bool m_flag = true;         // what has two states, and the state that it had last
  std::int64_t m_nextSpecial = 0;
  std::int64_t m_young = 0;  // clients have not been compared with themselves before so many kills
};

}  // namespace orvel::kills

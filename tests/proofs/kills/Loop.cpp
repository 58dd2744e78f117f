#include "Loop.h"

#include <algorithm>
#include <chrono>
#include <future>
#include <thread>

#include "Keys.h"

namespace orvel::kills {
namespace {

constexpr std::int64_t kSpecialEvery = 4000;  // kills
// When what a process allocates once has been allocated, in kills since it started.
constexpr std::int64_t kGrownUp = 30;
// Of a directive, so that a thousand or so fill what is between the device and a client that takes nothing.
const std::string kBulky(12'000, 'x');
// Longer than the device waits for an answer to a notice.
constexpr std::chrono::milliseconds kBeyondTimeLimit(8300);

Json change(const std::string& path, const Json& value) {
  return {{"order", "change"}, {"change", {{"path", path}, {"value", value}}}};
}

Json happening(const char* service, const Json& event) {
  return {{"order", "event"}, {"service", service}, {"event", event}};
}

Json directive(const std::string& nspace, const std::string& text, const std::string& rest = "") {
  const Json texts = {text, "", "", "", "", "", rest};
  return happening("coordinator", {{"namespace", nspace}, {"texts", texts}});
}

std::string timesOf(std::int64_t number) {
  return std::to_string(number) + " " + std::to_string(number + 1);
}

}  // namespace

void Growth::take(const Usage& early, const Usage& late) {
  if (early.kilobytes == 0) return;
  ++compared;
  most.kilobytes = std::max(most.kilobytes, late.kilobytes - early.kilobytes);
  most.threads = std::max(most.threads, late.threads - early.threads);
  most.descriptors = std::max(most.descriptors, late.descriptors - early.descriptors);
}

Loop::Loop(const Options& options, const std::filesystem::path& directory)
    : m_options(options), m_directory(directory), m_random(options.seed), m_device(options.programs, directory) {
  for (const Device::Service& each : m_device.services()) m_services.push_back(each.name);
  const Json delay = m_device.order({{"order", "scenario"}}).at("scenario").at("events").at("resultDelayMs");
  m_device.journal().note({0, "limits", {}, {}, delay.dump(), 0, false});
}

Loop::~Loop() = default;

void Loop::run() {
  startClients();
  while (m_device.kills() < m_options.kills) {
    if (m_device.kills() >= m_nextSpecial) special();
    round();
  }
  endClients();
  if (m_earlyDevice.kilobytes != 0) m_deviceGrowth.take(m_earlyDevice, usageOf(m_device.pid()));
}

void Loop::round() {
  // Registering may meet the death as well.
  const std::size_t before = m_clients.front()->registrations();
  const bool more = m_more < 3 && chance(30);
  if (more) {
    for (const auto& client : m_clients) client->order("more " + std::to_string(m_more));
    ++m_more;
  }
  struct Way {
    int weight;
    Services (Loop::*kill)();
  };
  const Way ways[] = {{40, &Loop::killOne},    {15, &Loop::killStopped}, {12, &Loop::killBusy},
                      {10, &Loop::killTwo},    {2, &Loop::killAll},      {9, &Loop::killReplaying},
                      {7, &Loop::killBinding}, {5, &Loop::killFlapping}};
  int choice = pick(100);
  const Way* way = ways;
  while (choice >= way->weight) choice -= way++->weight;
  const Services victims = (this->*way->kill)();
  if (more) {
    for (const auto& client : m_clients) client->awaitRegistered(before + 1);
  }
  recover(victims);
  replaceThoseWhoGaveUp();
  if (chance(60)) renewNetwork(chance(15));
  act();
  if (chance(75)) awaitTold();

  if (m_device.kills() >= m_young + kGrownUp) {
    for (const auto& client : m_clients) {
      if (client->early.kilobytes == 0) client->early = usageOf(client->pid());
    }
    if (m_earlyDevice.kilobytes == 0) m_earlyDevice = usageOf(m_device.pid());
  }
}

Loop::Services Loop::killOne() {
  const std::string victim = anyService();
  pause(3);
  m_device.kill(victim);
  return {victim};
}

// It stands still in the middle of whatever it does: while orders are carried out, while calls of clients wait.
Loop::Services Loop::killStopped() {
  const std::string victim = anyService();
  std::future<void> acting = std::async(std::launch::async, [this] { act(); });
  pause(8);
  m_device.stop(victim);
  pause(15);
  m_device.kill(victim);
  acting.get();
  return {victim};
}

Loop::Services Loop::killBusy() {
  const std::string victim = anyService();
  std::future<void> acting = std::async(std::launch::async, [this] { act(); });
  pause(10);
  m_device.kill(victim);
  acting.get();
  return {victim};
}

Loop::Services Loop::killTwo() {
  Services victims = {anyService(), anyService()};
  if (victims[0] == victims[1]) victims.pop_back();
  for (const std::string& victim : victims) m_device.kill(victim);
  return victims;
}

Loop::Services Loop::killAll() {
  for (const std::string& victim : m_services) m_device.kill(victim);
  return m_services;
}

// The next process too, as soon as it has some registrations, while clients still make the others.
Loop::Services Loop::killReplaying() {
  m_device.kill(kDelegate);
  m_device.awaitLife(kDelegate);
  m_device.awaitMade("", m_device.service(kDelegate).pid, 1 + static_cast<std::size_t>(pick(12)));
  m_device.kill(kDelegate);
  return {kDelegate};
}

// The next process too, before it serves.
Loop::Services Loop::killBinding() {
  const std::string victim = anyService();
  const pid_t last = m_device.kill(victim).pid;
  for (const std::int64_t start = now(); m_device.service(victim).pid == last;)
    endWaiting(start, victim + " is not started");
  pause(4);
  m_device.kill(victim);
  return {victim};
}

Loop::Services Loop::killFlapping() {
  const std::string victim = anyService();
  for (int times = 2 + pick(3); times > 0; --times) {
    m_device.kill(victim);
    m_device.awaitLife(victim);
    pause(30);
  }
  m_device.kill(victim);
  return {victim};
}

void Loop::special() {
  m_nextSpecial = m_device.kills() + kSpecialEvery;
  renewNetwork(false);
  act();
  awaitTold();
  // One is not restored, and the other leaves events without a status.
  for (const char* service : {kConnectivity, kEvents}) m_device.kill(service);
  recover({kConnectivity, kEvents});
  act();
  awaitTold();
  refuseReplays();
  if (m_options.kills >= kLongEnough) {
    fillQueue();
    passTimeLimit();
    passCallLimit();
  }
  const char* const services[] = {kDelegate, kConnectivity, kEvents, kPower};
  stayAway(services[m_options.kills < kLongEnough ? 0 : pick(4)]);
}

// What a new process refuses has to wait for the one after it.
void Loop::refuseReplays() {
  const std::string fault = "/delegate/faults/registerForBroadcastWithDataTypeOrScheme/exception";
  const Json exception = {{"code", -5}, {"message", "refused by the kill loop"}, {"trace", ""}};
  m_device.order(change("/delegate/faults/registerForBroadcastWithDataTypeOrScheme", {{"exception", exception}}));
  m_device.kill(kDelegate);
  recover({kDelegate});
  m_device.order({{"order", "change"}, {"change", {{"path", fault}}}});
  act();
  m_device.kill(kDelegate);
  recover({kDelegate});
  act();
  awaitTold();
}

// Longer than clients look for it, so that they do without it from then on; others take their place.
void Loop::stayAway(const std::string& service) {
  const Device::Service victim = m_device.service(service);
  m_device.kill(service);
  // Its supervisor would start it again; the order to kill it keeps it dead.
  while (m_device.service(service).pid == victim.pid) std::this_thread::sleep_for(std::chrono::milliseconds(1));
  if (const Device::Service next = m_device.service(service); next.pid != 0) {
    m_device.journal().note({0, "kill", service, {}, {}, next.pid, false});
    m_device.order({{"order", "kill"}, {"service", next.id}});
    m_device.journal().note({0, "killed", service, {}, {}, next.pid, false});
  }
  for (const auto& client : m_clients) client->awaitGivenUp(service);
  m_device.awaitLife(service);
  act();
  std::this_thread::sleep_for(std::chrono::milliseconds(200));
  replaceThoseWhoGaveUp();
}

// More directives than fit between the device and a client that takes none: the device says which it refuses.
void Loop::fillQueue() {
  ClientProcess& client = *m_clients.front();
  const std::string nspace = namespaceOf(client.name(), 0);
  std::string newest;
  m_device.journal().note({0, "frozen", client.name(), {}, {}, 0, false});
  client.freeze(true);
  for (int refused = 0; refused < 10;) {
    const std::string text = std::to_string(++m_number);
    const bool taken = m_device.act(kCoordinator, kDirective + nspace, text, directive(nspace, text, kBulky));
    if (taken) newest = text;
    if (!taken) ++refused;
  }
  client.freeze(false);
  m_device.journal().note({0, "thawed", client.name(), {}, {}, 0, false});
  client.awaitTold(kDirective + nspace, newest);
  act();
  awaitTold();
}

// A client that answers a notice too late for the device may have had it all the same.
void Loop::passTimeLimit() {
  ClientProcess& client = *m_clients.front();
  m_device.journal().note({0, "frozen", client.name(), {}, {}, 0, false});
  client.freeze(true);
  act();
  std::this_thread::sleep_for(kBeyondTimeLimit);
  client.freeze(false);
  m_device.journal().note({0, "thawed", client.name(), {}, {}, 0, false});
  act();
  awaitTold();
}

// A service that lives and does not answer holds nobody up for longer than the limit of calls.
void Loop::passCallLimit() {
  m_device.stop(kPower);
  std::this_thread::sleep_for(std::chrono::milliseconds(1500));
  m_device.kill(kPower);
  recover({kPower});
}

void Loop::recover(const Services& services) {
  for (const std::string& service : services) m_device.awaitLife(service);
  for (const auto& client : m_clients) {
    for (const std::string& service : services) client->awaitRebound(service, m_device.killed(service));
    if (client->hasGivenUp()) continue;
    if (std::find(services.begin(), services.end(), kDelegate) == services.end()) continue;
    m_device.awaitMade(client->name(), m_device.service(kDelegate).pid, client->keysWith(kDelegate));
  }
}

void Loop::act() {
  const std::int64_t number = ++m_number;
  const std::string text = std::to_string(number);
  m_flag = !m_flag;
  const std::string flag = m_flag ? "true" : "false";
  m_device.act(kDelegate, kName, "kill " + text, change("/delegate/name", "kill " + text));
  m_device.act(kDelegate, m_flag ? kAccountAdded : kAccountRemoved, flag,
               change("/delegate/customerId", m_flag ? "account" : ""));
  m_device.act(kDelegate, kAssistant, flag, change("/delegate/maroConnected", m_flag));
  m_device.act(kConnectivity, kNetwork, flag, change("/connectivity/networkConnected", m_flag));
  m_device.act(kDelegate, m_flag ? kScreenOn : kScreenOff, flag, change("/power/screenOn", m_flag));
  m_device.act(kDelegate, kSetting, text, change("/delegate/settings/kill", text));
  for (int i = 0; i < m_more; ++i) {
    const std::string more = "kill.more." + std::to_string(i);
    m_device.act(kDelegate, kMoreSettings + std::to_string(i), text, change("/delegate/settings/" + more, text));
  }
  m_device.act(kDelegate, kPackage, "kill" + text,
               happening("delegate", {{"action", kPackage}, {"data", "package:kill" + text}}));
  for (const auto& client : m_clients) {
    for (int i = 0; i < kNamespaces; ++i) {
      const std::string nspace = namespaceOf(client->name(), i);
      m_device.act(kCoordinator, kDirective + nspace, text, directive(nspace, text));
    }
  }
  const std::string clock = "com.quarlo.velmos.service.timeservice.clock.";
  const Json from = {{"key", clock + "OLD_TIME_MILLIS"}, {"type", "long"}, {"value", number}};
  const Json to = {{"key", clock + "NEW_TIME_MILLIS"}, {"type", "long"}, {"value", number + 1}};
  m_device.act(kDelegate, kTime, timesOf(number), happening("delegate", {{"action", kTime}, {"extras", {from, to}}}));
}

// The last change of each service that the client hears of.
void Loop::awaitTold() {
  for (const auto& client : m_clients) {
    client->awaitTold(kTime, timesOf(m_number));
    for (int i = 0; i < kNamespaces; ++i) {
      client->awaitTold(kDirective + namespaceOf(client->name(), i), std::to_string(m_number));
    }
  }
  m_device.journal().note({0, "settled", {}, {}, {}, 0, false});
}

void Loop::renewNetwork(bool quiet) {
  for (const auto& client : m_clients) {
    const std::size_t before = client->registrations();
    if (quiet) client->order("quiet");
    if (!quiet) client->order("network");
    if (!quiet) client->awaitRegistered(before + 1);
  }
}

void Loop::startClients() {
  m_clients.resize(static_cast<std::size_t>(m_options.clients));
  for (std::size_t i = 0; i < m_clients.size(); ++i) start(i);
}

void Loop::start(std::size_t number) {
  const std::string name = "client" + std::to_string(m_names.size() + 1);
  m_clients[number] = std::make_unique<ClientProcess>(m_options.programs / "orvel-kill-client", m_directory, name);
  m_device.nameClient(m_clients[number]->pid(), name);
  m_names.push_back(name);
  m_clients[number]->awaitReady();
  // It has to catch up with those who were told before.
  for (int i = 0; i < m_more; ++i) m_clients[number]->order("more " + std::to_string(i));
  m_young = m_device.kills();
}

void Loop::end(ClientProcess& client) {
  m_clientGrowth.take(client.early, usageOf(client.pid()));
  client.end();
}

void Loop::endClients() {
  renewNetwork(false);
  act();
  awaitTold();
  // What was sent some time before a client stops, it must have had.
  std::this_thread::sleep_for(std::chrono::milliseconds(600));
  for (const auto& client : m_clients) end(*client);
}

void Loop::replaceThoseWhoGaveUp() {
  for (std::size_t i = 0; i < m_clients.size(); ++i) {
    if (!m_clients[i]->hasGivenUp()) continue;
    end(*m_clients[i]);
    start(i);
  }
}

std::string Loop::anyService() {
  return chance(35) ? kDelegate : m_services[static_cast<std::size_t>(pick(static_cast<int>(m_services.size())))];
}

void Loop::pause(int mostMilliseconds) {
  std::this_thread::sleep_for(std::chrono::microseconds(pick(1000 * mostMilliseconds)));
}

}  // namespace orvel::kills

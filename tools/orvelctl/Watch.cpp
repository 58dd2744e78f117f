#include "Watch.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <ctime>
#include <deque>
#include <functional>
#include <iomanip>
#include <iostream>
#include <mutex>
#include <sstream>
#include <system_error>
#include <utility>

#include "Services.h"
#include "tools/cli/Options.h"

namespace orvelctl {
namespace {

using Clock = std::chrono::system_clock;

struct Event {
  Clock::time_point time;
  Json object;
  std::string text;
};

// From the callbacks to the thread that prints: standard output may keep that one waiting, but never the client.
class Events {
 public:
  Events() : m_wake(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
    if (m_wake < 0) throw std::system_error(errno, std::generic_category(), "eventfd");
  }
  ~Events() { close(m_wake); }
  Events(const Events&) = delete;
  Events& operator=(const Events&) = delete;

  // Any thread.
  void add(const std::string& kind, const Json& values, const std::string& text) {
    Json object = {{"timeMs", 0}, {"kind", kind}};  // the time stands first
    object.update(values);
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_events.push_back(
        {Clock::now(), std::move(object), kind + std::string(14 - std::min<std::size_t>(kind.size(), 12), ' ') + text});
    eventfd_write(m_wake, 1);
  }

  std::optional<Event> take() {
    const std::lock_guard<std::mutex> lock(m_mutex);
    if (m_events.empty()) return std::nullopt;
    std::optional<Event> event = std::move(m_events.front());
    m_events.pop_front();
    return event;
  }

  // Readable when there may be events.
  int descriptor() const { return m_wake; }
  void rest() const {
    eventfd_t ignored = 0;
    eventfd_read(m_wake, &ignored);
  }

 private:
  const int m_wake;
  std::mutex m_mutex;
  std::deque<Event> m_events;
};

// One kind of change, and how the client is asked for it. Callbacks may run until the client is shut down.
struct Kind {
  std::string name;
  std::string about;
  const char* service;
  std::function<bool(Client& client, Events& events)> subscribe;
  bool (Client::*unsubscribe)() = nullptr;  // where there is such a thing
};

// A kind that is one flag: its key, and the words for true and false.
Kind flagKind(const char* name, const char* about, const char* service,
              bool (Client::*subscribe)(std::function<void(bool)>), const char* key, const char* yes, const char* no,
              bool (Client::*unsubscribe)() = nullptr) {
  const auto ask = [=](Client& client, Events& events) {
    return (client.*subscribe)([=, &events](bool value) { events.add(name, {{key, value}}, value ? yes : no); });
  };
  return {name, about, service, ask, unsubscribe};
}

// Broadcasts of one action, as events of a kind.
bool subscribeToAction(Client& client, Events& events, const char* kind, const std::string& action,
                       const std::vector<std::string>& schemes) {
  const auto tell = [kind, &events](const std::string& told, const std::string& package) {
    events.add(kind, {{"action", told}, {"package", package}}, told + (package.empty() ? "" : " " + package));
  };
  return client.registerForPackageAction(action, {}, schemes, tell);
}

bool subscribeToPackages(Client& client, Events& events) {
  bool taken = true;
  for (const char* what : {"ADDED", "REMOVED", "REPLACED", "CHANGED"}) {
    const std::string action = std::string("android.intent.action.PACKAGE_") + what;
    taken &= subscribeToAction(client, events, "package", action, {"package"});
  }
  return taken;
}

const std::vector<Kind>& kinds() {
  static const std::vector<Kind> all = {
      {"name", "the device has a new name", kDelegate,
       [](Client& client, Events& events) {
         return client.registerForDeviceNameChange([&events](const std::string& name) {
           events.add("name", {{"name", name}}, name);
         });
       }},
      flagKind("registration", "an account was added to the device or removed from it", kDelegate,
               &Client::registerForDeviceRegistrationChange, "registered", "registered", "unregistered"),
      flagKind("assistant", "the voice assistant is connected or disconnected", kDelegate,
               &Client::registerForMaroConnectivityChange, "connected", "connected", "disconnected"),
      flagKind("network", "the network is connected or disconnected", kConnectivity,
               &Client::registerForNetworkConnectivityChange, "connected", "connected", "disconnected",
               &Client::unregisterForNetworkConnectivityChange),
      flagKind("screen", "the screen was switched on or off", kDelegate, &Client::registerForScreenStateChange, "on",
               "on", "off"),
      {"package", "a package was added, removed, replaced or changed", kDelegate, subscribeToPackages},
      {"time", "the clock was set: from and to, in milliseconds since 1970", kDelegate,
       [](Client& client, Events& events) {
         return client.registerForTimeSync([&events](long long from, long long to) {
           events.add("time", {{"oldMs", from}, {"newMs", to}}, std::to_string(from) + " " + std::to_string(to));
         });
       }},
  };
  return all;
}

// A kind with a key behind its name.
struct KeyedKind {
  std::string prefix;  // "setting:"
  std::string key;     // what the key is called
  std::string about;
  const char* service;
  bool (*subscribe)(Client& client, Events& events, const std::string& key);
};

const std::vector<KeyedKind>& keyedKinds() {
  static const std::vector<KeyedKind> all = {
      {"setting:", "KEY", "a secure setting has a new value, which must be a number; a removed one counts as 0",
       kDelegate,
       [](Client& client, Events& events, const std::string& key) {
         return client.registerForSecureSettingIntChange(key, 0, [key, &events](int value) {
           events.add("setting", {{"key", key}, {"value", value}}, key + " " + std::to_string(value));
         });
       }},
      {"broadcast:", "ACTION", "a broadcast of the action, one without data; with the package it is about, if any",
       kDelegate,
       [](Client& client, Events& events, const std::string& action) {
         return subscribeToAction(client, events, "broadcast", action, {});
       }},
      // This process serves the namespaces itself.
      {"directive:", "NAMESPACE", "a directive of the voice assistant, with its seven texts", kNoService,
       [](Client& client, Events& events, const std::string& nspace) {
         return client.registerForDirective(nspace, [nspace, &events](const auto&... texts) {
           const Json list = {texts...};
           events.add("directive", {{"namespace", nspace}, {"texts", list}}, nspace + " " + asText(list));
         });
       }},
  };
  return all;
}

// Null for a name without the prefix of a keyed kind.
const KeyedKind* keyedKindOf(const std::string& name) {
  const auto fits = [&](const KeyedKind& kind) { return name.rfind(kind.prefix, 0) == 0; };
  const auto found = std::find_if(keyedKinds().begin(), keyedKinds().end(), fits);
  return found == keyedKinds().end() ? nullptr : &*found;
}

Kind kindCalled(const std::string& name) {
  if (const KeyedKind* keyed = keyedKindOf(name)) {
    const auto subscribe = [keyed, key = name.substr(keyed->prefix.size())](Client& client, Events& events) {
      return keyed->subscribe(client, events, key);
    };
    return {name, "", keyed->service, subscribe};
  }
  return *std::find_if(kinds().begin(), kinds().end(), [&](const Kind& kind) { return kind.name == name; });
}

std::vector<Kind> kindsCalled(const std::vector<std::string>& names) {
  if (names.empty()) return kinds();
  std::vector<Kind> called;
  called.reserve(names.size());
  for (const std::string& name : names) called.push_back(kindCalled(name));
  return called;
}

std::string lineOf(Event event, bool json) {
  const std::time_t seconds = Clock::to_time_t(event.time);
  const auto milliseconds =
      std::chrono::duration_cast<std::chrono::milliseconds>(event.time.time_since_epoch()).count();
  event.object["timeMs"] = milliseconds;
  if (json) return asText(event.object) + '\n';
  std::tm local{};
  localtime_r(&seconds, &local);
  std::ostringstream line;
  line << std::put_time(&local, "%T") << '.' << std::setw(3) << std::setfill('0') << milliseconds % 1000 << "  "
       << event.text << '\n';
  return line.str();
}

// Waits until there may be an event and standard output takes it; false when it is time to end. Everything that would
// block is waited for here, so that an interruption ends it at once.
bool wait(const Session& session, const Events& events, bool writing, std::optional<Seconds> left) {
  pollfd descriptors[] = {
      {session.interruption(), POLLIN, 0},
      {writing ? STDOUT_FILENO : events.descriptor(), static_cast<short>(writing ? POLLOUT : POLLIN), 0}};
  timespec time{};
  if (left) {
    const auto nanoseconds = std::chrono::duration_cast<std::chrono::nanoseconds>(std::max(*left, Seconds(0)));
    time = {nanoseconds.count() / 1'000'000'000, nanoseconds.count() % 1'000'000'000};
  }
  return ppoll(descriptors, 2, left ? &time : nullptr, nullptr) > 0 && descriptors[0].revents == 0;
}

}  // namespace

std::string checkKind(const std::string& name) {
  if (const KeyedKind* keyed = keyedKindOf(name)) {
    return name == keyed->prefix ? name + " needs a key, as in " + name + keyed->key : "";
  }
  std::string known;
  for (const Kind& kind : kinds()) {
    if (kind.name == name) return {};
    known += kind.name + ", ";
  }
  for (const KeyedKind& kind : keyedKinds()) known += (known.back() == ' ' ? "" : ", ") + kind.prefix + kind.key;
  return "no kind is called '" + name + "'; there are " + known;
}

std::vector<std::string> kindNames() {
  std::vector<std::string> names;
  for (const Kind& kind : kinds()) names.push_back(kind.name);
  return names;
}

std::string describeKinds() {
  std::ostringstream text;
  const auto add = [&](const std::string& name, const std::string& about) {
    text << "  " << std::left << std::setw(18) << name << about << '\n';
  };
  for (const Kind& kind : kinds()) add(kind.name, kind.about);
  for (const KeyedKind& kind : keyedKinds()) add(kind.prefix + kind.key, kind.about);
  return text.str();
}

void addLimits(CLI::App* subcommand, WatchOptions& options) {
  subcommand->add_option("--count", options.count, "end after so many lines")
      ->check(CLI::Range(1, INT_MAX).description(""))
      ->type_name("NUMBER");
  orvel::cli::inSeconds(subcommand->add_option("--for", options.for_seconds, "end after so many seconds"));
}

void watchChanges(Session& session, const WatchOptions& options) {
  // Before the subscriptions end, so declared before what ends them.
  Events events;
  const Session::Stop stop(session);
  const std::vector<Kind> kinds = kindsCalled(options.kinds);
  std::string watched;
  for (const Kind& kind : kinds) {
    const auto subscribe = [&](Client& client) { return kind.subscribe(client, events); };
    const auto taken = session.ask("watching " + kind.name, kind.service, false, subscribe);
    if (!taken) return;
    if (*taken == false) return session.fail("watching " + kind.name, "the service refused", kind.service);
    watched += (watched.empty() ? "" : ", ") + kind.name;
  }
  std::cerr << "orvelctl: watching " << watched << "; Ctrl-C ends" << std::endl;

  const auto start = std::chrono::steady_clock::now();
  std::uint64_t printed = 0;
  std::string line;  // what is still to be written of it
  while (session.status() == kSuccess) {
    std::optional<Seconds> left;
    if (options.for_seconds > 0) left = Seconds(options.for_seconds) - (std::chrono::steady_clock::now() - start);
    if (!wait(session, events, !line.empty(), left)) break;
    if (line.empty()) {
      events.rest();
    } else if (!session.writeSome(line) || (line.empty() && ++printed == options.count)) {
      break;
    }
    if (!line.empty()) continue;
    if (std::optional<Event> event = events.take()) line = lineOf(*std::move(event), session.json());
  }
  for (const Kind& kind : kinds) {
    if (kind.unsubscribe && session.status() == kSuccess) session.attempt(kind.unsubscribe);
  }
  session.acceptInterrupt();
}

}  // namespace orvelctl

#include "Kinds.h"

#include <algorithm>
#include <ctime>
#include <iomanip>
#include <iterator>
#include <optional>
#include <sstream>
#include <utility>

#include "Commands.h"
#include "orvel/OrvelIntent.h"
#include "tools/cli/Text.h"

namespace orvelctl {
namespace {

using orvel::cli::printable;
using orvel::service_apis::Bundle;
using orvel::service_apis::OrvelIntent;
using Subscriptions = std::vector<Subscription>;

bool keep(Subscription made, Subscriptions& subscriptions) {
  if (!made) return false;
  subscriptions.push_back(std::move(made));
  return true;
}

// A kind that is one flag: its key, and the words for true and false.
Kind flagKind(const char* name, const char* about, Service service,
              Subscription (Client::*subscribe)(std::function<void(bool)>), const char* key, const char* yes,
              const char* no) {
  const auto ask = [=](Client& client, const DataFilter&, const Tell& tell, Subscriptions& all) {
    return keep((client.*subscribe)([=](bool value) { tell({{key, value}}, value ? yes : no); }), all);
  };
  return {name, about, service, ask};
}

bool watchPackages(Client& client, const DataFilter&, const Tell& tell, Subscriptions& all) {
  const auto watch = [&](const char* action, const char* word) {
    const auto told = [tell, word](const std::string& told_action, const std::string& package) {
      tell({{"action", told_action}, {"package", package}}, word + (" " + printable(package)));
    };
    return keep(client.subscribePackageAction(action, {}, {"package"}, told), all);
  };
  return watch("android.intent.action.PACKAGE_ADDED", "added") &&
         watch("android.intent.action.PACKAGE_REMOVED", "removed") &&
         watch("android.intent.action.PACKAGE_REPLACED", "replaced") &&
         watch("android.intent.action.PACKAGE_CHANGED", "changed");
}

// "2026-11-18 12:00:00.000" of milliseconds since 1970, in local time; "?" for 0, which stands for a time not given.
std::string dateOf(long long time) {
  const std::time_t seconds = static_cast<std::time_t>(time / 1000) - (time % 1000 < 0 ? 1 : 0);
  std::tm local{};
  if (time == 0 || localtime_r(&seconds, &local) == nullptr) return "?";
  std::ostringstream text;
  text << std::put_time(&local, "%F %T") << '.' << std::setw(3) << std::setfill('0') << ((time % 1000) + 1000) % 1000;
  return text.str();
}

const std::vector<Kind>& kinds() {
  static const std::vector<Kind> all = [] {
    const Service delegate = Service::kDelegate;
    const auto name = [](Client& client, const DataFilter&, const Tell& tell, Subscriptions& subscriptions) {
      const auto told = [tell](const std::string& value) { tell({{"name", value}}, printable(value)); };
      return keep(client.subscribeDeviceNameChange(told), subscriptions);
    };
    const auto time = [](Client& client, const DataFilter&, const Tell& tell, Subscriptions& subscriptions) {
      const auto told = [tell](long long from, long long to) {
        tell({{"oldMs", from}, {"newMs", to}}, "from " + dateOf(from) + " to " + dateOf(to));
      };
      return keep(client.subscribeTimeSync(told), subscriptions);
    };
    Kind network = flagKind("network", "the network is connected or disconnected", Service::kConnectivity,
                            &Client::subscribeNetworkConnectivityChange, "connected", "connected", "disconnected");
    network.unsubscribe = &Client::unregisterForNetworkConnectivityChange;
    return std::vector<Kind>{
        {"name", "the device has a new name", delegate, name},
        flagKind("registration", "an account was added to the device or removed from it", delegate,
                 &Client::subscribeDeviceRegistrationChange, "registered", "registered", "unregistered"),
        flagKind("assistant", "the voice assistant is connected or disconnected", delegate,
                 &Client::subscribeMaroConnectivityChange, "connected", "connected", "disconnected"),
        network,
        flagKind("screen", "the screen was switched on or off", delegate, &Client::subscribeScreenStateChange, "on",
                 "on", "off"),
        {"package", "a package was added, removed, replaced or changed", delegate, watchPackages},
        {"time", "the clock was set; \"?\" for a time that was not told", delegate, time},
    };
  }();
  return all;
}

// A setting as it is, but a number as a number.
Json valueOf(const std::optional<std::string>& setting) {
  if (!setting) return nullptr;
  const auto number = readNumber<long long>(*setting);
  return number && std::to_string(*number) == *setting ? Json(*number) : Json(*setting);
}

Kind settingKind(const std::string& name, const std::string& key) {
  const auto watch = [key](Client& client, const DataFilter&, const Tell& tell, Subscriptions& all) {
    const auto told = [key, tell](const std::optional<std::string>& value) {
      tell({{"key", key}, {"value", valueOf(value)}}, printable(key + " " + value.value_or("(unset)")));
    };
    return keep(client.subscribeSecureSetting(key, told), all);
  };
  return {name, "", Service::kDelegate, watch};
}

// The package that a broadcast is about; empty for none.
std::string packageOf(const OrvelIntent& intent) {
  const std::string prefix = "package:";
  if (intent.data.rfind(prefix, 0) == 0) return intent.data.substr(prefix.size());
  const std::string named = intent.extras.get("packageName", std::string());
  return named.empty() ? intent.data : named;
}

// Of a key that several types have, the text counts, then the integer of 32 bits.
Json extrasOf(const Bundle& extras) {
  Json object = Json::object();
  for (const std::string& key : extras.keys()) {
    const auto hasNot = [&](const auto& one, const auto& other) {
      return extras.get(key, one) == one && extras.get(key, other) == other;
    };
    if (!hasNot(std::string("0"), std::string("1"))) {
      object[key] = extras.get(key, std::string());
    } else if (!hasNot(0, 1)) {
      object[key] = extras.get(key, 0);
    } else {
      object[key] = extras.get(key, 0LL);
    }
  }
  return object;
}

Kind broadcastKind(const std::string& name, const std::string& action) {
  const auto told = [](const Tell& tell, const OrvelIntent& intent) {
    const std::string package = packageOf(intent);
    const Json extras = extrasOf(intent.extras);
    std::string text = intent.action;
    if (!package.empty()) text += " " + package;
    if (!intent.data.empty() && intent.data != package) text += " " + intent.data;
    text = printable(text) + (extras.empty() ? "" : " " + asText(extras));
    tell({{"action", intent.action}, {"package", package}, {"data", intent.data}, {"extras", extras}}, text);
  };
  const auto watch = [=](Client& client, const DataFilter& filter, const Tell& tell, Subscriptions& all) {
    const auto take = [=](const OrvelIntent& intent) { told(tell, intent); };
    return keep(client.subscribeBroadcast(action, filter.types, filter.schemes, take), all);
  };
  return {name, "", Service::kDelegate, watch};
}

// This process serves the namespaces itself.
Kind directiveKind(const std::string& name, const std::string& nspace) {
  const auto watch = [nspace](Client& client, const DataFilter&, const Tell& tell, Subscriptions& all) {
    const auto told = [nspace, tell](const auto&... texts) {
      const Json list = {texts...};
      tell({{"namespace", nspace}, {"texts", list}}, printable(nspace) + " " + asText(list));
    };
    return keep(client.subscribeDirective(nspace, told), all);
  };
  return {name, "", Service::kCoordinator, watch, /*asks=*/false};
}

// A kind with a key behind its name.
struct KeyedKind {
  std::string prefix;  // "setting:"
  std::string key;     // what the key is called
  std::string about;
  Kind (*made)(const std::string& name, const std::string& key);
};

const std::vector<KeyedKind>& keyedKinds() {
  static const std::vector<KeyedKind> all = {
      {"setting:", "KEY", "a secure setting has a new value, or was removed", settingKind},
      {"broadcast:", "ACTION",
       "a broadcast of the action, with its data and extras; one that has no data, unless --type or\n"
       "                      --scheme says which",
       broadcastKind},
      {"directive:", "NAMESPACE", "a directive of the voice assistant, with its seven texts", directiveKind},
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
  if (const KeyedKind* keyed = keyedKindOf(name)) return keyed->made(name, name.substr(keyed->prefix.size()));
  return *std::find_if(kinds().begin(), kinds().end(), [&](const Kind& kind) { return kind.name == name; });
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
  const std::string near = orvel::cli::didYouMean(name, kindNames());
  return "no kind is called '" + name + "'" + (near.empty() ? "; there are " + known : near);
}

std::vector<std::string> kindNames() {
  std::vector<std::string> names;
  for (const Kind& kind : kinds()) names.push_back(kind.name);
  return names;
}

std::string describeKinds() {
  std::ostringstream text;
  const auto add = [&](const std::string& name, const std::string& about) {
    text << "  " << std::left << std::setw(20) << name << about << '\n';
  };
  for (const Kind& kind : kinds()) add(kind.name, kind.about);
  for (const KeyedKind& kind : keyedKinds()) add(kind.prefix + kind.key, kind.about);
  return text.str();
}

std::vector<Kind> kindsCalled(const std::vector<std::string>& names) {
  if (names.empty()) return kinds();
  std::vector<Kind> called;
  std::transform(names.begin(), names.end(), std::back_inserter(called), kindCalled);
  return called;
}

}  // namespace orvelctl

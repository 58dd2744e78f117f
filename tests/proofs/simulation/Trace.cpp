#include "Trace.h"

#include <algorithm>
#include <set>
#include <sstream>

#include "support/Notifications.h"

namespace orvel::test::simulation {

const std::vector<Method>& methods() {
  static const std::vector<Method> all = [] {
    const std::set<std::string> without = {"registerForDirective", "unregisterForNetworkConnectivityChange",
                                           "launchApplicationWithPackageName", "acquirePartialWakeLock", "send"};
    std::vector<Method> rows;
    std::copy_if(kMethods.begin(), kMethods.end(), std::back_inserter(rows), [&](const Method& each) {
      const std::string name = each.name;
      return without.count(name) == 0 && name.rfind("subscribe", 0) != 0;
    });
    const auto add = [&](const char* name, int service, const Request& request, const char* failure, auto call) {
      const auto as_text = [call](Client& client, const Hear& hear) { return call(client, hear) ? "true" : "false"; };
      rows.push_back({name, as_text, service, {{request}}, "true", failure, "false"});
    };
    add("initialize", Method::kNoService, {}, "false", [](Client& client, const Hear&) { return client.initialize(); });
    add("shutdown", Method::kNoService, {}, "true",
        [](Client& client, const Hear&) { return client.shutdown(), true; });
    add("unregisterForNetworkConnectivityChange", kConnectivity, {5}, "true",
        [](Client& client, const Hear&) { return client.unregisterForNetworkConnectivityChange(); });
    for (const char* nspace : kNamespaces) {
      add("registerForDirective", kDirectives, {}, "false", [nspace](Client& client, const Hear& hear) {
        return client.registerForDirective(nspace, [hear](const std::string& first, const auto&...) { hear(first); });
      });
    }
    return rows;
  }();
  return all;
}

const Method& method_at(int row) {
  return methods().at(static_cast<std::size_t>(row));
}

int row_of(const std::string& name) {
  const auto is_it = [&](const Method& each) { return each.name == name; };
  return static_cast<int>(std::find_if(methods().begin(), methods().end(), is_it) - methods().begin());
}

Bytes RequestOf::head() const {
  return test::request(kInterfaces.at(static_cast<std::size_t>(method->service)), wire(request->arguments));
}

const std::vector<Notice>& notices() {
  const auto of = [](const char* name, std::size_t place = 0) {
    const Method& method = method_at(row_of(name));
    return RequestOf{&method, &method.requests.at(place)};
  };
  static const std::vector<Notice> all = {
      {of("registerForDeviceNameChange"), 1,
       broadcast("a", "", 1, wire("'com.quarlo.hux.sso.property.devicename' 0 'x'")), "x"},
      {of("registerForDeviceRegistrationChange"), 1, broadcast("a", ""), "true"},
      {of("registerForDeviceRegistrationChange", 1), 1, broadcast("a", ""), "false"},
      {of("registerForMaroConnectivityChange"), 1,
       broadcast("a", "", 1, wire("'com.quarlo.speech.EXTRA_CONNECTIVITY' 1 1")), "true"},
      {of("registerForMaroConnectivityChange"), 1, broadcast("a", ""), "false"},
      {of("registerForScreenStateChange"), 1, broadcast("a", ""), "true"},
      {of("registerForScreenStateChange", 1), 1, broadcast("a", ""), "false"},
      {of("registerForPackageAction"), 1, broadcast("a.P", "package:q"), "a.P,q"},
      {of("registerForTimeSync"), 1,
       broadcast("a", "", 2,
                 wire("'com.quarlo.velmos.service.timeservice.clock.OLD_TIME_MILLIS' 6 3L "
                      "'com.quarlo.velmos.service.timeservice.clock.NEW_TIME_MILLIS' 6 4L")),
       "3,4"},
      {of("registerForSecureSettingIntChange"), 1, setting("k", "12"), "12"},
      {of("registerForNetworkConnectivityChange"), 1, {}, "true"},
      {of("registerForNetworkConnectivityChange"), 6, {}, "false"},
      {of("unregisterForNetworkConnectivityChange"), 1, {}, "true"},
      {of("sendEvent"), 1, notification(wire("1 0")), "SUCCESS,false"},
      {of("registerForDirective"), 1, wire("'1' '2' '4' '3' '5' '6' '7'"), "1"},
  };
  return all;
}

const Notice& notice_at(int place) {
  return notices().at(static_cast<std::size_t>(place));
}

std::string describe(const Event& event) {
  // clang-format off
  static constexpr std::array<const char*, 15> kWords = {
      "start", "kill",  "hold binds of", "complete binds of", "send to", "call",
      "drain", "drained", "reply", "awake", "callback ends", "SLEEP", "REQUEST", "CALLBACK", "RETURN"};
  // clang-format on
  std::ostringstream out;
  out << kWords.at(static_cast<std::size_t>(event.kind)) << ' ' << event.a << ' ' << event.b;
  if (event.kind <= Kind::kComplete || event.kind == Kind::kRequest) out << ' ' << name_of(event.a);
  if (event.kind == Kind::kCall) out << ' ' << method_at(event.a).name;
  if (event.kind == Kind::kSend) out << " for " << notice_at(event.b).to.method->name << ' ' << notice_at(event.b).told;
  if (!event.text.empty()) out << " \"" << event.text << '"';
  if (event.bytes.size() > 0) out << ' ' << event.bytes;
  return out.str();
}

std::string describe(const Trace& trace, std::size_t count) {
  std::string text;
  for (std::size_t n = 0; n < std::min(count, trace.size()); ++n)
    text += std::to_string(n) + ": " + describe(trace[n]) + "\n";
  return text;
}

std::string describe_end(const std::vector<std::string>& bindings, const Live& live, long callbacks, bool maro) {
  std::ostringstream text;
  for (const std::string& each : bindings) text << each << '\n';
  text << "left: " << live << ", callbacks: " << callbacks << ", the assistant is connected: " << maro << '\n';
  return text.str();
}

}  // namespace orvel::test::simulation

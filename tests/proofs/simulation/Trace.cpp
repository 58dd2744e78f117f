#include "Trace.h"

#include <algorithm>
#include <sstream>

#include "support/Notifications.h"

namespace orvel::test::simulation {
namespace {

std::string initialize(Client& client, const Hear&) {
  return client.initialize() ? "true" : "false";
}

std::string shut_down(Client& client, const Hear&) {
  client.shutdown();
  return "";
}

std::string unregister_network(Client& client, const Hear&) {
  return client.unregisterForNetworkConnectivityChange() ? "true" : "false";
}

template <std::size_t kNumber>
std::string register_namespace(Client& client, const Hear& hear) {
  const auto told = [hear](const std::string& first, const auto&... more) { hear((first + ... + ("," + more))); };
  return client.registerForDirective(kNamespaces[kNumber], told) ? "true" : "false";
}

template <std::size_t kNumber>
Method directive() {
  return {"registerForDirective", register_namespace<kNumber>, kDirectives, {}, "true", "false", "false"};
}

}  // namespace

const std::vector<Method>& methods() {
  static const std::vector<Method> all = [] {
    std::vector<Method> rows;
    for (const Method& each : kMethods) {
      const std::string name = each.name;
      if (name != "registerForDirective" && name != "unregisterForNetworkConnectivityChange") rows.push_back(each);
    }
    rows.push_back({"initialize", initialize, Method::kNoService, {}, "true", "false", "false"});
    rows.push_back({"shutdown", shut_down, Method::kNoService, {}, "", "", ""});
    rows.push_back({"unregisterForNetworkConnectivityChange",
                    unregister_network,
                    kConnectivity,
                    {{{5}}},
                    "true",
                    "true",
                    "false"});
    for (const Method& each : {directive<0>(), directive<1>(), directive<2>()}) rows.push_back(each);
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

Bytes head_of(const RequestOf& request) {
  const Method& row = method_at(request.row);
  const char* interface = kInterfaces.at(static_cast<std::size_t>(row.service));
  return test::request(interface, wire(row.requests.at(static_cast<std::size_t>(request.place)).arguments));
}

const std::vector<Notice>& notices() {
  const auto of = [](const char* method, int place = 0) { return RequestOf{row_of(method), place}; };
  const auto with = [](const char* extras, int count) { return broadcast("a.P", "", count, wire(extras)); };
  static const std::vector<Notice> all = {
      {of("registerForDeviceNameChange"), 1, false, with("'com.quarlo.hux.sso.property.devicename' 0 'x'", 1), "x"},
      {of("registerForDeviceNameChange"), 1, false, with("", 0), nullptr},
      {of("registerForDeviceRegistrationChange"), 1, false, with("", 0), "true"},
      {of("registerForDeviceRegistrationChange", 1), 1, false, with("", 0), "false"},
      {of("registerForMaroConnectivityChange"), 1, false, with("'com.quarlo.speech.EXTRA_CONNECTIVITY' 1 1", 1),
       "true"},
      {of("registerForMaroConnectivityChange"), 1, false, with("", 0), "false"},
      {of("registerForScreenStateChange"), 1, false, with("", 0), "true"},
      {of("registerForScreenStateChange", 1), 1, false, with("", 0), "false"},
      {of("registerForPackageAction"), 1, false, broadcast("a.P", "package:q"), "a.P,q"},
      {of("registerForTimeSync"), 1, false,
       with("'com.quarlo.velmos.service.timeservice.clock.OLD_TIME_MILLIS' 6 3L "
            "'com.quarlo.velmos.service.timeservice.clock.NEW_TIME_MILLIS' 6 4L",
            2),
       "3,4"},
      {of("registerForSecureSettingIntChange"), 1, true, setting("k", "12"), "12"},
      {of("registerForSecureSettingIntChange"), 1, true, setting("k", ""), "7"},
      {of("registerForNetworkConnectivityChange"), 1, false, {}, "true"},
      {of("registerForNetworkConnectivityChange"), 6, false, {}, "false"},
      {of("registerForNetworkConnectivityChange"), 2, false, {}, nullptr},
      {of("unregisterForNetworkConnectivityChange"), 1, false, {}, "true"},
      {of("sendEvent"), 1, false, notification(wire("1 0")), "SUCCESS,false"},
      {of("sendEvent"), 1, false, notification(wire("1 4")), "TIMEOUT,true"},
      {of("registerForDirective"), 1, false, wire("'1' '2' '4' '3' '5' '6' '7'"), "1,2,3,4,5,6,7"},
  };
  return all;
}

std::string describe(const Event& event) {
  // clang-format off
  static constexpr std::array<const char*, 20> kWords = {
      "start", "kill", "refuse binds of", "hold binds of", "complete binds of", "another process takes",
      "send to", "call", "stop", "stopped", "drain", "drained", "reply", "awake", "callback ends",
      "SLEEP", "REQUEST", "CALLBACK", "RETURN", "ANSWER"};
  // clang-format on
  std::ostringstream out;
  out << kWords.at(static_cast<std::size_t>(event.kind));
  if (event.kind <= Kind::kComplete || event.kind == Kind::kRequest) {
    out << ' ' << kServices.at(static_cast<std::size_t>(event.a)) << ' ' << event.b;
  } else if (event.kind == Kind::kCall) {
    out << ' ' << method_at(event.a).name << ", callback " << event.b;
  } else if (event.kind == Kind::kSend) {
    const Notice& notice = notices().at(static_cast<std::size_t>(event.b));
    out << ' ' << event.a << ": " << (notice.told != nullptr ? notice.told : "nothing") << " for "
        << method_at(notice.to.row).name;
  } else {
    out << ' ' << event.a;
  }
  if (!event.text.empty()) out << " \"" << event.text << '"';
  if (event.bytes.size() > 0) out << ' ' << event.bytes;
  if (event.flag) out << (event.kind == Kind::kSend ? " two-way" : event.kind == Kind::kRequest ? " +" : " throwing");
  return out.str();
}

std::string describe(const Trace& trace, std::size_t count) {
  std::string text;
  for (std::size_t n = 0; n < std::min(count, trace.size()); ++n)
    text += std::to_string(n) + ": " + describe(trace[n]) + "\n";
  return text;
}

}  // namespace orvel::test::simulation

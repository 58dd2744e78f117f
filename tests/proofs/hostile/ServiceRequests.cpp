// Requests that are whole messages and still not what a service of the device takes.
#include "Inputs.h"

namespace orvel::hostile {
namespace {

const ServiceName kActivity{"activity", "com.quarlo.orvel.activitymanager",
                            "com.quarlo.orveldelegate.activitymanager.IActivityManager"};
const ServiceName kConnectivity{"connectivity", "com.quarlo.orvel.androidconnectivitymanager",
                                "com.quarlo.orveldelegate.androidconnectivitymanager.IAndroidConnectivityManager"};
const ServiceName kCoordinator{"coordinator", "orvel-service-coordinator-public", ""};
const ServiceName kEvents{"events", "com.quarlo.orvel.orvelsim.orvelsimeventclient",
                          "com.quarlo.orveldelegate.orvelsim.IOrvelSimEventClient"};
const ServiceName kMetrics{"metrics", "com.quarlo.client.metrics.tarsel",
                           "com.quarlo.orveldelegate.services.ITarselMetric"};
const ServiceName kPackages{"packages", "com.quarlo.orvel.packagemanager",
                            "com.quarlo.orveldelegate.packagemanager.IOrvelPackageManager"};

struct Method {
  const ServiceName& service;
  const char* name;
  std::uint32_t code;
  std::string arguments;  // good ones
  bool endpoint;          // one comes along
};

// Present, its length: action, data, type and package, then no component, no extras, no categories and no flags.
std::string intent() {
  Words fields;
  fields.text("act").i32(-1).i32(-1).text("pkg").i32(0).i32(0).i32(-1).i32(0);
  const auto length = static_cast<std::int32_t>(fields.bytes().size());
  return Words().i32(1).i32(length + 4).bytes() + fields.bytes();
}

std::string metadata() {
  Words fields;
  for (const char* text : {"ns", "name", "", "", "", "", ""}) fields.text(text);
  fields.i32(1);
  const auto length = static_cast<std::int32_t>(fields.bytes().size());
  return Words().i32(1).i32(length + 4).bytes() + fields.bytes();
}

const std::vector<Method>& methods() {
  static const std::vector<Method> all = {
      {kDelegate, "getDeviceInfo", 14, "", false},
      {kDelegate, "getSecureSetting", 15, Words().text("volume_alarm").bytes(), false},
      {kDelegate, "getPFM", 17, "", false},
      {kDelegate, "getCOR", 18, "", false},
      {kDelegate, "getPackageNamesForUid", 21, Words().i32(1000).bytes(), false},
      {kDelegate, "checkSystemFeature", 26, Words().text("camera").bytes(), false},
      {kDelegate, "sendBroadcast", 27, intent(), false},
      {kDelegate, "registerForBroadcast", 28, Words().text("act").i32(0).i32(0).endpoint(0).bytes(), true},
      {kDelegate, "startService", 29, intent(), false},
      {kDelegate, "startForegroundService", 30, intent(), false},
      {kDelegate, "getDirectedId", 32, "", false},
      {kDelegate, "getDeviceName", 33, "", false},
      {kDelegate, "registerForSecureSettings", 34, Words().text("key").endpoint(0).bytes(), true},
      {kDelegate, "startActivity", 37, intent(), false},
      {kDelegate, "sendBroadcastWithPermission", 38, intent() + Words().text("perm").bytes(), false},
      {kDelegate, "getDSNV2", 42, "", false},
      {kDelegate, "getApplicationInfo", 53, Words().text("pkg").i64(128).bytes(), false},
      {kDelegate, "getPackageInfo", 54, Words().text("pkg").i64(0).bytes(), false},
      {kDelegate, "getRawResourceAsString", 55, Words().text("pkg").i32(7).bytes(), false},
      {kDelegate, "queryBroadcastReceivers", 59, Words().text("act").i64(0).bytes(), false},
      {kDelegate, "getLaunchIntentForPackage", 60, Words().text("pkg").bytes(), false},
      {kPower, "isInteractive", 1, "", false},
      {kPower, "wakeUpDevice", 2, "", false},
      {kPower, "getVersion", 3, "", false},
      {kPower, "wakeUpDeviceCustom", 4, Words().i32(1).i64(1000).bytes(), false},
      {kActivity, "getRunningAppProcessesInfo", 2, "", false},
      {kConnectivity, "registerDefaultNetworkCallback", 4, Words().endpoint(0).bytes(), true},
      {kConnectivity, "unregisterNetworkCallback", 5, Words().endpoint(0).bytes(), true},
      {kEvents, "sendEvent", 2, metadata() + Words().text("{}").endpoint(0).bytes(), true},
      {kMetrics, "recordTarselMetricEvent", 2, "", false},
      {kMetrics, "getVersion", 3, "", false},
      {kPackages, "getPackages", 2, "", false},
  };
  return all;
}

// The request goes out on a connection of its own; what comes back is the answer of the service.
Answer answer_to(Target& target, const ServiceName& service, std::uint32_t code, const std::string& bytes,
                 bool endpoint) {
  constexpr std::uint32_t kSerial = 2;
  Line& line = target.open(service);
  if (endpoint) {
    Line channel = send_with_channel(line, call_of(service, kSerial, code, bytes, {1}, true));
    return target.expect_answer(line, kSerial);
  }
  line.send(call_of(service, kSerial, code, bytes).bytes());
  return target.expect_answer(line, kSerial);
}

// An exception of the service and nothing else: the request was looked at and found wanting.
void expect_refused(const Answer& answer) {
  if (answer.status != 0) throw Broken("refused with status " + std::to_string(answer.status));
  if (answer.word(0) >= 0) throw Broken("taken, with result code " + std::to_string(answer.word(0)));
}

// Some answer: a value may be strange and still a value.
void expect_answered(const Answer& answer) {
  if (answer.status != 0) throw Broken("refused with status " + std::to_string(answer.status));
  if (answer.bytes.empty()) throw Broken("an answer without an exception code");
}

}  // namespace

std::vector<ClientInput> service_request_inputs() {
  std::vector<ClientInput> inputs;
  using Expect = void (*)(const Answer&);
  const auto add = [&](const Method& method, const std::string& what, std::uint32_t code, std::string bytes,
                       Expect expect) {
    const ServiceName& service = method.service;
    inputs.push_back({std::string("device/") + service.id + '/' + method.name + '/' + what,
                      [&service, code, bytes = std::move(bytes), endpoint = method.endpoint, expect](Target& target) {
                        expect(answer_to(target, service, code, bytes, endpoint));
                      }});
  };
  const ServiceName* last = nullptr;
  for (const Method& method : methods()) {
    const std::string header = request_to(method.service).bytes();
    const std::string whole = header + method.arguments;
    const bool has_arguments = !method.arguments.empty();
    for (std::size_t size = header.size(); size < whole.size(); size += 4) {
      add(method, "cut-to-" + std::to_string((size - header.size()) / 4) + "-words", method.code, whole.substr(0, size),
          expect_refused);
      for (const auto& [what, value] : {std::pair("largest", INT32_MAX), std::pair("smallest", INT32_MIN)}) {
        std::string bytes = whole;
        bytes.replace(size, 4, Words().i32(value).bytes());
        add(method, "word-" + std::to_string((size - header.size()) / 4) + "-" + what, method.code, bytes,
            expect_answered);
      }
    }
    if (has_arguments) add(method, "cut-inside-a-word", method.code, whole.substr(0, whole.size() - 1), expect_refused);
    add(method, "one-word-too-many", method.code, whole + Words().i32(0).bytes(), expect_refused);
    add(method, "one-byte-too-many", method.code, whole + "x", expect_refused);
    if (method.code != 2 || &method.service != &kMetrics) {
      add(method, "as-it-should-be", method.code, whole, [](const Answer& answer) {
        if (answer.status != 0 || answer.word(0) != 0)
          throw Broken("a good request was refused: the rest proves nothing");
      });
    }
    if (&method.service == last) continue;
    last = &method.service;
    // What every method of a service has in common.
    for (std::size_t size = 0; size < header.size(); size += 12) {
      add(method, "header-cut-to-" + std::to_string(size / 4) + "-words", method.code, whole.substr(0, size),
          expect_refused);
    }
    for (std::size_t word = 0; word < 3; ++word) {
      std::string bytes = whole;
      bytes[word * 4 + 2] ^= 1;
      add(method, "header-word-" + std::to_string(word) + "-wrong", method.code, bytes, expect_refused);
    }
    const std::string words = Words().i32(0).i32(-1).i32(0x53595354).bytes();
    add(method, "no-interface", method.code, words + Words().i32(-1).bytes() + method.arguments, expect_refused);
    add(method, "empty-interface", method.code, words + Words().text("").bytes() + method.arguments, expect_refused);
    add(method, "another-interface", method.code,
        words + Words().text("com.quarlo.orveldelegate.INobody").bytes() + method.arguments, expect_refused);
    add(method, "endless-interface", method.code, words + Words().i32(INT32_MAX).bytes() + method.arguments,
        expect_refused);
    for (const std::uint32_t code : {0U, 61U, 1U << 31U, UINT32_MAX}) {
      add(method, "code-" + std::to_string(code), code, whole, expect_refused);
    }
  }
  const Method none{kCoordinator, "nothing", 1, "", false};
  for (const std::uint32_t code : {0U, 1U, UINT32_MAX})
    add(none, "code-" + std::to_string(code), code, "", expect_refused);

  // References: where they stand, and whether there are any.
  const std::string key = request_to(kDelegate).text("key").bytes();
  const auto add_reference = [&](const char* what, const std::string& mark, bool endpoint, Expect expect) {
    add({kDelegate, "registerForSecureSettings", 34, "", endpoint}, what, 34, key + mark, expect);
  };
  add_reference("a-reference-to-nothing", Words().endpoint(0).bytes(), false, expect_refused);
  add_reference("a-reference-beyond-the-last", Words().endpoint(1).bytes(), true, expect_refused);
  add_reference("a-negative-reference", Words().endpoint(-1).bytes(), true, expect_refused);
  add_reference("no-mark-of-a-reference", Words().i32(0x2A2A2A2A).i32(0).bytes(), true, expect_refused);

  // The orders of the device's own commands come the same way.
  const ServiceName& control = *new ServiceName{"control", "orvel-sim-control", ""};
  const std::pair<const char*, std::string> orders[] = {
      {"no-text", Words().i32(-1).bytes()},
      {"nothing", ""},
      {"no-json", Words().text("screen off").bytes()},
      {"half-json", Words().text("{\"order\":").bytes()},
      {"no-object", Words().text("[1,2,3]").bytes()},
      {"null", Words().text("null").bytes()},
      {"no-order", Words().text("{}").bytes()},
      {"order-is-a-number", Words().text("{\"order\":7}").bytes()},
      {"unknown-order", Words().text("{\"order\":\"dance\"}").bytes()},
      {"no-change", Words().text("{\"order\":\"change\"}").bytes()},
      {"change-is-a-list", Words().text("{\"order\":\"change\",\"change\":[]}").bytes()},
      {"change-of-nothing-known",
       Words().text("{\"order\":\"change\",\"change\":{\"path\":\"/x/y\",\"value\":1}}").bytes()},
      {"change-without-a-path", Words().text("{\"order\":\"change\",\"change\":{}}").bytes()},
      {"change-of-everything", Words().text("{\"order\":\"change\",\"change\":{\"path\":\"\",\"value\":1}}").bytes()},
      {"change-of-a-path-that-is-none",
       Words().text("{\"order\":\"change\",\"change\":{\"path\":\"a~9b\",\"value\":1}}").bytes()},
      {"change-of-the-wrong-type",
       Words().text("{\"order\":\"change\",\"change\":{\"path\":\"/power/screenOn\",\"value\":[]}}").bytes()},
      {"kill-nobody", Words().text("{\"order\":\"kill\",\"service\":\"nobody\"}").bytes()},
      {"kill-what", Words().text("{\"order\":\"kill\"}").bytes()},
      {"attach-without-an-endpoint", Words().text("{\"order\":\"attach\"}").bytes()},
      {"ready-from-a-stranger", Words().text("{\"order\":\"ready\"}").bytes()},
      {"record-from-a-stranger", Words().text("{\"order\":\"record\",\"entries\":7}").bytes()},
      {"event-without-a-service", Words().text("{\"order\":\"event\",\"event\":{}}").bytes()},
      {"event-of-a-strange-kind",
       Words().text("{\"order\":\"event\",\"service\":\"delegate\",\"event\":[[]]}").bytes()},
      {"a-hundred-levels", Words().text(std::string(100, '[') + std::string(100, ']')).bytes()},
      {"a-million-levels", Words().text(std::string(1'000'000, '[') + std::string(1'000'000, ']')).bytes()},
      {"a-million-open-levels", Words().text(std::string(1'000'000, '[')).bytes()},
      {"a-change-of-ninety-levels",
       Words()
           .text("{\"order\":\"change\",\"change\":{\"path\":\"/delegate/settings/deep\",\"value\":" +
                 std::string(90, '[') + std::string(90, ']') + "}}")
           .bytes()},
      {"an-event-of-ninety-levels",
       Words()
           .text("{\"order\":\"event\",\"service\":\"delegate\",\"event\":{\"action\":\"a\",\"extras\":{\"x\":" +
                 std::string(90, '[') + std::string(90, ']') + "}}}")
           .bytes()},
  };
  for (const auto& [what, bytes] : orders) {
    inputs.push_back({std::string("device/control/") + what, [&control, bytes = bytes](Target& target) {
                        Line& line = target.open(control);
                        line.send(call_of(control, 2, 0, bytes).bytes());
                        target.expect_answer(line, 2);  // an error or a text that says what is wrong
                      }});
  }
  return inputs;
}

}  // namespace orvel::hostile

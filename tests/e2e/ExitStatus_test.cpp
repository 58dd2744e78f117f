// What scripts rely on: the exit status of every subcommand, the one shape of every failure with --json, and that
// every public method has a subcommand.
#include <signal.h>

#include <algorithm>
#include <map>
#include <regex>
#include <set>

#include "Device.h"
#include "support/Methods.h"
#include "support/SchemaCheck.h"

namespace orvel::e2e {
namespace {

using Names = std::set<std::string>;

// A command line of orvelctl for each subcommand, and for each method that it may call.
struct Command {
  std::string words;
  const char* service;  // that answers it, by its name in orvel-sim; "" where a dead or hanging one costs nothing
  const char* methods;  // the public methods that it is for
};

const Command kCommands[] = {
    {"device", "delegate",
     "isMaroConnected getDeviceName getDeviceSerialNumber getDeviceType getCustomerDirectedID getCountryOfResidence "
     "getPreferredMarketPlace isScreenOn"},
    {"assistant", "", "isMaroConnected"},   // the client knows it, or does not
    {"network", "", "isNetworkConnected"},  // it is always the same
    {"get name", "delegate", "getDeviceName"},
    {"get serial-number", "delegate", "getDeviceSerialNumber"},
    {"get type", "delegate", "getDeviceType"},
    {"get customer-id", "delegate", "getCustomerDirectedID"},
    {"get registered", "delegate", "isDeviceRegistered"},
    {"get country", "delegate", "getCountryOfResidence"},
    {"get marketplace", "delegate", "getPreferredMarketPlace"},
    {"setting k", "delegate", "getSecureSettingInt"},
    {"settings get secure k", "delegate", "getSecureSettingInt"},
    {"setting k --text", "delegate", "getSecureSetting"},
    {"screen", "power", "isScreenOn"},
    {"wake-lock full", "power", "acquireFullWakeLock"},
    {"wake-lock partial", "power", "acquirePartialWakeLock"},
    {"watch screen --for 0.01", "delegate", "subscribeScreenStateChange subscribeLink"},
    {"watch name --for 0.01", "delegate", "subscribeDeviceNameChange"},
    {"watch registration --for 0.01", "delegate", "subscribeDeviceRegistrationChange"},
    {"watch assistant --for 0.01", "delegate", "subscribeMaroConnectivityChange"},
    {"watch network --for 0.01", "connectivity",
     "subscribeNetworkConnectivityChange unregisterForNetworkConnectivityChange"},
    {"watch package --for 0.01", "delegate", "subscribePackageAction"},
    {"watch time --for 0.01", "delegate", "subscribeTimeSync"},
    {"watch setting:k --for 0.01", "delegate", "subscribeSecureSetting subscribeSecureSettingIntChange"},
    {"watch broadcast:X --for 0.01", "delegate", "subscribeBroadcast"},
    {"am broadcast-int X a/.B k 1", "delegate", "broadcastIntentWithIntKey"},
    {"am broadcast -a X", "delegate", "broadcastIntent"},
    {"am broadcast -a X --receiver-permission p", "delegate", "broadcastIntentWithPermission"},
    {"am start -n a/.B", "delegate", "startActivity"},
    {"am start-foreground-service -n a/.B", "delegate", "startForegroundService"},
    {"am start-service -n a/.B", "delegate", "startService"},
    {"am launch com.quarlo.music", "delegate", "launchApplicationWithPackageName"},
    {"am foreground", "activity", "getForegroundPackages"},
    {"am process-state com.quarlo.home", "activity", "getAppProcessState"},
    {"pm list packages", "packages", "getInstalledPackageNames"},
    {"pm list packages --uid 1000", "delegate", "getPackageNamesForUid"},
    {"pm version-code com.quarlo.home", "delegate", "getPackageVersionCode"},
    {"pm version-name com.quarlo.home", "delegate", "getPackageVersionName"},
    {"pm meta-data com.quarlo.home com.quarlo.home.cards --int", "delegate", "getApplicationInfoMetaData"},
    {"pm resource com.quarlo.home 7", "delegate", "getRawResourceAsString getPackageVersionCode"},
    {"pm has-feature android.hardware.wifi", "delegate", "hasSystemFeature"},
    {"pm query-receivers X", "delegate", "getBroadcastReceiverPackageNames"},
    {"event Speaker VolumeChanged", "events", "send"},
    {"directive Speaker --for 0.01", "", "subscribeDirective"},  // this process serves it itself
    {"metric a b", "metrics", "recordTarselMetricEvent"},
    {"links", "", "state"},
    {"wait delegate --for 5", "", "waitFor rebind"},
    {"call delegate.getDeviceName", "delegate", "getDeviceName"},
};

// In orvel-sim, of the services of the table of methods.
const std::map<int, std::string> kServices = {
    {test::kDelegate, "delegate"},        {test::kPower, "power"},     {test::kEvents, "events"},
    {test::kActivities, "activity"},      {test::kMetrics, "metrics"}, {test::kPackages, "packages"},
    {test::kConnectivity, "connectivity"}};

// The documented method whose subcommand a method beside it shares, because both ask the service for the same.
std::string twinOf(const std::string& name) {
  static const std::map<std::string, std::string> others = {
      {"send", "sendEvent"},
      {"getSecureSetting", "getSecureSettingInt"},
      {"subscribeBroadcast", "registerForPackageAction"},
      {"subscribeSecureSetting", "registerForSecureSettingIntChange"}};
  const auto other = others.find(name);
  return other != others.end() ? other->second : std::regex_replace(name, std::regex("^subscribe"), "registerFor");
}

Names namesIn(const std::string& text) {
  std::istringstream words(text);
  return {std::istream_iterator<std::string>(words), {}};
}

// Those whose death or silence a client cannot miss.
constexpr const char* kAskedServices[] = {"delegate", "power",   "activity",    "packages",
                                          "events",   "metrics", "connectivity"};

constexpr int kNotHere = -1;  // where it would depend on how fast the machine is

class ExitStatus : public NoDevice {
 protected:
  // Starts all of them at once with `options`, and expects `asking` of those that ask a service, of the others
  // `other`; leaves out those with kNotHere. An "@" in `program` stands for the service.
  void expectOfAll(int asking, int other, const std::string& options = " --json",
                   const std::string& program = "orvelctl") const {
    const auto statusOf = [&](const Command& each) { return *each.service == '\0' ? other : asking; };
    std::vector<std::pair<const Command*, std::unique_ptr<Process>>> running;
    for (const Command& each : kCommands) {
      if (statusOf(each) == kNotHere || (other == 3 && each.words.rfind("wait", 0) == 0)) continue;  // it waits
      const std::string command = std::regex_replace(program, std::regex("@"), each.service);
      running.emplace_back(&each, start(command + " " + each.words + options));
    }
    for (const auto& [each, process] : running) {
      SCOPED_TRACE(each->words);
      const int ended = process->wait();
      const json failure = expectJson({ended, process->output(), process->error()}, statusOf(*each));
      if (ended != 5) continue;
      EXPECT_EQ(failure.at("error").at("reason"), "not-bound");
      EXPECT_TRUE(has(failure.at("error").at("message"), ": not bound: given up (")) << failure;
    }
  }

  json expectJson(const std::string& command, int status) const {
    SCOPED_TRACE(command);
    return expectJson(run(command), status);
  }
  // That it ended so and says so, in no other words than the schema's.
  static json expectJson(const Result& result, int status) {
    EXPECT_EQ(result.status, status) << result.error;
    const std::vector<json> lines = parseLines(result.output);
    const auto is_failure = [](const json& line) { return line.contains("error"); };
    const auto failures = std::count_if(lines.begin(), lines.end(), is_failure);
    EXPECT_EQ(failures, status == 0 ? 0 : 1) << result.output;
    if (failures == 0) return {};
    static const json schema = json::parse(std::ifstream(ORVEL_FAILURE_SCHEMA));
    EXPECT_EQ(testing::whatViolates(schema, schema, lines.back()), "");
    const json& error = lines.back().at("error");
    static const std::map<int, const char*> words = {{1, "failed"},    {2, "usage"},     {3, "no-device"},
                                                     {4, "timed-out"}, {5, "not-bound"}, {143, "interrupted"}};
    EXPECT_EQ(error.at("exitStatus"), status);
    EXPECT_EQ(error.at("status"), words.at(status));
    EXPECT_FALSE(has(result.error, "{\"")) << "JSON is for standard output: " << result.error;
    return lines.back();
  }

  // Each is declared on a line that begins with its result's type.
  Names declaredMethods() const {
    return namesIn(
        outputOf("sed -nE 's/^  (\\[\\[nodiscard\\]\\] )?[A-Za-z][^(]*[ "
                 "&]([a-z][A-Za-z]+)\\(.*/\\2/p' " ORVEL_PUBLIC_HEADER));
  }

  // "delegate.33" for each request that a method makes.
  static Names requestsOf(const std::string& name) {
    const test::Method& method = test::method(twinOf(name));
    Names made;
    for (const test::Request& request : method.requests) {
      if (request.code != 0) made.insert(kServices.at(method.service) + "." + std::to_string(request.code));
    }
    return made;
  }

  // "delegate.33" for each request that clients made, but for those that were seen.
  Names requests(std::size_t& seen) const {
    Names made;
    const std::vector<json> traffic = view("traffic --past");
    for (; seen < traffic.size(); ++seen) {
      const json& entry = traffic[seen];
      if (entry.contains("method")) made.insert(entry["service"].get<std::string>() + "." + entry["code"].dump());
    }
    return made;
  }
};

TEST_F(ExitStatus, EveryMethodHasASubcommandAndEveryServedRequestIsMade) {
  const auto device = serve();
  Names methods = {"getClient", "initialize", "start", "shutdown", "setExecutor"};
  const Names linked = {"subscribeLink", "state", "waitFor", "rebind"};  // which ask no service
  Names made = {"metrics.3"};                                            // its version, for which there is no use yet
  std::size_t seen = 0;
  for (const Command& row : kCommands) {
    const std::string command = "orvelctl " + row.words;
    const Result result = run(command);
    EXPECT_TRUE(result.status == 0 || result.error.empty()) << command << ": " << result.error;  // 1 in silence is "no"
    Names expected;
    for (const std::string& name : namesIn(row.methods)) {
      methods.insert(name);
      if (linked.count(name) != 0) continue;
      methods.insert(twinOf(name));
      expected.merge(requestsOf(name));
    }
    EXPECT_EQ(requests(seen), expected) << command;
    made.merge(expected);
  }
  // Subcommands as the manual lists them: those that are not followed by subcommands of their own.
  for (const std::string& leaf : linesOf(
           outputOf("orvelctl --man-page | sed -n 's/^.SS orvelctl //p' | tr -d '\\\\' | "
                    "awk 'NR > 1 && index($0, last \" \") != 1 { print last } { last = $0 } END { print last }'"))) {
    const auto is_for = [&](const Command& each) { return each.words.rfind(leaf, 0) == 0; };
    const bool asks_nothing = leaf == "doctor" || leaf == "list" || leaf == "describe";
    EXPECT_TRUE(asks_nothing || std::any_of(std::begin(kCommands), std::end(kCommands), is_for)) << leaf;
  }
  EXPECT_EQ(methods, declaredMethods());
  // All that the services have, from the help of a verb: "delegate:" and what that is for, below "33 getDeviceName()".
  EXPECT_EQ(made, namesIn(outputOf("orvel-sim delay --help | "
                                   "awk '$1 ~ /:$/ { s = $1 } $1 ~ /^[0-9]+$/ { print s $1 }' | tr : .")));
}

TEST_F(ExitStatus, EveryMethodIsListedAndItsExampleAsksWhatTheSubcommandAsks) {
  const Names uncalled = {"getClient", "initialize", "start", "shutdown", "setExecutor"};
  Names declared = declaredMethods();
  for (const std::string& name : uncalled) declared.erase(name);
  const auto device = serve();
  Names listed;
  std::size_t seen = 0;
  const std::string described = outputOf("orvelctl list | cut -d. -f1 | uniq | xargs -n1 orvelctl describe");
  for (const json& row : parseLines(outputOf("orvelctl list --json"))) {
    const std::string path = row.at("method");
    const std::string name = path.substr(path.find('.') + 1);
    listed.insert(name);
    for (const char* older : {"registerFor", "sendEvent"}) {
      if (declared.count(twinOf(name)) != 0 && has(twinOf(name), older)) listed.insert(twinOf(name));
    }
    if (!row.contains("arguments")) continue;  // it tells by callback
    EXPECT_TRUE(has(described, "  example   " + row.at("example").get<std::string>() + "\n")) << path;
    expectJson(row.at("example").get<std::string>() + " --json", 0);
    const Names asked = requests(seen);
    EXPECT_EQ(asked, requestsOf(name)) << path;
    expectJson(row.at("same").get<std::string>() + " --json", 0);
    const Names same = requests(seen);
    EXPECT_TRUE(std::includes(same.begin(), same.end(), asked.begin(), asked.end())) << row.at("same");
  }
  EXPECT_EQ(listed, declared);
}

TEST_F(ExitStatus, IsZeroWhereAllIsWell) {
  const auto device = serve();
  expectOfAll(0, 0);
}

TEST_F(ExitStatus, IsTwoForWrongWordsWhereverJsonStands) {
  expectOfAll(2, 2, " --json --nonsense");
  for (const std::string seconds : {"nan", "-1", "0", "1e400", "1x", ""}) {
    const json failure = expectJson("orvelctl --json --timeout '" + seconds + "' device", 2);
    const std::string message = failure.at("error").at("message");
    EXPECT_TRUE(has(message, "--timeout: '" + seconds + "' is ") && has(message, "from 0.001 to 1000000")) << message;
  }
  expectJson("orvelctl device --json --frobnicate", 2);
  // Bytes that are not a text do not cost the envelope.
  const json failure = expectJson("orvelctl --json get $(printf '\\377')", 2);
  EXPECT_TRUE(has(failure.at("error").at("message"), "\xef\xbf\xbd"));
}

TEST_F(ExitStatus, IsThreeWithoutADevice) {
  expectOfAll(3, 3);
  expectJson("orvelctl --json doctor", 3);
  expectJson("orvelctl --json wait delegate --timeout 0.2", 4);
  const json failure = expectJson("orvelctl --json device", 3);
  EXPECT_EQ(failure.at("error").at("directory"), directory().string());
}

TEST_F(ExitStatus, IsFourWhenAServiceHangs) {
  const auto device = serve();
  for (const char* service : kAskedServices) order(std::string("hang ") + service);
  limitCalls(400);
  expectOfAll(4, 0);
  // One failure in another's company, each with its service.
  const json failure = expectJson("orvelctl --json device", 4);
  EXPECT_EQ(failure.at("error").at("query"), "name");
  EXPECT_EQ(failure.at("error").at("service"), "orvel_delegate");
  EXPECT_EQ(failure.at("further").back().at("service"), "com.quarlo.orvel.powermanager");
}

TEST_F(ExitStatus, ADeadServiceCostsThoseAloneThatAskIt) {
  const auto device = serve();
  order("kill power");
  for (const Command& each : kCommands) {
    const bool asks = each.service == std::string("power") || each.words == "device";
    expectJson("orvelctl " + each.words + " --json --timeout " + (asks ? "0.4" : "15"), asks ? 4 : 0);
  }
  const Result links = run("orvelctl links --for 0.2");
  EXPECT_TRUE(has(links.output, "power         connecting  epoch 0  the service is looked for\n")) << links.output;
  expectRows({{"orvelctl wait power --for 0.2", "", 4, "wait: timed out after 0.2 s: power is connecting"}});
}

TEST_F(ExitStatus, TheReasonOfAFailureIsToldInAWord) {
  const auto device = serve();
  order("exception delegate getDeviceName --code -8 --message boom", "truncate delegate getCOR 4",
        "drop delegate getDeviceInfo 1", "hang power isInteractive", "set power interfaceVersion 1",
        "set setting word seven", "event-result 0 --never");
  limitCalls(400);
  const struct {
    const char* words = "";
    int status = 0;
    const char *reason = "", *message = "";
    int code = 0;
  } rows[] = {
      {"get name", 1, "exception", "name: exception -8: boom", -8},
      {"get country", 1, "cut-reply", "country: cut reply (orvel_delegate)"},
      {"get type", 5, "died", "type: died (orvel_delegate)", -104},
      {"screen", 4, "timed-out", "screen: timed out after 0.4 s (com.quarlo.orvel.powermanager)", -110},
      {"wake-lock partial", 1, "failed", "partial wake lock: the power manager is too old to keep the processor awake"},
      {"setting word", 1, "invalid-argument",
       "setting word: invalid argument: the value of the setting is not a number that fits in an int"},
      {"event N n", 5, "lost", "event N n: the result is LOST"},
  };
  for (const auto& row : rows) {
    const json error = expectJson(std::string("orvelctl --json ") + row.words, row.status).at("error");
    EXPECT_EQ(error.value("reason", ""), row.reason);
    EXPECT_EQ(error.at("message"), row.message);
    EXPECT_EQ(error.value("code", 0), row.code) << row.words;
  }
  const json refused = expectJson("orvel-sim event-result 0 --reply 2; orvelctl --json event N n", 1);
  EXPECT_EQ(refused.at("error").at("reason"), "refused");
}

TEST_F(ExitStatus, IsFiveWhenTheServiceIsDead) {
  std::vector<std::unique_ptr<Process>> devices;
  for (const std::string dead : kAskedServices) {
    const std::string there = "env ORVEL_RUNTIME_DIR=$T/" + dead;
    devices.push_back(start(there + " orvel-sim run"));
    devices.back()->waitForOutput("serving in ");
    expectRows({{there + " orvel-sim kill " + dead}});
  }
  expectOfAll(4, kNotHere, " --json --timeout 0.4", "env ORVEL_RUNTIME_DIR=$T/@ orvelctl");
  expectOfAll(5, kNotHere, " --json", "env ORVEL_RUNTIME_DIR=$T/@ orvelctl-fast");
}

TEST_F(ExitStatus, AnInterruptionIsAFailureTooButNotTheEndOfWatching) {
  const auto device = serve();
  for (const auto& [signal, status] : {std::pair(SIGINT, 0), std::pair(SIGTERM, 128 + SIGTERM)}) {
    const auto watcher = start("orvelctl --json watch screen", "watching screen");
    watcher->signal(signal);
    const int ended = watcher->wait();
    expectJson({ended, watcher->output(), watcher->error()}, status);
  }
  const Result result = run("orvel-sim event-result TIMEOUT; orvelctl --json event N n");
  expectJson(result, 1);
  EXPECT_EQ(parseLines(result.output).front().at("result"), "TIMEOUT") << "a result and a failure";
}

TEST_F(ExitStatus, TheDevicesOwnProgramFailsInTheSameShape) {
  for (const char* wrong : {"frobnicate", "kill toaster", "--timeout 0 services"}) {
    expectJson(std::string("orvel-sim --json ") + wrong, 2);
  }
  const std::vector<std::string> views = {"state", "services", "traffic --past", "traffic", "metrics"};
  for (const std::string& view : views) expectJson("orvel-sim " + view + " --json", 3);
  const auto device = serve();
  expectRows({{"orvel-sim --timeout 5 services"},              // time that is left over hurts nobody
              {"orvel-sim --timeout 5 run -- true", "", 2}});  // it would be the command's
  device->signal(SIGSTOP);
  for (const std::string& view : views) expectJson("orvel-sim --timeout 0.2 " + view + " --json", 4);
  expectRows({{"orvel-sim --timeout 0.2 screen off", "", 4}});
  device->signal(SIGCONT);
  order("kill metrics");
  expectJson("orvel-sim metrics --json", 1);
}

}  // namespace
}  // namespace orvel::e2e

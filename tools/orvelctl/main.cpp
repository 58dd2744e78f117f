// orvelctl: the public interface of libOrvelDelegateClient as a command line.
#include <android/log.h>

#include <functional>
#include <iomanip>
#include <iostream>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "Commands.h"
#include "Doctor.h"
#include "LogWatch.h"
#include "Services.h"
#include "Session.h"
#include "Watch.h"
#include "tools/cli/Failure.h"
#include "tools/cli/Integration.h"
#include "tools/cli/Options.h"
#include "tools/cli/Streams.h"

namespace orvelctl {
namespace {

constexpr char kFooter[] = R"(
--json, --log-level and --timeout may also follow the subcommand.

Results go to standard output, everything else to standard error. With --json a failure is one more line on standard
output, {"error": {"status": ..., "exitStatus": ..., "message": ...}}, behind the results that there were;
share/orvel/failure.schema.json describes it. When the device cannot be reached, orvelctl doctor says why.

Examples:
  orvelctl device                          all about the device
  orvelctl get serial-number               one value
  orvelctl setting some_key --default 7    a secure setting
  orvelctl --json screen                   {"screenOn":true}
  orvelctl wake-lock full --timeout 5      give up after 5 seconds
  orvelctl am broadcast -a com.example.HELLO --es name Anna --ei age 7
  orvelctl am start -n com.example.app/.Main
  orvelctl pm list packages                all that is installed
  orvelctl event Speaker VolumeChanged --payload 7
                                           tell the assistant, and wait for the result
  orvelctl directive Speaker               what the assistant says, until Ctrl-C
  orvelctl watch screen setting:some_key   changes as they happen, until Ctrl-C
  orvelctl doctor                          what is wrong with the set-up, and what to do

Exit status:
  0  success; an empty result is one
  1  a query failed
  2  wrong usage
  3  no device
  4  timed out: --timeout, or a service that did not answer within the call limit
  5  the service is not bound: given up, dead and not back yet, or it died during the call
  128 + N  ended by signal N
They are the same for each subcommand; assistant, network and directive ask no service and so never end with 5.
The client answers a failed query with an empty value. Here it counts as failed when the client logged an error
meanwhile, and as not bound when the log says so of its service or that the service died.)";

constexpr char kWatchFooter[] = R"(
A subscription survives the death of its service: it is made again when the service is back, and only what happens
meanwhile is not heard. The network is the exception: after the connectivity service has died nothing more is heard of
it, and watch must be started again.

Ctrl-C ends with status 0, as do --count and --for; each line is written out at once, into a pipe too.)";

// One value that the client can be asked for.
struct Value {
  std::string name;     // after get
  std::string key;      // of the JSON object
  std::string label;    // of the list
  std::string service;  // that is asked
  Json nothing;         // what a failed query gives
  std::function<Json(Client&)> ask;
  const char* yes = "yes";
  const char* no = "no";

  std::string text(const Json& value) const {
    return value.is_boolean() ? (value.get<bool>() ? yes : no) : value.get<std::string>();
  }
};

const std::vector<Value>& identity() {
  static const std::vector<Value> values = {
      {"name", "name", "name", kDelegate, "", &Client::getDeviceName},
      {"serial-number", "serialNumber", "serial number", kDelegate, "", &Client::getDeviceSerialNumber},
      {"type", "type", "type", kDelegate, "", &Client::getDeviceType},
      {"customer-id", "customerId", "customer id", kDelegate, "", &Client::getCustomerDirectedID},
      {"country", "country", "country", kDelegate, "", &Client::getCountryOfResidence},
      {"marketplace", "marketplace", "marketplace", kDelegate, "", &Client::getPreferredMarketPlace},
      {"registered", "registered", "registered", kDelegate, false, &Client::isDeviceRegistered},
  };
  return values;
}

const Value kScreen = {"", "screenOn", "screen", kPower, false, &Client::isScreenOn, "on", "off"};
const Value kAssistant = {"",    "assistantConnected",     "assistant", kNoService,
                          false, &Client::isMaroConnected, "connected", "disconnected"};
const Value kNetwork = {"",    "networkConnected",          "network",   kNoService,
                        false, &Client::isNetworkConnected, "connected", "disconnected"};

void show(Session& session, const Value& value) {
  if (const auto result = session.ask(value.label, value.service, value.nothing, value.ask)) {
    session.print({{value.key, *result}}, value.text(*result));
  }
}

// What could not be had is null and a question mark.
void showDevice(Session& session) {
  std::vector<Value> values = identity();
  values.insert(values.end(), {kScreen, kAssistant});
  Json object = Json::object();
  std::ostringstream list;
  for (const Value& value : values) {
    const auto result = session.ask(value.label, value.service, value.nothing, value.ask);
    object[value.key] = result ? *result : Json();
    list << (&value == &values.front() ? "" : "\n") << std::left << std::setw(15) << value.label
         << (result ? value.text(*result) : "?");
  }
  session.print(object, list.str());
}

void showSetting(Session& session, const std::string& key, int fallback) {
  const auto query = [&](Client& client) { return client.getSecureSettingInt(key, fallback); };
  if (const auto result = session.ask("setting " + key, kDelegate, fallback, query)) {
    session.print({{"key", key}, {"value", *result}}, result->dump());
  }
}

void takeWakeLock(Session& session, const std::string& kind) {
  const auto query = [&](Client& client) {
    return kind == "full" ? client.acquireFullWakeLock() : client.acquirePartialWakeLock();
  };
  session.carryOut(kind + " wake lock", kPower, query, {{"wakeLock", kind}, {"acquired", true}}, "acquired");
}

const std::map<std::string, int>& logLevels() {
  static const std::map<std::string, int> levels = {{"verbose", ANDROID_LOG_VERBOSE}, {"debug", ANDROID_LOG_DEBUG},
                                                    {"info", ANDROID_LOG_INFO},       {"warning", ANDROID_LOG_WARN},
                                                    {"error", ANDROID_LOG_ERROR},     {"silent", ANDROID_LOG_SILENT}};
  return levels;
}

std::string whatIsWrong(const CLI::App* app, const CLI::Error& error) {
  const CLI::App* innermost = app;
  while (!innermost->get_subcommands().empty()) innermost = innermost->get_subcommands().front();
  std::string names;
  for (const CLI::App* subcommand : innermost->get_subcommands([](const CLI::App*) { return true; })) {
    names += (names.empty() ? "" : ", ") + subcommand->get_name();
  }
  const std::vector<std::string> extra = app->remaining(/*recurse=*/true);
  std::string what = error.what();
  if (!names.empty() && dynamic_cast<const CLI::RequiredError*>(&error)) {
    what = extra.empty() ? "a subcommand is required" : "no subcommand is called " + extra.front();
    if (innermost != app) what.insert(0, innermost->get_name() + ": ");
    what += "; there are " + names;
  }
  return what;
}

std::string explain(const CLI::App* app, const CLI::Error& error) {
  return orvel::cli::failurePrefix(kProgram) + whatIsWrong(app, error) + "\nRun with --help for more information.\n";
}

// What completes arguments whose values no description lists.
orvel::cli::Values completions() {
  std::vector<std::string> watched = kindNames();
  watched.insert(watched.end(), {"setting:@settings", "broadcast:", "directive:@namespaces"});
  return {{"setting key", {"@settings"}},       {"secure key", {"@settings"}}, {"package", {"@packages"}},
          {"--package", {"@packages"}},         {"feature", {"@features"}},    {"namespaces", {"@namespaces"}},
          {"event namespace", {"@namespaces"}}, {"watch kinds", watched}};
}

int parseAndRun(int argc, char** argv) {
  CLI::App app("Asks the device's platform services through libOrvelDelegateClient.", "orvelctl");
  app.require_subcommand(1);
  app.fallthrough();
  app.footer(std::string(kFooter + 1) + orvel::cli::kPlaces);
  app.failure_message(explain);
  app.set_help_all_flag("--help-all", "Print the help of every subcommand and exit");
  bool json = false;
  std::string level = "warning";
  double timeout = 0;
  std::vector<std::string> levels;
  for (const auto& [name, priority] : logLevels()) levels.push_back(name);
  app.add_flag("--json", json, "print one JSON object per result");
  app.add_option("--log-level", level, "least level of what the library logs")
      ->check(CLI::IsMember(levels))
      ->capture_default_str();
  orvel::cli::inSeconds(app.add_option("--timeout", timeout, "give up after so many seconds (default: never)"));

  Command command;
  Commands commands(app, command);

  commands.add("device", "Show all about the device", showDevice);

  std::string name;
  std::vector<std::string> names;
  for (const Value& value : identity()) names.push_back(value.name);
  commands
      .add("get", "Show one value of the device's identity",
           [&](Session& session) {
             for (const Value& value : identity()) {
               if (value.name == name) show(session, value);
             }
           })
      ->add_option("value", name)
      ->required()
      ->check(CLI::IsMember(names));

  std::string key;
  int fallback = 0;
  const auto add_setting = [&](CLI::App* setting) {
    addText(setting, "key", key, "");
    setting->add_option("--default", fallback, "what an unset or empty setting counts as")->capture_default_str();
  };
  const auto show_setting = [&](Session& session) { showSetting(session, key, fallback); };
  add_setting(commands.add("setting", "Show a secure setting that is a number", show_setting));
  Commands settings = commands.group("settings", "The same, in the words of a device's own settings: get secure KEY");
  add_setting(
      settings.group("get", "Show a setting").add("secure", "Show a secure setting that is a number", show_setting));

  commands.add("screen", "Show whether the screen is on", [](Session& session) { show(session, kScreen); });
  commands.add("assistant", "Show whether the voice assistant is connected; it is until a broadcast says otherwise",
               [](Session& session) { show(session, kAssistant); });
  commands.add("network",
               "Show what the client says of the network: always disconnected, its state comes by notification only",
               [](Session& session) { show(session, kNetwork); });

  std::string kind;
  commands
      .add("wake-lock", "Keep the processor awake for half a second, or wake the device and its screen",
           [&](Session& session) { takeWakeLock(session, kind); })
      ->add_option("kind", kind)
      ->required()
      ->check(CLI::IsMember({"partial", "full"}));

  addActivityCommands(commands);
  addPackageCommands(commands);

  addAssistantCommands(commands);

  WatchOptions watch_options;
  CLI::App* watch = commands.add("watch", "Print changes as they happen, one a line, until Ctrl-C",
                                 [&](Session& session) { watchChanges(session, watch_options); });
  watch->add_option("kinds", watch_options.kinds, "what to watch (default: all that need no key)")
      ->check(whatIsWrongWithKind, "", "")
      ->type_name("");
  addLimits(watch, watch_options);
  watch->footer("Kinds; one that is named twice is subscribed to twice:\n" + describeKinds() + kWatchFooter);

  CLI::App* doctor = commands.add("doctor", "Say what is wrong with the set-up, and what to do", diagnose);
  doctor->footer(kDoctorFooter);

  if (const auto answered = orvel::cli::answerIntegration(app, argc, argv, "orvel-sim", completions()))
    return *answered;
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& error) {
    if (app.exit(error) == 0) {
      orvel::cli::flushOutput();
      return kSuccess;
    }
    const bool as_json = json || orvel::cli::asksForJson(argc, argv);
    return orvel::cli::fail(kProgram, {kUsage, whatIsWrong(&app, error)}, as_json, /*said=*/true);
  }
  if (doctor->parsed()) {
    if (timeout == 0) timeout = kDoctorLimit;
    if (app.count("--log-level") == 0) level = "silent";  // it says the same in better words
  }

  watchLog(logLevels().at(level));
  Session session(timeout, json);
  if (doctor->parsed() || session.open()) command(session);
  return session.finish();
}

}  // namespace
}  // namespace orvelctl

int main(int argc, char** argv) {
  orvel::cli::prepareStreams();
  try {
    return orvelctl::parseAndRun(argc, argv);
  } catch (const std::exception& error) {
    return orvel::cli::fail(orvelctl::kProgram, {orvelctl::kFailed, error.what()}, orvel::cli::asksForJson(argc, argv));
  }
}

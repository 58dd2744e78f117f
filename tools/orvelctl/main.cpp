// orvelctl: the public interface of libOrvelDelegateClient as a command line.
#include <android/log.h>

#include <algorithm>
#include <functional>
#include <iomanip>
#include <map>
#include <optional>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "Commands.h"
#include "Conditions.h"
#include "Doctor.h"
#include "Links.h"
#include "LogWatch.h"
#include "Methods.h"
#include "Session.h"
#include "Wait.h"
#include "Watch.h"
#include "tools/cli/Failure.h"
#include "tools/cli/Help.h"
#include "tools/cli/Integration.h"
#include "tools/cli/Options.h"
#include "tools/cli/Streams.h"
#include "tools/cli/Usage.h"

namespace orvelctl {
namespace {

using orvel::service_apis::lastCall;

constexpr char kFooter[] = R"(
--json, --log-level and --timeout may also follow the subcommand.

Results go to standard output, everything else to standard error. Control characters in what services say are escaped,
as \x1b, and a backslash is doubled, so that a line stays one; only the text of a resource goes into files and pipes as
it is. With --json a failure is one more line on standard output, {"error": {"status": ..., "exitStatus": ...,
"message": ...}}, behind the results that there were; share/orvel/failure.schema.json describes it.
When the device cannot be reached, orvelctl doctor says why.

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
  orvelctl wait device=ready --timeout 10  until all services are there
  orvelctl describe getSecureSettingInt    a method of the library, with a line that calls it
  orvelctl doctor                          what is wrong with the set-up, and what to do

Exit status:
  0  success; an empty result is one
  1  a query failed
  2  wrong usage
  3  no device
  4  timed out: --timeout, or a service that did not answer within the call limit
  5  the service is not bound: given up, dead and not back yet, or it died during the call or lost an event
  128 + N  ended by signal N
They are the same for each subcommand; assistant, network, directive, links, list, describe and wait never end with 5.
A subcommand waits for the service that it asks and for no other, until the client gives up after five minutes. The
message says why a query failed, and with --json "reason" in one word: not-bound, died, timed-out, exception (with its
"code"), cut-reply, not-installed, nothing-to-launch, refused, invalid-argument or failed.)";

constexpr double kHangingCall = 2;  // seconds that it may cost a wait

constexpr char kWatchFooter[] = R"(
A subscription survives the death of its service: it is made again when the service is back, and only what happens
meanwhile is not heard. The network is the exception: after the connectivity service has died nothing more is heard of
it, and watch must be started again.
)";

// One value that the client can be asked for.
struct Value {
  std::string name;                // after get
  std::string key;                 // of the JSON object
  std::string label;               // of the list
  std::optional<Service> service;  // that is asked
  std::function<Json(Client&)> ask;
  const char* yes = "yes";
  const char* no = "no";

  std::string text(const Json& value) const {
    return value.is_boolean() ? (value.get<bool>() ? yes : no) : value.get<std::string>();
  }
};

const std::vector<Value>& identity() {
  static const std::vector<Value> values = {
      {"name", "name", "name", Service::kDelegate, &Client::getDeviceName},
      {"serial-number", "serialNumber", "serial number", Service::kDelegate, &Client::getDeviceSerialNumber},
      {"type", "type", "type", Service::kDelegate, &Client::getDeviceType},
      {"customer-id", "customerId", "customer id", Service::kDelegate, &Client::getCustomerDirectedID},
      {"country", "country", "country", Service::kDelegate, &Client::getCountryOfResidence},
      {"marketplace", "marketplace", "marketplace", Service::kDelegate, &Client::getPreferredMarketPlace},
      {"registered", "registered", "registered", Service::kDelegate, &Client::isDeviceRegistered},
  };
  return values;
}

const Value kScreen = {"", "screenOn", "screen", Service::kPower, &Client::isScreenOn, "on", "off"};
const Value kAssistant = {"",          "assistantConnected", "assistant", kNoService, &Client::isMaroConnected,
                          "connected", "disconnected"};
const Value kNetwork = {"",          "networkConnected", "network", kNoService, &Client::isNetworkConnected,
                        "connected", "disconnected"};

void show(Session& session, const Value& value) {
  if (const auto result = session.ask(value.label, value.service, value.ask)) {
    session.print({{value.key, *result}}, value.text(*result));
  }
}

// What could not be had is null and a question mark.
void showDevice(Session& session) {
  std::vector<Value> values = identity();
  values.insert(values.end(), {kScreen, kAssistant});
  Json object = Json::object();
  std::vector<std::string> lines;
  for (const Value& value : values) {
    const auto result = session.ask(value.label, value.service, value.ask);
    object[value.key] = result ? *result : Json();
    std::ostringstream line;
    line << std::left << std::setw(15) << value.label << (result ? value.text(*result) : "?");
    lines.push_back(line.str());
  }
  session.print(object, lines);
}

struct SettingOptions {
  std::string key;
  bool text = false;
  std::optional<std::string> fallback;
};

void showSetting(Session& session, const SettingOptions& options) {
  const auto query = [&](Client& client) -> Json {
    if (!options.text) return client.getSecureSettingInt(options.key, readFallback(options.fallback));
    const std::optional<std::string> value = client.getSecureSetting(options.key);
    const std::optional<std::string>& counts = value ? value : options.fallback;
    return counts ? Json(*counts) : Json();
  };
  const auto result = session.ask("setting " + options.key, Service::kDelegate, query);
  if (!result) return;
  const std::string text = result->is_string() ? result->get<std::string>() : result->is_null() ? "" : result->dump();
  session.print({{"key", options.key}, {"value", *result}}, text);
  const bool may_be_unset = !options.fallback && (result->is_null() || *result == Json(0));
  if (may_be_unset && !session.client().getSecureSetting(options.key) && lastCall()) {
    Session::note("setting " + options.key + " is not set" + (options.text ? "" : "; 0 counts"));
  }
}

void takeWakeLock(Session& session, const std::string& kind) {
  const auto query = [&](Client& client) {
    return kind == "full" ? client.acquireFullWakeLock() : client.acquirePartialWakeLock();
  };
  session.carryOut(kind + " wake lock", Service::kPower, query, {{"wakeLock", kind}, {"acquired", true}}, "acquired");
}

const std::map<std::string, int>& logLevels() {
  static const std::map<std::string, int> levels = {{"verbose", ANDROID_LOG_VERBOSE}, {"debug", ANDROID_LOG_DEBUG},
                                                    {"info", ANDROID_LOG_INFO},       {"warning", ANDROID_LOG_WARN},
                                                    {"error", ANDROID_LOG_ERROR},     {"silent", ANDROID_LOG_SILENT}};
  return levels;
}

// What completes arguments whose values no description lists.
orvel::cli::Values completions() {
  std::vector<std::string> watched = kindNames();
  watched.insert(watched.end(), {"setting:@settings", "broadcast:", "directive:@namespaces"});
  std::vector<std::string> called;
  for (const Method& method : methods()) called.push_back(method.path());
  return {{"setting key", {"@settings"}},       {"secure key", {"@settings"}},   {"package", {"@packages"}},
          {"--package", {"@packages"}},         {"feature", {"@features"}},      {"namespaces", {"@namespaces"}},
          {"event namespace", {"@namespaces"}}, {"watch kinds", watched},        {"call method", called},
          {"describe method", called},          {"--fail-on", conditionWords()}, {"wait conditions", conditionWords()}};
}

// The subcommands, each with what its arguments are read into.
class CommandLine {
 public:
  CommandLine() : m_commands(m_app, m_chosen) {
    m_app.require_subcommand(1);
    m_app.fallthrough();
    m_app.set_help_all_flag("--help-all", "Print the help of every subcommand and exit");
    addOptions();
    addIdentity();
    addSettings();
    addStates();
    addActivityCommands(m_commands);
    addPackageCommands(m_commands);
    addAssistantCommands(m_commands);
    addWatch();
    addLinkCommands(m_commands);
    m_wait_command = addWaitCommand(m_commands, m_wait);
    addMethodCommands(m_commands);
    addDoctor();
    m_app.footer(std::string(kFooter + 1) + orvel::cli::kPlaces);  // last: subcommands would inherit it
  }

  // Returns the exit status.
  int run(int argc, const char* const* argv) {
    if (const auto answered = orvel::cli::answerIntegration(m_app, argc, argv, "orvel-sim", completions)) {
      return *answered;
    }
    if (const auto ended = orvel::cli::parse(m_app, argc, argv)) return *ended;
    if (m_doctor->parsed() && m_timeout == 0) m_timeout = kDoctorLimit;
    if (m_wait_command->parsed() && m_timeout > 0) {
      // It says more at the end than that the time is over; the session ends it should a call hang beyond that.
      m_wait.for_seconds = std::min(m_wait.for_seconds, std::exchange(m_timeout, m_timeout + kHangingCall));
    }
    watchLog(logLevels().at(m_level));
    Session session(m_timeout, m_json);
    // The first two look for a device themselves, the others need none.
    const auto& subcommands = {"doctor", "wait", "list", "describe"};
    const auto given = [this](const char* name) { return m_app.got_subcommand(name); };
    if (std::any_of(subcommands.begin(), subcommands.end(), given) || session.open()) m_chosen(session);
    return session.finish();
  }

 private:
  void addDoctor() {
    m_doctor = m_commands.add("doctor", "Say what is wrong with the set-up, and what to do", diagnose);
    m_doctor->footer(kDoctorFooter);
  }

  void addOptions() {
    std::vector<std::string> levels;
    for (const auto& [name, priority] : logLevels()) levels.push_back(name);
    orvel::cli::addVersion(m_app);
    m_app.add_flag("--json", m_json, "print one JSON object per result");
    m_app.add_option("--log-level", m_level, "least level of what is shown of the library's log")
        ->check(CLI::IsMember(levels))
        ->capture_default_str();
    orvel::cli::inSeconds(m_app.add_option("--timeout", m_timeout, "give up after so many seconds (default: never)"));
  }

  void addIdentity() {
    m_commands.add("device", "Show all about the device", showDevice);
    std::vector<std::string> names;
    for (const Value& value : identity()) names.push_back(value.name);
    const auto show_value = [this](Session& session) {
      for (const Value& value : identity()) {
        if (value.name == m_value) show(session, value);
      }
    };
    m_commands.add("get", "Show one value of the device's identity", show_value)
        ->add_option("value", m_value)
        ->required()
        ->check(CLI::IsMember(names));
  }

  void addSettings() {
    const auto show_setting = [this](Session& session) { showSetting(session, m_setting); };
    const auto add = [this](CLI::App* setting) {
      addText(setting, "key", m_setting.key, "");
      setting->add_flag("--text", m_setting.text, "show it as it is; else it must be a number");
      setting->add_option("--default", m_setting.fallback, "what counts for a setting that is unset or empty (else 0)")
          ->type_name("VALUE");
      setting->parse_complete_callback([this] {
        if (!m_setting.text) readFallback(m_setting.fallback);  // says what is wrong while there is no device yet
      });
    };
    add(m_commands.add("setting", "Show a secure setting", show_setting));
    add(m_commands
            .group("settings",
                   "The same, in the words of a device's own settings: get secure KEY. To change one of a "
                   "simulated device: orvel-sim set setting KEY VALUE")
            .group("get", "Show a setting")
            .add("secure", "Show a secure setting", show_setting));
  }

  void addStates() {
    m_commands.add("screen", "Show whether the screen is on", [](Session& session) { show(session, kScreen); });
    m_commands.add("assistant", "Show whether the voice assistant is connected; it is until a broadcast says otherwise",
                   [](Session& session) { show(session, kAssistant); });
    m_commands.add("network", "Show what the client says of the network: always disconnected; see watch network",
                   [](Session& session) { show(session, kNetwork); });
    m_commands
        .add("wake-lock", "Keep the processor awake for half a second, or wake the device and its screen",
             [this](Session& session) { takeWakeLock(session, m_wake_lock); })
        ->add_option("kind", m_wake_lock)
        ->required()
        ->check(CLI::IsMember({"partial", "full"}));
  }

  void addWatch() {
    CLI::App* watch = m_commands.add("watch", "Print changes as they happen, one a line, until Ctrl-C",
                                     [this](Session& session) { watchChanges(session, m_watch); });
    watch->add_option("kinds", m_watch.kinds, "what to watch (default: all that need no key)")
        ->check(checkKind, "", "")
        ->type_name("");
    watch->add_option("--type", m_watch.filter.types, "of broadcasts, those with data of the type; may be repeated")
        ->type_name("MIME")
        ->allow_extra_args(false);
    watch->add_option("--scheme", m_watch.filter.schemes, "of broadcasts, those with such a URI; may be repeated")
        ->type_name("SCHEME")
        ->allow_extra_args(false);
    addWatchOptions(watch, m_watch);
    watch->footer("Kinds; one that is named twice is subscribed to twice:\n" + describeKinds() + kWatchFooter +
                  kLinesFooter);
  }

  CLI::App m_app{"Asks the device's platform services through libOrvelDelegateClient.", kProgram};
  Command m_chosen;
  Commands m_commands;
  CLI::App* m_doctor = nullptr;
  CLI::App* m_wait_command = nullptr;
  bool m_json = false;
  std::string m_level = "silent";  // what fails is said in better words
  double m_timeout = 0;
  std::string m_value;  // of the identity
  SettingOptions m_setting;
  std::string m_wake_lock;
  WatchOptions m_watch;
  WaitOptions m_wait;
};

}  // namespace
}  // namespace orvelctl

int main(int argc, char** argv) {
  orvel::cli::prepareStreams();
  try {
    return orvelctl::CommandLine().run(argc, argv);
  } catch (const std::exception& error) {
    return orvel::cli::fail(orvelctl::kProgram, {orvelctl::kFailed, error.what()}, orvel::cli::asksForJson(argc, argv));
  }
}

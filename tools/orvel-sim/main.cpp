// orvel-sim: a simulated device, and the orders that change and break it.
#include <algorithm>
#include <cctype>
#include <cerrno>
#include <chrono>
#include <functional>
#include <iomanip>
#include <iostream>
#include <map>
#include <optional>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include <CLI/CLI.hpp>

#include "device/Intent.h"
#include "device/Scenario.h"
#include "device/ShippedScenarios.h"
#include "device/Traffic.h"
#include "tools/cli/Failure.h"
#include "tools/cli/Integration.h"
#include "tools/cli/Options.h"
#include "tools/cli/Streams.h"
#include "tools/orvel-sim/host/Control.h"
#include "tools/orvel-sim/host/Run.h"
#include "tools/orvel-sim/verbs/AssistantVerbs.h"
#include "tools/orvel-sim/verbs/CompletionValues.h"
#include "tools/orvel-sim/verbs/FaultVerbs.h"
#include "tools/orvel-sim/verbs/Orders.h"
#include "tools/orvel-sim/verbs/PackageVerbs.h"
#include "tools/orvel-sim/verbs/RecordVerbs.h"
#include "tools/orvel-sim/verbs/StateVerbs.h"

namespace orvel::sim {
namespace {

using cli::kFailed;
using cli::kNoDevice;
using cli::kSuccess;
using cli::kTimedOut;
using cli::kUsage;

constexpr char kProgram[] = "orvel-sim";

constexpr char kFooter[] = R"(
Examples:
  orvel-sim run                                   serve a device until Ctrl-C
  orvel-sim run --isolate --scenario mine.json    each service in a process of its own
  orvel-sim run --scenario busy                   one that comes with the program: see orvel-sim scenarios
  orvel-sim run -- orvelctl device                run a command against a device of its own
  orvel-sim set name "Living room"                and from another terminal: change the device,
  orvel-sim set setting some_key 42
  orvel-sim screen off
  orvel-sim package install com.example.app
  orvel-sim process foreground com.quarlo.music
  orvel-sim directive Alerts SetAlert 7:30
  orvel-sim delay delegate getDeviceName 500      break it,
  orvel-sim exception power
  orvel-sim event-result TIMEOUT --delay 500
  orvel-sim kill delegate
  orvel-sim flap power 5000
  orvel-sim get power faults                      read everything back,
  orvel-sim traffic                               watch it
  orvel-sim metrics

Exit status:
  0  success
  1  failure
  2  wrong usage or scenario
  3  no device
  4  the device did not answer in time
run with a command gives the command's own, 128 + N when signal N killed it. With --json a failure is one more line on
standard output, {"error": {"status": ..., "exitStatus": ..., "message": ...}}, which share/orvel/failure.schema.json
describes.)";

void showTraffic(std::uint64_t last, bool follow, bool json) {
  Control control = Control::connect();
  constexpr std::uint64_t kNone = UINT64_MAX;
  const auto newest =
      control.send({{"order", "traffic"}, {"after", kNone}, {"wait", false}}).at("newest").get<std::uint64_t>();
  std::uint64_t seen = newest - std::min(newest, last);
  while (follow || seen < newest) {
    const Json answer = control.send({{"order", "traffic"}, {"after", seen}, {"wait", follow}});
    for (const Json& entry : answer.at("entries")) {
      print(json ? entry.dump() : describeEntry(entry));
      seen = entry.at("number");
    }
    if (answer.at("entries").empty()) seen = std::max(seen, answer.at("newest").get<std::uint64_t>());
  }
}

Json readComponent(const std::string& word) {
  const std::size_t slash = word.find('/');
  if (slash == 0 || slash == std::string::npos || slash + 1 == word.size()) {
    throw ScenarioError("--component: expected PACKAGE/CLASS, not '" + word + "'");
  }
  return {{"package", word.substr(0, slash)}, {"class", word.substr(slash + 1)}};
}

// The verbs, each with what its options are read into.
class CommandLine {
 public:
  CommandLine() {
    m_app.require_subcommand(1);
    m_app.footer(std::string(kFooter + 1) + cli::kPlaces);
    m_app.failure_message(explain);
    m_app.set_help_all_flag("--help-all", "Print the help of every subcommand and exit");
    cli::inSeconds(m_app.add_option_function<double>(
        "--timeout", [this](double seconds) { m_limit.emplace(std::chrono::duration<double>(seconds)); },
        "before the subcommand: give up when the device has not answered after so many seconds; not for run"));
    addRun();
    addStateVerbs(m_app);
    addEvents();
    addPackageVerb(m_app);
    addProcessVerb(m_app);
    addDirectiveVerb(m_app);
    addEventResultVerb(m_app);
    addFaultVerbs(m_app);
    addViews();
    addMetricsVerb(m_app);
    addReplayVerb(m_app, m_status);
    addConvertVerb(m_app);
  }

  // The exit status.
  int parseAndRun(int argc, char** argv) {
    if (const auto answered = cli::answerIntegration(m_app, argc, argv, "orvelctl", completions())) return *answered;
    try {
      m_app.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
      if (m_app.exit(error) != 0) {
        return cli::fail(kProgram, {kUsage, whatIsWrong(&m_app, error)}, cli::asksForJson(argc, argv), /*said=*/true);
      }
      cli::flushOutput();
    }
    return m_status;
  }

 private:
  CLI::App* addVerb(const std::string& name, const std::string& about, std::function<void()> run) {
    CLI::App* verb = m_app.add_subcommand(name, about);
    verb->callback(std::move(run));
    return verb;
  }

  void addRun() {
    CLI::App* run = addVerb("run", "Serve a device, or run a command against a device of its own", [this] {
      if (m_limit) throw ScenarioError("run: --timeout limits orders; limit a COMMAND by itself, as with timeout(1)");
      m_run.scenario = m_file.empty() ? defaultScenario() : scenarioCalled(m_file);
      m_status = runDevice(m_run);
    });
    run->add_option("--scenario", m_file,
                    "what differs from the default: a JSON file, or the name of one of orvel-sim scenarios");
    run->add_flag("--isolate", m_run.isolate, "give each service a process of its own");
    run->add_option("command", m_run.command, "after --: what to run with a private device, ready before it starts");

    // How isolated services are started.
    CLI::App* alone = addVerb("serve-alone", "", [this] { m_status = serveAlone(m_service, m_parent); });
    alone->group("");
    alone->add_option("service", m_service)->required();
    alone->add_option("parent", m_parent)->required();
  }

  // What happens without changing any state.
  void addEvents() {
    CLI::App* broadcast = addVerb("broadcast", "Send a broadcast to the clients that registered for it", {});
    broadcast->add_option("action", m_word)->required()->type_name("");
    const auto addPart = [&](const std::string& key, const char* value, const char* about) {
      broadcast->add_option("--" + key, m_parts[key], about)->type_name(value);
    };
    addPart("data", "URI", "the data, such as package:NAME");
    addPart("type", "MIME", "the MIME type of the data");
    addPart("package", "NAME", "the package that is meant");
    addPart("component", "PACKAGE/CLASS", "the component that is meant");
    std::map<const CLI::Option*, const ExtraType*> extras;
    for (const ExtraType& type : extraTypes()) {
      CLI::Option* option = broadcast->add_option("--" + type.name)->take_all()->type_name(type.help);
      extras[option->description("an extra; any number of them, sent in this order")] = &type;
    }
    broadcast->callback([this, broadcast, extras] { orderBroadcast(readBroadcast(*broadcast, extras)); });

    CLI::App* sync = addVerb("time-sync", "Broadcast that the clock was set", [this] {
      const auto now = std::chrono::system_clock::now().time_since_epoch();
      const auto set = m_newTime.value_or(std::chrono::duration_cast<std::chrono::milliseconds>(now).count());
      const std::string service = "com.quarlo.velmos.service.timeservice.clock.";
      const auto extra = [&](const char* key, std::int64_t time) {
        return Json{{"key", service + key}, {"type", "long"}, {"value", time}};
      };
      orderBroadcast({{"action", service + "TIME_SYNC"},
                      {"extras", {extra("OLD_TIME_MILLIS", m_oldTime.value_or(set)), extra("NEW_TIME_MILLIS", set)}}});
    });
    sync->add_option("old", m_oldTime, "milliseconds since 1970 before; without it, as after")->type_name("");
    sync->add_option("new", m_newTime, "and after; without it, now")->type_name("");
  }

  Json readBroadcast(const CLI::App& verb, const std::map<const CLI::Option*, const ExtraType*>& types) const {
    if (m_word.empty()) throw ScenarioError("broadcast: the action is empty");
    Json intent = {{"action", m_word}};
    for (const auto& [key, text] : m_parts) {
      if (!text.empty()) intent[key] = key == "component" ? readComponent(text) : Json(text);
    }
    std::map<const CLI::Option*, std::size_t> taken;
    for (const CLI::Option* option : verb.parse_order()) {
      const auto type = types.find(option);
      if (type == types.end()) continue;
      intent["extras"].push_back(readExtra(*type->second, option->results().at(taken[option]++)));
    }
    return intent;
  }

  void addViews() {
    const auto addView = [&](const char* verb, const char* about, std::function<void()> show) {
      CLI::App* view = addVerb(verb, about, std::move(show));
      view->add_flag("--json", m_json, "one JSON object per line");
      return view;
    };
    addView("state", "Show the scenario as it is now, ready for --scenario",
            [this] { print(order("scenario").at("scenario").dump(m_json ? -1 : 2)); });
    addView("services", "List the services and their processes", [this] { show(servicesReading(), m_json); });
    CLI::App* traffic = addView("traffic", "Show the transactions as they happen, decoded, until interrupted", {});
    CLI::Option* last = traffic->add_option("--last", m_last, "begin with so many of the newest that are over");
    last->description(last->get_description() + "; by default " + std::to_string(m_last) + ", with --record none");
    traffic->add_flag("--past", m_past, "show all that are kept, at most 1000, and end");
    addRecordOptions(*traffic, m_record);
    traffic->callback([this, last] {
      if (m_record.file.empty()) return showTraffic(m_past ? UINT64_MAX : m_last, !m_past, m_json);
      recordTraffic(m_record, m_past ? UINT64_MAX : last->count() == 0 ? 0 : m_last, m_past);
    });
  }

  static std::string whatIsWrong(const CLI::App* app, const CLI::Error& error) {
    // The last of the verbs that were understood.
    while (!app->get_subcommands().empty()) app = app->get_subcommands().front();
    std::string verbs;
    for (const CLI::App* verb : app->get_subcommands([](const CLI::App* each) { return !each->get_group().empty(); })) {
      verbs += (verbs.empty() ? "" : ", ") + verb->get_name();
    }
    const std::vector<std::string> extra = app->remaining();
    const bool unknown = !verbs.empty() && !extra.empty();
    return unknown ? "no subcommand is called " + extra.front() + "; there are " + verbs : error.what();
  }

  static std::string explain(const CLI::App* app, const CLI::Error& error) {
    return cli::failurePrefix(kProgram) + whatIsWrong(app, error) + "\nRun with --help for more information.\n";
  }

  CLI::App m_app{"A simulated device for clients of libOrvelDelegateClient.", "orvel-sim"};
  int m_status = kSuccess;
  std::optional<TimeLimit> m_limit;
  RunOptions m_run;
  std::string m_file;
  std::string m_service;
  std::string m_word;
  pid_t m_parent = 0;
  std::optional<std::int64_t> m_oldTime;
  std::optional<std::int64_t> m_newTime;
  std::map<std::string, std::string> m_parts;  // of a broadcast
  bool m_json = false;
  std::uint64_t m_last = 10;
  bool m_past = false;
  RecordOptions m_record;
};

}  // namespace
}  // namespace orvel::sim

int main(int argc, char** argv) {
  using namespace orvel::sim;
  orvel::cli::prepareStreams();
  const auto fail = [&](const std::exception& error, int status) {
    const bool json = orvel::cli::asksForJson(argc, argv);
    if (*error.what() != '\0') return orvel::cli::fail(kProgram, {status, error.what()}, json);
    const std::string directory = vesk_runtime_directory();
    return orvel::cli::fail(kProgram, {status, "no device in " + directory, {}, {}, directory}, json, /*said=*/true);
  };
  try {
    if (argc > 1 && std::string(argv[1]) == "--complete-values") return completeValues({argv + 2, argv + argc});
    return CommandLine().parseAndRun(argc, argv);
  } catch (const NoDevice& error) {
    return fail(error, kNoDevice);
  } catch (const TimedOut& error) {
    return fail(error, kTimedOut);
  } catch (const ScenarioError& error) {
    return fail(error, kUsage);
  } catch (const std::exception& error) {
    return fail(error, kFailed);
  }
}

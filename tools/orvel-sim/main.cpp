// orvel-sim: a simulated device, and the verbs that change and break it.
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <iostream>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include <CLI/CLI.hpp>

#include "device/Scenario.h"
#include "device/Schema.h"
#include "device/Service.h"
#include "device/ShippedScenarios.h"
#include "tools/cli/DeviceDirectory.h"
#include "tools/cli/Failure.h"
#include "tools/cli/Help.h"
#include "tools/cli/Integration.h"
#include "tools/cli/Options.h"
#include "tools/cli/Streams.h"
#include "tools/cli/Text.h"
#include "tools/cli/Usage.h"
#include "tools/orvel-sim/Steps.h"
#include "tools/orvel-sim/host/Control.h"
#include "tools/orvel-sim/host/Devices.h"
#include "tools/orvel-sim/host/IsolatedService.h"
#include "tools/orvel-sim/host/Run.h"
#include "tools/orvel-sim/verbs/AssistantVerbs.h"
#include "tools/orvel-sim/verbs/BroadcastVerbs.h"
#include "tools/orvel-sim/verbs/CompletionValues.h"
#include "tools/orvel-sim/verbs/ControlMessages.h"
#include "tools/orvel-sim/verbs/FaultVerbs.h"
#include "tools/orvel-sim/verbs/LifeVerbs.h"
#include "tools/orvel-sim/verbs/PackageVerbs.h"
#include "tools/orvel-sim/verbs/RecordingVerbs.h"
#include "tools/orvel-sim/verbs/StateVerbs.h"
#include "tools/orvel-sim/verbs/StatusVerbs.h"
#include "tools/orvel-sim/verbs/TrafficVerb.h"
#include "tools/orvel-sim/verbs/WaitVerb.h"

namespace orvel::sim {
namespace {

using cli::kFailed;
using cli::kNoDevice;
using cli::kSuccess;
using cli::kTimedOut;
using cli::kUsage;

constexpr char kProgram[] = "orvel-sim";
constexpr char kJsonHelp[] = "print JSON, one object a line";

constexpr char kFooter[] = R"(
Examples:
  orvel-sim run                              serve a device until Ctrl-C
  orvel-sim run --isolate --scenario my.json each service in a process of its own
  orvel-sim run --scenario busy              a scenario that comes with the program
  orvel-sim run -- orvelctl device           a device for one command
  orvel-sim run --name kitchen               a second device: orvel-sim -d kitchen VERB
  orvel-sim status                           from another terminal: look at the device,
  orvel-sim traffic
  orvel-sim set name "Living room"           change it,
  orvel-sim set setting some_key 42
  orvel-sim screen off
  orvel-sim package install com.example.app
  orvel-sim directive Alerts SetAlert 7:30
  orvel-sim delay delegate getDeviceName 500 break it,
  orvel-sim hang delegate --client my-app --call 3
  orvel-sim kill delegate
  orvel-sim reset                            repair it,
  orvel-sim restart delegate
  orvel-sim state > mine.json                keep it as it is,
  orvel-sim load mine.json                   and bring that back

Exit status:
  0  success
  1  failure
  2  wrong usage or scenario
  3  no device
  4  the device did not answer in time
run with a command gives the command's own, 128 + N when signal N killed it. With --json a failure is one more line on
standard output, {"error": {"status": ..., "exitStatus": ..., "message": ...}}, which share/orvel/failure.schema.json
describes.)";

// Throws ScenarioError.
std::uint16_t portOf(const std::string& word) {
  const Json port = Json::parse(word, nullptr, /*allow_exceptions=*/false);
  if (port.is_number_unsigned() && port <= UINT16_MAX) return port.get<std::uint16_t>();
  throw ScenarioError("run: --web: expected a port from 0 to " + std::to_string(UINT16_MAX) + ", not '" + word + "'");
}

// How a program ends that fails: by what it throws.
int fail(const std::exception& error, int status, bool json, const std::string& place) {
  std::string message = place + error.what();
  if (const auto* const unknown = dynamic_cast<const ScenarioError*>(&error)) {
    message += cli::didYouMean(unknown->word, unknown->known);
  }
  const std::string directory = status == kNoDevice ? vesk_runtime_directory() : "";
  if (*error.what() != '\0') return cli::fail(kProgram, {status, message, {}, {}, directory}, json);
  return cli::fail(kProgram, {status, "no device in " + directory, {}, {}, directory}, json, /*said=*/true);
}

// `place` is where the command line stands that `run` executes; empty for that of the process.
int catching(const std::function<int()>& run, bool json, const std::string& place) {
  try {
    return run();
  } catch (const NoDevice& error) {
    return fail(error, kNoDevice, json, place);
  } catch (const TimedOut& error) {
    return fail(error, kTimedOut, json, place);
  } catch (const ScenarioError& error) {
    return fail(error, kUsage, json, place);
  } catch (const std::exception& error) {
    return fail(error, kFailed, json, place);
  }
}

// Of the words of a command line those that follow the program: with every --json right behind the verb, where also
// those verbs take it that take all words as they are.
std::vector<std::string> inOrder(const std::vector<std::string>& words, const CLI::App& app, bool isJson) {
  std::vector<std::string> ordered;
  std::size_t behindVerb = 0;
  for (auto word = words.begin(); word != words.end(); ++word) {
    if (*word == "--") {
      ordered.insert(ordered.end(), word, words.end());
      break;
    }
    if (*word == "--json") {
      isJson = true;
      continue;
    }
    ordered.push_back(*word);
    const auto isVerb = [&](const CLI::App* verb) { return verb->check_name(*word); };
    if (behindVerb == 0 && !app.get_subcommands(isVerb).empty()) behindVerb = ordered.size();
  }
  if (isJson) ordered.insert(ordered.begin() + static_cast<std::ptrdiff_t>(behindVerb), "--json");
  return ordered;
}

// The verbs, each with what its options are read into.
class CommandLine {
 public:
  // `place` is where it stands, in a file of steps. `first` is its first word: behind those that serve there is
  // no other verb, and short runs begin sooner without the others.
  explicit CommandLine(std::string place, const std::string& first) : m_place(std::move(place)) {
    m_app.require_subcommand(1);
    addOptions();
    addRun();
    if (first != "run" && first != kServeAlone) addOtherVerbs();
    m_app.footer(std::string(kFooter + 1) + cli::kPlaces);  // last: a verb would have it, too
  }

  // Returns the exit status.
  int parseAndRun(int argc, const char* const* argv) {
    addJson(argc, argv);
    if (m_place.empty()) {
      if (const auto done = cli::answerIntegration(m_app, argc, argv, "orvelctl", completions)) return *done;
    }
    std::vector<const char*> words = {kProgram};
    if (cli::asksForJson(argc, argv)) setJson(true);
    const std::vector<std::string> given = inOrder({argv + 1, argv + argc}, m_app, isJson());
    for (const std::string& word : given) words.push_back(word.c_str());
    if (const auto ended = parse(words)) return *ended;
    if (!m_steps.empty()) runAll();
    return m_status;
  }

 private:
  // As cli::parse; what a verb refuses names it.
  std::optional<int> parse(const std::vector<const char*>& words) {
    try {
      return cli::parse(m_app, static_cast<int>(words.size()), words.data(), m_place);
    } catch (const ScenarioError& error) {
      const std::vector<CLI::App*> verbs = m_app.get_subcommands();
      const std::string verb = verbs.empty() ? "" : verbs.front()->get_name();
      const std::string what = error.what();
      const bool isNamed = verb.empty() || what.rfind(verb + ": ", 0) == 0 || what.rfind(verb + " ", 0) == 0;
      throw ScenarioError(isNamed ? what : verb + ": " + what, error.word, error.known);
    }
  }

  void addOtherVerbs() {
    addStatusVerbs(m_app);
    addStateVerbs(m_app);
    addBroadcastVerbs(m_app);
    addPackageVerb(m_app);
    addProcessVerb(m_app);
    addDirectiveVerb(m_app);
    addEventResultVerb(m_app);
    addFaultVerbs(m_app);
    addLifeVerbs(m_app);
    addViews();
    addTrafficVerb(m_app);
    addWaitVerb(m_app);
    addMetricsVerb(m_app);
    addReplayVerb(m_app, m_status);
    addConvertVerb(m_app);
  }

  CLI::App* addVerb(const std::string& name, const std::string& about, std::function<void()> run) {
    CLI::App* verb = m_app.add_subcommand(name, about);
    verb->callback(std::move(run));
    return verb;
  }

  void addOptions() {
    cli::addVersion(m_app);
    m_app.set_help_all_flag("--help-all", "Print the help of every subcommand and exit");
    cli::inSeconds(m_app.add_option_function<double>(
        "--timeout", [this](double seconds) { m_limit.emplace(std::chrono::duration<double>(seconds)); },
        "before the subcommand: give up when the device has not answered after so many seconds; not for run"));
    m_app
        .add_option_function<std::string>(
            "-d,--device", [this](const std::string& word) { useDevice(word); },
            "before the subcommand: the device of that name, or in that directory")
        ->type_name("NAME|DIRECTORY");
    m_app
        .add_option_function<std::string>(
            "-f,--file",
            [this](const std::string& file) {
              if (!m_app.get_subcommands().empty()) throw ScenarioError("-f: takes no subcommand beside it");
              if (file.empty()) throw ScenarioError("-f: the name of the file is empty");
              m_steps = file;
              m_app.require_subcommand(0);
            },
            "in place of a subcommand: take them from a file, one a line, up to the first that fails; - is standard "
            "input")
        ->type_name("FILE");
  }

  void useDevice(const std::string& word) {
    if (!m_place.empty()) throw ScenarioError("--device: the steps of a file are for one device");
    if (word.find('/') == std::string::npos && !m_app.got_subcommand("run") &&
        !cli::deviceLivesIn(directoryOfName(word))) {
      std::vector<std::string> names;
      for (const FoundDevice& each : runningDevices()) {
        if (!each.name.empty()) names.push_back(each.name);
      }
      const std::string hint = cli::didYouMean(word, names);
      throw NoDevice("no device is called '" + word + "'" + (hint.empty() ? "; orvel-sim devices lists them" : hint));
    }
    chooseDevice(word);
    if (word.find('/') == std::string::npos) m_run.name = word;
  }

  // The steps of the file.
  void runAll() {
    if (!m_place.empty()) throw ScenarioError("-f: not within steps");
    const bool json = isJson();
    m_status = runSteps(m_steps, [json](const std::vector<std::string>& words, const std::string& place) {
      std::vector<const char*> argv = {kProgram};
      for (const std::string& word : words) argv.push_back(word.c_str());
      const int argc = static_cast<int>(argv.size());
      setJson(json);
      return catching([&] { return CommandLine(place, words.front()).parseAndRun(argc, argv.data()); },
                      json || cli::asksForJson(argc, argv.data()), place);
    });
  }

  // Every verb takes it, and so does the program. Where one verb is asked for, the others do without, which is faster.
  void addJson(int argc, const char* const* argv) {
    const std::vector<std::string> words(argv + 1, argv + argc);
    const auto isGiven = [&](const char* word) { return std::find(words.begin(), words.end(), word) != words.end(); };
    const bool isWhole = isGiven("--man-page") || isGiven("--complete") || isGiven("--help-all");
    for (CLI::App* verb : m_app.get_subcommands([](const CLI::App*) { return true; })) {
      if (isWhole || isGiven(verb->get_name().c_str())) addJson(*verb);
    }
    addJsonTo(m_app);
  }

  static void addJsonTo(CLI::App& app) {
    app.add_flag_callback(
        "--json", [] { setJson(true); }, kJsonHelp);
  }

  static void addJson(CLI::App& app) {
    if (app.get_option_no_throw("--json") == nullptr) addJsonTo(app);
    for (CLI::App* each : app.get_subcommands([](const CLI::App*) { return true; })) addJson(*each);
  }

  void addRun() {
    CLI::App* run = addVerb("run", "Serve a device, or run a command against a device of its own", [this] {
      if (m_limit) throw ScenarioError("run: --timeout limits orders; limit a COMMAND by itself, as with timeout(1)");
      if (!m_place.empty()) throw ScenarioError("run: a step changes a device that runs");
      const CLI::App& given = *m_app.get_subcommand("run");
      const bool isNamed = given.count("--name") != 0;
      if (isNamed && m_app.count("--device") != 0) throw ScenarioError("--name: not together with --device");
      if (isNamed && m_run.name.empty()) throw ScenarioError("--name: it is empty");
      m_run.scenario = given.count("--scenario") == 0 ? defaultScenario() : scenarioIn(m_file);
      for (std::string& service : m_run.without) service = serviceCalled(service).id;
      m_run.json = isJson();
      m_status = runDevice(m_run);
    });
    run->add_option("--scenario", m_file,
                    "what differs from the default: a JSON file, - for standard input, or one of orvel-sim scenarios");
    run->add_flag("--isolate", m_run.isolate, "give each service a process of its own");
    const auto takePort = [this](const CLI::results_t& words) {
      m_run.web = portOf(words.front().empty() ? "0" : words.front());  // given without a port
      return true;
    };
    run->add_option("--web", takePort, "serve a page of the device on 127.0.0.1, at this port or any that is free")
        ->expected(0, 1)
        ->type_name("[PORT]");
    run->add_option("--name", m_run.name, "a device beside others, which orvel-sim -d NAME finds")->type_name("NAME");
    run->add_option("--without", m_run.without,
                    "never start that service, so that another program can serve it; may be "
                    "repeated")
        ->allow_extra_args(false)
        ->type_name("SERVICE");
    cli::asCount(run->add_option("--ready-fd", m_run.readyFd,
                                 "write \"ready\", with --json what is served, to that descriptor and close it, once "
                                 "all services can be found"),
                 STDERR_FILENO + 1);
    run->add_option("command", m_run.command, "after --: what to run with a private device, ready before it starts");

    // How isolated services are started.
    CLI::App* alone = addVerb(kServeAlone, "", [this] { m_status = serveAlone(m_service, m_parent); });
    alone->group("");
    alone->add_option("service", m_service)->required();
    alone->add_option("parent", m_parent)->required();
  }

  void addViews() {
    addVerb("state", "Show the scenario as it is now, ready for --scenario and load",
            [] { print(cli::jsonText(ask("scenario").at("scenario"), isJson() ? -1 : 2)); });
    addVerb("schema", "Print a JSON Schema of scenarios, by which editors complete and check them",
            [] { print(scenarioSchema().dump(2)); });
    addVerb("services", "List the services and their processes", [] { show(servicesReading(), isJson()); });
    CLI::App* load = addVerb("load", "Let the device be as a scenario says, in place of all that it is", [this] {
      const Json scenario = scenarioIn(m_file);
      device().send({{"order", "change"}, {"change", {{"scenario", scenario}}}});
      printDone({{"loaded", m_file}});
    });
    load->add_option("file", m_file, "a JSON file, - for standard input, or one of orvel-sim scenarios")
        ->required()
        ->type_name("");
    load->footer(
        "orvel-sim state > FILE keeps what the device is; what a file leaves out becomes\n"
        "as by default. Clients are told of what has changed.");
  }

  static Json scenarioIn(const std::string& word) {
    return word == "-" ? readScenario(std::cin, "standard input") : scenarioCalled(word);
  }

  CLI::App m_app{"A simulated device for clients of libOrvelDelegateClient.", "orvel-sim"};
  const std::string m_place;
  int m_status = kSuccess;
  std::string m_steps;
  std::optional<TimeLimit> m_limit;
  RunOptions m_run;
  std::string m_file;
  std::string m_service;
  pid_t m_parent = 0;
};

}  // namespace
}  // namespace orvel::sim

int main(int argc, char** argv) {
  using namespace orvel::sim;
  orvel::cli::prepareStreams();
  const auto run = [&] {
    if (argc > 1 && std::string(argv[1]) == "--complete-values") return completeValues({argv + 2, argv + argc});
    return CommandLine({}, argc > 1 ? argv[1] : "").parseAndRun(argc, argv);
  };
  return catching(run, orvel::cli::asksForJson(argc, argv), {});
}

// orvel-sim: a simulated device, and the verbs that change and break it.
#include <chrono>
#include <functional>
#include <optional>
#include <string>
#include <utility>

#include <CLI/CLI.hpp>

#include "device/Scenario.h"
#include "device/ShippedScenarios.h"
#include "tools/cli/Failure.h"
#include "tools/cli/Integration.h"
#include "tools/cli/Options.h"
#include "tools/cli/Streams.h"
#include "tools/cli/Usage.h"
#include "tools/orvel-sim/host/Control.h"
#include "tools/orvel-sim/host/Run.h"
#include "tools/orvel-sim/verbs/AssistantVerbs.h"
#include "tools/orvel-sim/verbs/BroadcastVerbs.h"
#include "tools/orvel-sim/verbs/CompletionValues.h"
#include "tools/orvel-sim/verbs/ControlMessages.h"
#include "tools/orvel-sim/verbs/FaultVerbs.h"
#include "tools/orvel-sim/verbs/PackageVerbs.h"
#include "tools/orvel-sim/verbs/RecordingVerbs.h"
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

// The verbs, each with what its options are read into.
class CommandLine {
 public:
  CommandLine() {
    m_app.require_subcommand(1);
    m_app.footer(std::string(kFooter + 1) + cli::kPlaces);
    m_app.set_help_all_flag("--help-all", "Print the help of every subcommand and exit");
    cli::inSeconds(m_app.add_option_function<double>(
        "--timeout", [this](double seconds) { m_limit.emplace(std::chrono::duration<double>(seconds)); },
        "before the subcommand: give up when the device has not answered after so many seconds; not for run"));
    addRun();
    addStateVerbs(m_app);
    addBroadcastVerbs(m_app);
    addPackageVerb(m_app);
    addProcessVerb(m_app);
    addDirectiveVerb(m_app);
    addEventResultVerb(m_app);
    addFaultVerbs(m_app);
    addViews();
    addTrafficVerb(m_app);
    addMetricsVerb(m_app);
    addReplayVerb(m_app, m_status);
    addConvertVerb(m_app);
  }

  // Returns the exit status.
  int parseAndRun(int argc, char** argv) {
    if (const auto answered = cli::answerIntegration(m_app, argc, argv, "orvelctl", completions())) return *answered;
    if (const auto ended = cli::parse(m_app, argc, argv)) return *ended;
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

  void addViews() {
    const auto addView = [&](const char* verb, const char* about, std::function<void()> show) {
      CLI::App* view = addVerb(verb, about, std::move(show));
      view->add_flag("--json", m_json, "one JSON object per line");
      return view;
    };
    addView("state", "Show the scenario as it is now, ready for --scenario",
            [this] { print(ask("scenario").at("scenario").dump(m_json ? -1 : 2)); });
    addView("services", "List the services and their processes", [this] { show(servicesReading(), m_json); });
  }

  CLI::App m_app{"A simulated device for clients of libOrvelDelegateClient.", "orvel-sim"};
  int m_status = kSuccess;
  std::optional<TimeLimit> m_limit;
  RunOptions m_run;
  std::string m_file;
  std::string m_service;
  pid_t m_parent = 0;
  bool m_json = false;
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

// orvel-sim: a simulated device, and the orders that change and break it.
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <chrono>
#include <csignal>
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

#include "sim/AssistantVerbs.h"
#include "sim/Control.h"
#include "sim/Intent.h"
#include "sim/Orders.h"
#include "sim/PackageVerbs.h"
#include "sim/Run.h"
#include "sim/Scenario.h"
#include "sim/Service.h"
#include "sim/Traffic.h"

namespace orvel::sim {
namespace {

enum Status : int { kOk = 0, kFailed = 1, kUsage = 2, kNoDevice = 3 };

constexpr char kFooter[] = R"(
Examples:
  orvel-sim run                                   serve a device until Ctrl-C
  orvel-sim run --isolate --scenario mine.json    each service in a process of its own
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
  orvel-sim traffic                               watch it
  orvel-sim metrics

The device lives in ORVEL_RUNTIME_DIR, else $XDG_RUNTIME_DIR/orvel, else /tmp/orvel-<uid>.

Exit status: 0 success, 1 failure, 2 wrong usage or scenario, 3 no device; run with a command gives the command's own
(128 + N when signal N killed it).)";

std::string describeService(const Json& service) {
  const auto pid = service.at("pid").get<int>();
  std::ostringstream line;
  line << std::left << std::setw(14) << service.at("service").get<std::string>() << std::setw(46)
       << service.at("name").get<std::string>() << (pid == 0 ? "dead" : "process " + std::to_string(pid));
  return line.str();
}

std::string describeServices() {
  std::string text = "Services and their methods:\n";
  for (const ServiceType* type : allServices())
    text += "  " + type->id + ": " + type->summary + "\n" + describeMethods(*type);
  return text;
}

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

Json readNumber(const std::string& word) {
  Json number = Json::parse(word, nullptr, /*allow_exceptions=*/false);
  if (!number.is_number_unsigned()) throw ScenarioError("a number or off is expected, not '" + word + "'");
  return number;
}

// The verbs, each with what its options are read into.
class CommandLine {
 public:
  CommandLine() {
    m_app.require_subcommand(1);
    m_app.footer(kFooter + 1);
    m_app.failure_message(explain);
    addRun();
    addSet();
    addStates();
    addEvents();
    addPackageVerb(m_app);
    addProcessVerb(m_app);
    addDirectiveVerb(m_app);
    addEventResultVerb(m_app);
    addFaults();
    addLives();
    addViews();
    addMetricsVerb(m_app);
  }

  // The exit status.
  int parseAndRun(int argc, char** argv) {
    try {
      m_app.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
      if (m_app.exit(error) != 0) return kUsage;
      checkOutput();
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
      m_run.scenario = m_file.empty() ? defaultScenario() : readScenarioFile(m_file);
      m_status = runDevice(m_run);
    });
    run->add_option("--scenario", m_file, "JSON file with what differs from the default; see docs/scenarios.md");
    run->add_flag("--isolate", m_run.isolate, "give each service a process of its own");
    run->add_option("command", m_run.command, "after --: what to run with a private device, ready before it starts");

    // How isolated services are started.
    CLI::App* alone = addVerb("serve-alone", "", [this] { m_status = serveAlone(m_service, m_parent); });
    alone->group("");
    alone->add_option("service", m_service)->required();
    alone->add_option("parent", m_parent)->required();
  }

  void addSet() {
    const std::string values =
        "Values:\n" + describeScenario() + "\nThe service may be left out where only one has the field.";
    // All that follows is taken as it is, a value like -3 too.
    CLI::App* set = addVerb("set", "Change a value: set [SERVICE] FIELD [KEY...] VALUE", {})->prefix_command();
    set->footer(values);
    set->callback([set] {
      std::vector<std::string> words = set->remaining();
      if (words.size() < 2) throw ScenarioError("a FIELD and a VALUE are expected; there are\n" + describeScenario());
      const std::string value = words.back();
      words.pop_back();
      orderChange(changeOf(words, value));
    });

    CLI::App* unset =
        addVerb("unset", "Remove a key, such as a setting", [this] { orderChange(changeOf(m_words, {})); });
    unset->add_option("field", m_words, "[SERVICE] FIELD KEY...")->required()->type_name("");
    unset->footer(values);
  }

  // The first word after a verb, one of a few.
  void addWord(CLI::App* verb, const char* name, const std::vector<std::string>& words) {
    verb->add_option(name, m_word)->required()->check(CLI::IsMember(words))->type_name("");
  }

  // Short forms of set, in the words of what happens.
  void addStates() {
    using Path = std::vector<std::string>;
    const auto addFlag = [&](const char* verb, const char* about, const Path& flag, const char* on, const char* off) {
      CLI::App* state =
          addVerb(verb, about, [this, flag, on] { orderChange(changeOf(flag, m_word == on ? "true" : "false")); });
      addWord(state, "state", {on, off});
    };
    addFlag("screen", "Switch the screen on or off", {"power", "screenOn"}, "on", "off");
    CLI::App* account = addVerb("account", "Register the device to an account, or to none", [this] {
      const bool added = m_word == "added";
      if (m_id && !added) throw ScenarioError("account removed: no ID is expected, not '" + *m_id + "'");
      if (m_id && m_id->empty()) throw ScenarioError("account added: the ID is empty");
      const Json initial = defaultScenario().at(Json::json_pointer("/delegate/customerId"));
      orderChange(changeOf({"delegate", "customerId"}, added ? m_id.value_or(initial.get<std::string>()) : ""));
    });
    addWord(account, "change", {"added", "removed"});
    account->add_option("id", m_id, "the account's identifier; without it, that of the default scenario");
    addFlag("maro", "Connect or disconnect the assistant", {"delegate", "maroConnected"}, "connected", "disconnected");
    addFlag("network", "Connect or disconnect the default network", {"connectivity", "networkConnected"}, "connected",
            "disconnected");
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

  // What a fault becomes, from the last word; that is empty when the service or the method comes last.
  using ReadFault = std::function<Json(const std::string& word)>;

  CLI::App* addFault(const char* verb, const char* about, const char* usage, const char* kind, ReadFault read) {
    CLI::App* fault = addVerb(verb, about, [this, kind, read = std::move(read)] { orderFault(kind, read); });
    fault->add_option("service", m_words, usage)->required()->type_name("");
    fault->footer("Without a method it holds for every method of the service; off ends it.\n" + describeServices());
    return fault;
  }

  void addFaults() {
    addFault("truncate", "Cut the replies of a service after some bytes", "SERVICE [METHOD] BYTES|off", "truncateTo",
             readNumber);
    addFault("delay", "Let a service answer late", "SERVICE [METHOD] MILLISECONDS|off", "delayMs", readNumber);
    addFault("hang", "Let a service not answer at all", "SERVICE [METHOD] [on|off]", "hang",
             [](const std::string&) { return true; });
    addFault("error", "Let calls of a service fail with a vesk error code, a negated errno value",
             "SERVICE [METHOD] [CODE|off]", "error", [](const std::string& word) {
               return word.empty() || word == "on" ? Json(-EREMOTEIO) : valueOf(errorShape(), word, "CODE");
             });
    CLI::App* exception = addFault("exception", "Let a service answer with an exception", "SERVICE [METHOD] [on|off]",
                                   "exception", [this](const std::string&) { return m_exception; });
    const auto addPart = [&](const char* option, const char* key, const char* about) {
      exception->add_option_function<std::string>(
          option, [this, key](const std::string& text) { m_exception[key] = text; }, about);
    };
    exception->add_option_function<int>(
        "--code", [this](int code) { m_exception["code"] = code; }, "exception code");
    addPart("--message", "message", "what the exception says");
    addPart("--trace", "trace", "stack trace to send along");
  }

  void orderFault(const char* kind, const ReadFault& read) {
    const ServiceType& type = serviceCalled(m_words.front());
    const auto isValue = [](const std::string& word) {
      const auto digits = word.begin() + (word[0] == '-' ? 1 : 0);
      return word == "on" || word == "off" ||
             std::all_of(digits, word.end(), [](unsigned char c) { return std::isdigit(c); });
    };
    std::size_t next = 1;
    std::string method = kEveryMethod;
    if (next < m_words.size() && !isValue(m_words[next])) method = methodCalled(type, m_words[next++]).name;
    const std::string value = next < m_words.size() ? m_words[next++] : "";
    if (next < m_words.size()) throw ScenarioError("'" + m_words[next] + "' is one word too many");
    Json change = changeOf({type.id, kFaults, method, kind}, std::nullopt);
    if (value != "off") change["value"] = read(value);
    orderChange(change);
  }

  void addLives() {
    const auto addLife = [&](const char* verb, const char* about) {
      CLI::App* life = addVerb(verb, about, [this, verb] {
        const std::string id = serviceCalled(m_service).id;  // a wrong name is told without a device too
        Control::connect().send({{"order", verb}, {"service", id}});
      });
      life->add_option("service", m_service)->required()->type_name("");
      life->footer(describeServices());
    };
    addLife("kill", "Kill a service; it stays dead until it is restarted");
    addLife("restart", "Start a service anew, with the scenario as it is");
  }

  void addViews() {
    const auto addView = [&](const char* verb, const char* about, std::function<void()> show) {
      CLI::App* view = addVerb(verb, about, std::move(show));
      view->add_flag("--json", m_json, "one JSON object per line");
      return view;
    };
    addView("state", "Show the scenario as it is now, ready for --scenario",
            [this] { print(order("scenario").at("scenario").dump(m_json ? -1 : 2)); });
    addView("services", "List the services and their processes", [this] {
      const Json answer = order("services");
      for (const Json& service : answer.at("services")) print(m_json ? service.dump() : describeService(service));
    });
    CLI::App* traffic = addView("traffic", "Show the transactions as they happen, decoded, until interrupted",
                                [this] { showTraffic(m_past ? UINT64_MAX : m_last, !m_past, m_json); });
    traffic->add_option("--last", m_last, "begin with so many of the newest that are over")->capture_default_str();
    traffic->add_flag("--past", m_past, "show all that are kept, at most 1000, and end");
  }

  static std::string explain(const CLI::App* app, const CLI::Error& error) {
    // The last of the verbs that were understood.
    while (!app->get_subcommands().empty()) app = app->get_subcommands().front();
    std::string verbs;
    for (const CLI::App* verb : app->get_subcommands([](const CLI::App* each) { return !each->get_group().empty(); })) {
      verbs += (verbs.empty() ? "" : ", ") + verb->get_name();
    }
    const std::vector<std::string> extra = app->remaining();
    const bool unknown = app->get_require_subcommand_min() != 0 && !extra.empty();
    return "orvel-sim: " +
           (unknown ? "no subcommand is called " + extra.front() + "; there are " + verbs : error.what()) +
           "\nRun with --help for more information.\n";
  }

  CLI::App m_app{"A simulated device for clients of libOrvelDelegateClient.", "orvel-sim"};
  int m_status = kOk;
  RunOptions m_run;
  std::string m_file;
  std::string m_service;
  std::string m_word;
  pid_t m_parent = 0;
  std::optional<std::string> m_id;
  std::optional<std::int64_t> m_oldTime;
  std::optional<std::int64_t> m_newTime;
  std::map<std::string, std::string> m_parts;  // of a broadcast
  std::vector<std::string> m_words;
  Json m_exception = Json::object();
  bool m_json = false;
  std::uint64_t m_last = 10;
  bool m_past = false;
};

// A standard stream that is closed must not become some socket of vesk's that is then written to.
void openStandardStreams() {
  for (const int stream : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
    if (fcntl(stream, F_GETFD) < 0) open("/dev/null", O_RDONLY);
  }
}

}  // namespace
}  // namespace orvel::sim

int main(int argc, char** argv) {
  using namespace orvel::sim;
  openStandardStreams();
  std::signal(SIGPIPE, SIG_IGN);  // a closed pipe is told as an error
  const auto fail = [](const std::exception& error, Status status) {
    if (*error.what() != '\0') std::cerr << "orvel-sim: " << error.what() << std::endl;
    return status;
  };
  try {
    return CommandLine().parseAndRun(argc, argv);
  } catch (const NoDevice& error) {
    return fail(error, kNoDevice);
  } catch (const ScenarioError& error) {
    return fail(error, kUsage);
  } catch (const std::exception& error) {
    return fail(error, kFailed);
  }
}

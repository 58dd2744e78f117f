// orvel-sim: a simulated device, and the orders that change and break it.
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <ctime>
#include <functional>
#include <iomanip>
#include <iostream>
#include <optional>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include <CLI/CLI.hpp>

#include "sim/Control.h"
#include "sim/Run.h"
#include "sim/Scenario.h"
#include "sim/Service.h"

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
  orvel-sim delay delegate getDeviceName 500      break it,
  orvel-sim exception power
  orvel-sim kill delegate
  orvel-sim traffic                               watch it

The device lives in ORVEL_RUNTIME_DIR, else $XDG_RUNTIME_DIR/orvel, else /tmp/orvel-<uid>.

Exit status: 0 success, 1 failure, 2 wrong usage or scenario, 3 no device; run with a command gives the command's own
(128 + N when signal N killed it).)";

// Throws when what was printed could not be written.
void checkOutput() {
  errno = 0;
  std::cout.flush();
  if (!std::cout) throw std::runtime_error(std::string("cannot write to standard output: ") + std::strerror(errno));
}

void print(const std::string& line) {
  std::cout << line << '\n';
  checkOutput();
}

std::string describeService(const Json& service) {
  const auto pid = service.at("pid").get<int>();
  std::ostringstream line;
  line << std::left << std::setw(12) << service.at("service").get<std::string>() << std::setw(32)
       << service.at("name").get<std::string>() << (pid == 0 ? "dead" : "process " + std::to_string(pid));
  return line.str();
}

std::string describeServices() {
  std::string text = "Services and their methods:\n";
  for (const ServiceType* type : allServices())
    text += "  " + type->id + ": " + type->summary + "\n" + describeMethods(*type);
  return text;
}

// "12:30:01.250  delegate.getSecureSetting(key: "volume") = "7"  0.1 ms, process 123"
std::string describeTransaction(const Json& transaction) {
  const auto milliseconds = transaction.at("timeMs").get<std::int64_t>();
  const std::time_t seconds = milliseconds / 1000;
  std::tm local{};
  localtime_r(&seconds, &local);
  std::ostringstream line;
  line << std::put_time(&local, "%T") << '.' << std::setw(3) << std::setfill('0') << milliseconds % 1000 << "  "
       << transaction.at("service").get<std::string>() << '.';
  const Json& method = transaction.at("method");
  line << (method.is_null() ? "transaction " + transaction.at("code").dump() : method.get<std::string>());
  const Json& arguments = transaction.at("arguments");
  const char* separator = "";
  line << '(';
  if (arguments.is_object()) {
    for (const auto& [name, value] : arguments.items()) {
      line << separator << name << ": " << value.dump();
      separator = ", ";
    }
  } else {
    line << arguments.dump();  // a part of what was too long to be kept
  }
  line << ')';
  if (transaction.contains("reply")) line << " = " << transaction.at("reply").dump();
  if (transaction.contains("exception")) {
    const Json& exception = transaction.at("exception");
    line << " throws " << exception.at("code").dump() << ' ' << exception.at("message").dump();
  }
  if (transaction.contains("truncatedTo")) line << " cut to " << transaction.at("truncatedTo").dump() << " bytes";
  if (transaction.contains("hangs")) line << " hangs";
  if (transaction.contains("durationMs")) line << "  " << transaction.at("durationMs").dump() << " ms";
  line << ", process " << transaction.at("pid").dump();
  return line.str();
}

void showTraffic(std::uint64_t last, bool follow, bool json) {
  Control control = Control::connect();
  constexpr std::uint64_t kNone = UINT64_MAX;
  const auto newest =
      control.send({{"order", "traffic"}, {"after", kNone}, {"wait", false}}).at("newest").get<std::uint64_t>();
  std::uint64_t seen = newest - std::min(newest, last);
  while (follow || seen < newest) {
    const Json answer = control.send({{"order", "traffic"}, {"after", seen}, {"wait", follow}});
    for (const Json& transaction : answer.at("transactions")) {
      print(json ? transaction.dump() : describeTransaction(transaction));
      seen = transaction.at("number");
    }
    if (answer.at("transactions").empty()) seen = std::max(seen, answer.at("newest").get<std::uint64_t>());
  }
}

Json order(const char* name) {
  return Control::connect().send({{"order", name}});
}
void orderChange(const Json& change) {
  Control::connect().send({{"order", "change"}, {"change", change}});
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
    addFaults();
    addLives();
    addViews();
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

    addVerb("screen", "Switch the screen on or off",
            [this] {
              orderChange(changeOf({"power", "screenOn"}, m_word == "on" ? "true" : "false"));
            })
        ->add_option("state", m_word)
        ->required()
        ->check(CLI::IsMember({"on", "off"}))
        ->type_name("");
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
      return word == "on" || word == "off" ||
             std::all_of(word.begin(), word.end(), [](unsigned char c) { return std::isdigit(c); });
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
    std::string verbs;
    for (const CLI::App* verb : app->get_subcommands([](const CLI::App* each) { return !each->get_group().empty(); })) {
      verbs += (verbs.empty() ? "" : ", ") + verb->get_name();
    }
    const std::vector<std::string> extra = app->remaining();
    const bool unknown = app->get_subcommands().empty() && !extra.empty();
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

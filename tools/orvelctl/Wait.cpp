#include "Wait.h"

#include <poll.h>

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <iterator>
#include <optional>
#include <sstream>
#include <utility>

#include "Conditions.h"
#include "Kinds.h"
#include "Links.h"
#include "orvel/CallStatus.h"
#include "orvel/CallbackQueue.h"
#include "tools/cli/DeviceDirectory.h"
#include "tools/cli/Options.h"
#include "tools/cli/Text.h"

namespace orvelctl {
namespace {

using orvel::cli::deviceDirectory;
using orvel::cli::deviceProblem;
using orvel::cli::isWorkstation;
using orvel::cli::joined;
using orvel::cli::Problem;
using orvel::service_apis::CallbackQueue;
using orvel::service_apis::kAllServices;
using orvel::service_apis::lastCall;
using orvel::service_apis::Link;
using orvel::service_apis::LinkState;
using Clock = std::chrono::steady_clock;

constexpr char kWaitFooter[] = R"(
Each CONDITION is SUBJECT=VALUE or SUBJECT!=VALUE, and all must be true at the same time:
  device=ready                       all services are up
  SERVICE=up|away|given-up           how the client stands with the service; away: it died and is looked for
  setting:KEY=VALUE                  a secure setting; KEY= while it is unset or empty, KEY!= while it is set
  package:NAME=installed|absent      or the version of the package, as people read it
  screen=on|off, name=TEXT, registration=registered|unregistered, assistant=connected|disconnected
  network=connected|disconnected     known from its first change on
  foreground=PACKAGE                 a process in the foreground has the package; asked five times a second
What is not there yet is waited for: the device, a service, the package. SERVICE alone stands for SERVICE=up,
device alone for device=ready.

Examples:
  orvelctl wait device=ready --timeout 10
  orvelctl wait setting:volume_alarm=7 screen=on --fail-on delegate=away

The exit status is 0 when all is true, 1 when a condition of --fail-on is, 4 when the time is over; the message says
how each subject stood then.)";

// All of it happens on one thread: the client's callbacks run in dispatch().
class Waiting {
 public:
  Waiting(Session& session, const WaitOptions& options)
      : m_session(session),
        m_limit(std::chrono::duration_cast<Clock::duration>(Seconds(options.for_seconds))),
        m_awaited(options.conditions.size()) {
    for (const std::string& word : options.conditions) m_conditions.push_back(readCondition(word, options.state));
    for (const std::string& word : options.fail_on) m_conditions.push_back(readCondition(word, options.state));
  }

  void run() {
    limitCalls();
    if (!awaitDevice() || !m_session.open()) return;
    m_session.client().setExecutor(m_callbacks.executor());
    m_subscriptions.push_back(m_session.client().subscribeLink([this](const Link& link) { lookAgain(link); }));
    while (m_session.status() == kSuccess) {
      m_callbacks.dispatch();
      lookForDevice();
      for (Condition& condition : m_conditions) look(condition);
      if (m_session.status() != kSuccess || isOver()) return;
      sleep(m_callbacks.fd());
    }
  }

 private:
  // A service that hangs must not hang the rest for long; a shorter limit that the user has set counts.
  static void limitCalls() {
    constexpr char kVariable[] = "ORVEL_CALL_TIMEOUT_MS";
    constexpr int kLimitMs = 1000;
    const char* const set = std::getenv(kVariable);
    const std::optional<int> limit = readNumber<int>(set == nullptr ? "" : set);
    if (!limit || *limit <= 0 || *limit > kLimitMs) setenv(kVariable, std::to_string(kLimitMs).c_str(), 1);
  }

  Clock::duration left() const { return m_start + m_limit - Clock::now(); }

  // Until the session ends, the descriptor is readable, or it is time to ask what nothing tells.
  void sleep(int descriptor) const {
    constexpr Clock::duration kPause = std::chrono::milliseconds(200);
    const timespec time{0, std::chrono::nanoseconds(std::clamp(left(), Clock::duration(0), kPause)).count()};
    pollfd descriptors[] = {{m_session.interruption(), POLLIN, 0}, {descriptor, POLLIN, 0}};
    ppoll(descriptors, std::size(descriptors), &time, nullptr);
  }

  // Looks for a device itself where the runtime would say on standard error each time that there is none.
  bool awaitDevice() {
    for (; m_session.status() == kSuccess; sleep(-1)) {
      lookForDevice();
      if (m_gone.empty()) return true;
      for (Condition& condition : m_conditions) condition.unknown = m_gone;
      if (isOver()) return false;
    }
    return false;
  }

  // The client hears of one death after the other, six seconds each; that the whole device has ended is seen at once.
  void lookForDevice() {
    if (!isWorkstation()) return;
    const std::string directory = deviceDirectory().path;
    const bool wasThere = m_gone.empty();
    const Problem problem = deviceProblem(directory);
    m_gone = problem.what.empty() ? "" : "no device in " + directory + ": " + problem.what;
    if (wasThere && !m_gone.empty()) Session::note("waiting: " + m_gone + "; Ctrl-C gives up");
  }

  // The client gives up after five minutes; this waits for as long as it was told.
  void lookAgain(const Link& link) {
    if (link.state != LinkState::kGivenUp) return;
    const auto awaits = [&](const Condition& each) { return each.link == link.service && each.value == "given-up"; };
    if (std::none_of(m_conditions.begin(), m_conditions.end(), awaits)) m_session.client().rebind(link.service);
  }

  void look(Condition& condition) {
    const Client& client = m_session.client();
    if (condition.link) {
      condition.now = wordOf(nameOf(client.state(*condition.link).state));
    } else if (!m_gone.empty()) {
      condition.now.reset();
      condition.unknown = m_gone;
    } else if (condition.subject == nullptr) {
      std::vector<std::string> missing;
      for (const Service service : kAllServices) {
        if (client.state(service).state != LinkState::kUp) missing.emplace_back(nameOf(service));
      }
      condition.now = missing.empty() ? "ready" : "without " + joined(missing);
    } else {
      ask(condition, client.state(condition.subject->service));
    }
  }

  void ask(Condition& condition, const Link& link) {
    const Subject& subject = *condition.subject;
    const bool renewed = std::exchange(condition.asked_epoch, link.epoch) != link.epoch;
    if (link.state != LinkState::kUp) {
      condition.now.reset();
      condition.unknown = std::string(nameOf(link.service)) + " is " + nameOf(link.state);
      return;
    }
    if (!condition.subscribed || (renewed && link.network_lost)) subscribe(condition);
    if (!subject.ask) return;
    const bool told = condition.subscribed && condition.now && !renewed;
    if (told && !std::exchange(condition.changed, false)) return;
    condition.now = subject.ask(m_session.client(), condition.key);
    if (lastCall()) return;
    condition.now.reset();
    condition.unknown = lastCall().text;
  }

  void subscribe(Condition& condition) {
    if (!condition.subject->told) return;
    const auto tell = [&condition](const Json&, const std::string& text) {
      condition.changed = true;
      if (!condition.subject->ask) condition.now = text;
    };
    const bool is_package = condition.subject->name == "package:";  // of which the kind tells of all
    const Kind kind = kindsCalled({is_package ? "package" : condition.words}).front();
    condition.unknown = "nothing was told of it yet";
    condition.subscribed = kind.subscribe(m_session.client(), {}, tell, m_subscriptions);
  }

  // Whether there is nothing more to wait for, which is said.
  bool isOver() {
    const auto first = m_conditions.begin();
    const auto awaited = first + static_cast<std::ptrdiff_t>(m_awaited);
    const auto holds = [](const Condition& condition) { return condition.holds(); };
    const auto failed = std::find_if(awaited, m_conditions.end(), holds);
    if (failed != m_conditions.end()) {
      m_session.fail({kFailed, "wait: " + failed->text() + ", for which --fail-on ends it", "wait"});
      return true;
    }
    if (std::all_of(first, awaited, holds)) {
      std::for_each(first, awaited, [&](const Condition& condition) { show(condition); });
      return true;
    }
    if (left() > Clock::duration(0)) return false;
    std::ostringstream message;
    message << "wait: timed out after " << Seconds(m_limit).count() << " s";
    for (auto each = first; each != awaited; ++each) message << (each == first ? ": " : "; ") << each->text();
    Failure failure{kTimedOut, message.str(), "wait"};
    failure.reason = "timed-out";
    m_session.fail(std::move(failure));
    return true;
  }

  void show(const Condition& condition) {
    if (condition.link) return showLink(m_session, m_session.client().state(*condition.link));
    m_session.print({{"subject", condition.words}, {"value", *condition.now}}, condition.text());
  }

  Session& m_session;
  const Clock::time_point m_start = Clock::now();
  const Clock::duration m_limit;
  const std::size_t m_awaited;          // how many conditions there are without those of --fail-on,
  std::vector<Condition> m_conditions;  // which stand behind them
  std::string m_gone;                   // why there is no device; empty while there is one
  CallbackQueue m_callbacks;
  std::vector<Subscription> m_subscriptions;  // Last: what they tell goes into the rest.
};

}  // namespace

CLI::App* addWaitCommand(Commands& commands, WaitOptions& options) {
  CLI::App* wait = commands.add("wait", "Wait until something is true of the device, such as screen=on",
                                [&options](Session& session) { Waiting(session, options).run(); });
  wait->add_option("conditions", options.conditions)->required()->type_name("");
  wait->add_option("--fail-on", options.fail_on, "end with status 1 as soon as this is true; may be repeated")
      ->type_name("CONDITION")
      ->allow_extra_args(false);
  wait->add_option("--state", options.state, "the state of a SERVICE that is given alone")
      ->check(CLI::IsMember({"up", "away", "given-up"}))
      ->capture_default_str();
  orvel::cli::inSeconds(wait->add_option("--for", options.for_seconds, "the same as --timeout (default: for ever)"));
  wait->footer(kWaitFooter + 1);
  wait->parse_complete_callback([&options] {  // says what is wrong while there is no device yet
    for (const std::string& word : options.conditions) readCondition(word, options.state);
    for (const std::string& word : options.fail_on) readCondition(word, options.state);
  });
  return wait;
}

}  // namespace orvelctl

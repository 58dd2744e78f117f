#include "Watch.h"

#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <ctime>
#include <deque>
#include <iomanip>
#include <iostream>
#include <iterator>
#include <optional>
#include <sstream>
#include <utility>

#include "Links.h"
#include "orvel/CallbackQueue.h"
#include "tools/cli/Options.h"

namespace orvelctl {
namespace {

using orvel::service_apis::CallbackQueue;
using orvel::service_apis::kAllServices;
using orvel::service_apis::Link;
using orvel::service_apis::LinkState;
using WallClock = std::chrono::system_clock;

// So much waits for a reader that is slow, and one line at least.
constexpr std::size_t kMostBytes = 1 << 20;

// How long the last lines may take when watching ends.
constexpr std::chrono::seconds kLastLines(1);

struct Line {
  std::string text;
  bool counts;  // as a change
};

// "12:00:00.000"
std::string timeOf(WallClock::time_point time) {
  const std::time_t seconds = WallClock::to_time_t(time);
  const auto milliseconds = std::chrono::duration_cast<std::chrono::milliseconds>(time.time_since_epoch()).count();
  std::tm local{};
  localtime_r(&seconds, &local);
  std::ostringstream text;
  text << std::put_time(&local, "%T") << '.' << std::setw(3) << std::setfill('0') << milliseconds % 1000;
  return text.str();
}

// What a link that has changed says of the subscriptions; empty for nothing.
std::string newsOf(const Link& link, bool lost_network) {
  std::string news;
  if (link.state == LinkState::kAway) news = "died";
  if (link.state == LinkState::kGivenUp) news = "given up";
  if (link.state == LinkState::kUp && link.epoch > 1) {
    news = "again";
    const std::size_t renewed = link.restored + link.refused;
    if (renewed > 0) news += ": " + std::to_string(link.restored) + " of " + std::to_string(renewed) + " restored";
  }
  if (lost_network) news += (news.empty() ? "" : "; ") + std::string("network: lost, start again");
  return news;
}

// All of it happens on one thread: the client's callbacks run in dispatch(), between the lines.
class Watch {
 public:
  Watch(Session& session, const WatchOptions& options)
      : m_session(session), m_options(options), m_kinds(kindsCalled(options.kinds)) {
    m_session.client().setExecutor(m_callbacks.executor());
  }

  // False, and the failure is said, when a service does not take a subscription.
  bool subscribe() {
    subscribeLinks();
    std::string watched;
    Json names = Json::array();
    for (const Kind& kind : m_kinds) {
      const auto tell = [this, kind](const Json& values, const std::string& text) {
        addLine(kind.word(), m_links.at(indexOf(kind.service)).epoch, values, text, /*counts=*/true);
      };
      const auto take = [&](Client& client) { return kind.subscribe(client, m_options.filter, tell, m_subscriptions); };
      const auto asked = kind.asks ? std::optional(kind.service) : kNoService;
      if (!m_session.order("watching " + kind.name, asked, take)) return false;
      watched += (watched.empty() ? "" : ", ") + kind.name;
      names.push_back(kind.name);
    }
    std::cerr << "orvelctl: watching " << watched << "; Ctrl-C ends" << std::endl;
    if (m_options.established) addLine("subscribed", std::nullopt, {{"kinds", names}}, "", /*counts=*/false);
    return true;
  }

  void print() {
    const auto start = std::chrono::steady_clock::now();
    while (m_session.status() == kSuccess) {
      std::optional<Seconds> left;
      if (m_options.for_seconds > 0) {
        left = Seconds(m_options.for_seconds) - (std::chrono::steady_clock::now() - start);
      }
      bool writable = false;
      if (!m_line && !m_lines.empty()) m_line = takeLine();
      if (!wait(left, m_line ? &writable : nullptr)) return;
      m_callbacks.dispatch();
      sayDropped();
      if (!writable) continue;
      writeLine();
      if (m_ended) return;
    }
  }

  // Writes what has been told and not been read yet, for as long as a reader that reads needs.
  void drain() {
    const auto end = std::chrono::steady_clock::now() + kLastLines;
    while (!m_ended && (m_line || !m_lines.empty())) {
      if (!m_line) m_line = takeLine();
      const auto left = std::chrono::ceil<std::chrono::milliseconds>(end - std::chrono::steady_clock::now()).count();
      pollfd output{STDOUT_FILENO, POLLOUT, 0};
      if (left <= 0 || poll(&output, 1, static_cast<int>(left)) == 0) break;
      if (output.revents != 0) writeLine();
    }
    if (!m_ended) m_dropped += m_lines.size() + (m_line ? 1 : 0);
    if (m_dropped > 0) sayDropped(m_dropped);
  }

  // Tells the services that can be told.
  void unsubscribe() {
    for (const Kind& kind : m_kinds) {
      if (kind.unsubscribe && m_session.status() == kSuccess) (m_session.client().*kind.unsubscribe)();
    }
  }

 private:
  static std::size_t indexOf(Service service) { return static_cast<std::size_t>(service); }

  // Before all others: a link tells the epoch of the notifications that follow it.
  void subscribeLinks() {
    for (const Service service : kAllServices) {
      const auto tells = [&](const Kind& kind) { return kind.service == service; };
      if (std::none_of(m_kinds.begin(), m_kinds.end(), tells)) continue;
      m_subscriptions.push_back(
          m_session.client().subscribeLink(service, [this](const Link& link) { tellLink(link); }));
    }
  }

  void tellLink(const Link& link) {
    const Link before = std::exchange(m_links.at(indexOf(link.service)), link);
    const std::string news = newsOf(link, link.network_lost && !before.network_lost);
    if (news.empty()) return;
    addLine("link", link.epoch, objectOf(link), nameOf(link.service) + (" " + news), /*counts=*/false);
  }

  void addLine(const std::string& kind, std::optional<std::uint64_t> epoch, const Json& values, const std::string& text,
               bool counts) {
    const WallClock::time_point now = WallClock::now();
    Line line{"", counts};
    ++m_sequence;
    if (m_session.json()) {
      Json object = {{"timeMs", std::chrono::duration_cast<std::chrono::milliseconds>(now.time_since_epoch()).count()},
                     {"sequence", m_sequence}};
      if (epoch) object["epoch"] = *epoch;
      object["kind"] = kind;
      object.update(values);
      line.text = asText(object) + '\n';
    } else if (!epoch) {
      line.text = kind + '\n';
    } else {
      line.text =
          timeOf(now) + "  " + kind + std::string(14 - std::min<std::size_t>(kind.size(), 12), ' ') + text + '\n';
    }
    m_waiting += line.text.size();
    m_lines.push_back(std::move(line));
    for (; m_waiting > kMostBytes && m_lines.size() > 1; ++m_dropped) takeLine();
  }

  // Writes as much of the line that is being written as goes without blocking.
  void writeLine() {
    m_ended = !m_session.writeSome(m_line->text);
    if (m_ended || !m_line->text.empty()) return;
    if (m_line->counts) m_ended = ++m_printed == m_options.count;
    m_line.reset();
  }

  Line takeLine() {
    Line line = std::move(m_lines.front());
    m_lines.pop_front();
    m_waiting -= line.text.size();
    return line;
  }

  // Once the reader takes lines again, and for what did not even become one.
  void sayDropped() {
    for (const auto& [method, number] : m_callbacks.dropped()) {
      m_sequence += number;
      m_dropped += number;
      for (const Service service : kAllServices) m_links.at(indexOf(service)) = m_session.client().state(service);
    }
    if (m_dropped == 0 || m_waiting > kMostBytes / 2) return;
    sayDropped(std::exchange(m_dropped, 0));
  }

  static void sayDropped(std::uint64_t dropped) {
    Session::note(std::to_string(dropped) + " lines were dropped, the reader is too slow");
  }

  // Waits until there are callbacks, or, if `writable` is given, standard output takes something; false when it is time
  // to end. Everything that would block is waited for here, so that an interruption ends it at once.
  bool wait(std::optional<Seconds> left, bool* writable) const {
    pollfd descriptors[] = {{m_session.interruption(), POLLIN, 0},
                            {m_callbacks.fd(), POLLIN, 0},
                            {writable ? STDOUT_FILENO : -1, POLLOUT, 0}};
    timespec time{};
    if (left) {
      const auto nanoseconds = std::chrono::duration_cast<std::chrono::nanoseconds>(std::max(*left, Seconds(0)));
      time = {nanoseconds.count() / 1'000'000'000, nanoseconds.count() % 1'000'000'000};
    }
    const int ready = ppoll(descriptors, std::size(descriptors), left ? &time : nullptr, nullptr);
    if (writable) *writable = ready > 0 && descriptors[2].revents != 0;
    return ready > 0 && descriptors[0].revents == 0;
  }

  Session& m_session;
  const WatchOptions& m_options;
  const std::vector<Kind> m_kinds;
  CallbackQueue m_callbacks;
  std::array<Link, kAllServices.size()> m_links{};  // as they were told
  std::uint64_t m_sequence = 0;
  std::deque<Line> m_lines;
  std::optional<Line> m_line;                 // that is being written
  std::uint64_t m_printed = 0;                // changes
  bool m_ended = false;                       // all that was wanted is printed, or nothing can be
  std::size_t m_waiting = 0;                  // bytes of them
  std::uint64_t m_dropped = 0;                // and not said yet
  std::vector<Subscription> m_subscriptions;  // Last: what they tell goes into the rest.
};

}  // namespace

const char kLinesFooter[] = R"(
--count, --for and Ctrl-C end with status 0; each line is written out at once, into a pipe too. Objects are numbered: a
gap in "sequence" stands for lines that a slow reader has lost. "epoch" counts the connections to the service that has
told the change: what happened between two of them was not heard.

A line "link" tells what becomes of such a service, and does not count as a change: it "died"; it is there "again", and
so many subscriptions were restored; it was "given up".)";

void addWatchOptions(CLI::App* subcommand, WatchOptions& options) {
  orvel::cli::asCount(subcommand->add_option("--count", options.count, "end after so many changes"), 1);
  orvel::cli::inSeconds(subcommand->add_option("--for", options.for_seconds, "end after so many seconds"));
  subcommand->add_flag("-E,--established", options.established,
                       "print a line \"subscribed\" first, from which on nothing is missed");
}

void watchChanges(Session& session, const WatchOptions& options) {
  Watch watch(session, options);
  if (!watch.subscribe()) return;
  watch.print();
  watch.drain();
  watch.unsubscribe();
  session.acceptInterrupt();
}

}  // namespace orvelctl

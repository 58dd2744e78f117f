#include "tools/orvel-sim/host/VerbProcess.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/epoll.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <set>
#include <system_error>
#include <utility>

#include "device/Endpoint.h"
#include "device/Faults.h"
#include "device/ShippedScenarios.h"
#include "vesk/vesk_service.h"

namespace orvel::sim {
namespace {

constexpr std::size_t kMostText = 256 << 10;
constexpr std::chrono::seconds kLongestVerb(15);

const std::set<std::string>& verbsOfPage() {
  static const std::set<std::string> verbs = [] {
    std::set<std::string> names = {"account", "broadcast", "directive", "event-result", "flap",    "get",
                                   "kill",    "load",      "maro",      "metrics",      "network", "package",
                                   "process", "reset",     "restart",   "scenarios",    "screen",  "services",
                                   "set",     "state",     "status",    "time-sync",    "unset"};
    for (const FaultKind& kind : faultKinds()) names.insert(kind.verb);
    return names;
  }();
  return verbs;
}

// What a file contains is not for everyone who has the page.
bool readsFile(const std::vector<std::string>& words) {
  if (words.front() != "load") return false;
  const std::vector<ShippedScenario> shipped = shippedScenarios();
  const auto isShipped = [&](const std::string& word) {
    return std::any_of(shipped.begin(), shipped.end(), [&](const auto& each) { return each.name == word; });
  };
  return !std::all_of(words.begin() + 1, words.end(), isShipped);
}

}  // namespace

std::string whyNotForPage(const std::vector<std::string>& words) {
  constexpr std::size_t kMostWords = 64;
  if (words.empty()) return "a verb is expected";
  if (words.size() > kMostWords) return "too many words";
  const auto isCut = [](const std::string& word) { return word.find('\0') != std::string::npos; };
  if (std::any_of(words.begin(), words.end(), isCut)) return "a word contains a zero";
  if (verbsOfPage().count(words.front()) == 0) return "the page runs no verb called '" + words.front() + "'";
  return readsFile(words) ? "the page loads no file, only scenarios that come with orvel-sim" : "";
}

// ---- What it writes ----

VerbProcess::Output::Output() {
  std::array<int, 2> ends{};
  check(pipe2(ends.data(), O_CLOEXEC) == 0 ? 0 : -errno, "making a pipe");
  m_readEnd = ends[0];
  m_writeEnd = ends[1];
  fcntl(m_readEnd, F_SETFL, O_NONBLOCK);
}

VerbProcess::Output::~Output() {
  m_source.reset();
  close(m_readEnd);
  if (m_writeEnd >= 0) close(m_writeEnd);
}

void VerbProcess::Output::watch(sd_event* event) {
  close(std::exchange(m_writeEnd, -1));
  const auto ready = [](sd_event_source* source, int, std::uint32_t events, void* self) noexcept {
    static_cast<Output*>(self)->read();
    if ((events & EPOLLIN) == 0U) sd_event_source_set_enabled(source, SD_EVENT_OFF);  // the end
    return 0;
  };
  sd_event_source* source = nullptr;
  check(sd_event_add_io(event, &source, m_readEnd, EPOLLIN, ready, this), "watching a pipe");
  m_source.reset(source);
}

// What is too much is read and thrown away, so that the process does not wait for ever.
void VerbProcess::Output::read() {
  std::array<char, 16 << 10> bytes{};
  for (;;) {
    const ssize_t count = ::read(m_readEnd, bytes.data(), bytes.size());
    if (count < 0 && errno == EINTR) continue;
    if (count <= 0) return;
    const std::size_t room = kMostText - m_text.size();
    m_text.append(bytes.data(), std::min(room, static_cast<std::size_t>(count)));
    m_isCut = m_isCut || static_cast<std::size_t>(count) > room;
  }
}

const std::string& VerbProcess::Output::text() {
  read();
  if (m_isCut) m_text += "\n(more is left out)\n";
  return m_text;
}

// ---- The process ----

VerbProcess::VerbProcess(void* runtime, const std::vector<std::string>& words, Ended ended)
    : m_ended(std::move(ended)) {
  sd_event* event = vesk_service_event(runtime);
  std::vector<std::string> arguments = {"orvel-sim"};
  arguments.insert(arguments.end(), words.begin(), words.end());
  m_process = std::make_unique<Process>(event, "/proc/self/exe", arguments,
                                        Process::Pipes{m_output.writeEnd(), m_errors.writeEnd()},
                                        [this](const siginfo_t& end) { processEnded(end); });
  m_output.watch(event);
  m_errors.watch(event);
  m_patience = std::make_unique<Timer>(runtime, kLongestVerb, [this] { giveUp(); });
}

// Nothing that a verb leaves has to be put in order, and the run loop must not wait for it.
VerbProcess::~VerbProcess() {
  if (m_process) kill(m_process->pid(), SIGKILL);
}

void VerbProcess::giveUp() {
  m_isLate = true;
  kill(m_process->pid(), SIGKILL);  // whose end is told
}

void VerbProcess::processEnded(const siginfo_t& end) {
  std::string errors = m_errors.text();
  if (m_isLate) errors += "given up after " + std::to_string(kLongestVerb.count()) + " seconds\n";
  const Json result = {{"status", statusOf(end)}, {"out", m_output.text()}, {"err", errors}};
  m_process.reset();
  const Ended ended = std::move(m_ended);
  ended(result);
}

}  // namespace orvel::sim

#include "Session.h"

#include <poll.h>
#include <pthread.h>
#include <signal.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <ctime>
#include <sstream>
#include <stdexcept>
#include <system_error>
#include <utility>

#include "Reason.h"
#include "tools/cli/Alarm.h"
#include "tools/cli/DeviceDirectory.h"
#include "tools/cli/Streams.h"
#include "tools/cli/Text.h"

namespace orvelctl {
namespace {

using orvel::cli::deviceDirectory;
using orvel::cli::deviceProblem;
using orvel::cli::isWorkstation;
using orvel::cli::noDevice;
using orvel::cli::Problem;
using orvel::cli::serverOf;
using orvel::service_apis::CallStatus;
using orvel::service_apis::lastCall;
using orvel::service_apis::LinkState;

constexpr int kOver = SIGUSR1;  // the interrupter's own, to end its wait

sigset_t watchedSignals() {
  sigset_t signals;
  sigemptyset(&signals);
  for (const int signal : {SIGINT, SIGTERM, SIGHUP, kOver}) sigaddset(&signals, signal);
  return signals;
}

// What to do about a service that is not there, where a workstation's runtime tells why.
std::string adviceFor(Service service) {
  if (!isWorkstation()) return "";
  const bool dead = serverOf(deviceDirectory().path, boundName(service)) == 0;
  return dead ? std::string(", which is dead; try: orvel-sim restart ") + nameOf(service) : "; try: orvelctl doctor";
}

timespec remaining(Seconds time) {
  const auto left = std::chrono::duration_cast<std::chrono::nanoseconds>(std::max(time, Seconds(0)));
  const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(left);
  return {seconds.count(), (left - seconds).count()};
}

}  // namespace

std::string asText(const Json& json) {
  return orvel::cli::jsonText(json);
}

Interrupter::Interrupter(std::optional<Seconds> limit) : m_limit(limit), m_interrupted(eventfd(0, EFD_CLOEXEC)) {
  if (m_interrupted < 0) throw std::system_error(errno, std::generic_category(), "eventfd");
  const sigset_t signals = watchedSignals();
  pthread_sigmask(SIG_BLOCK, &signals, nullptr);
  m_thread = std::thread([this] { wait(); });
}

Interrupter::~Interrupter() {
  m_over = true;
  pthread_kill(m_thread.native_handle(), kOver);
  m_thread.join();
  close(m_interrupted);
}

Failure Interrupter::failure() const {
  std::ostringstream message;
  if (m_status == kTimedOut) {
    message << "gave up after " << m_limit->count() << " s";
  } else {
    message << "interrupted by SIG" << sigabbrev_np(m_status - orvel::cli::kSignalled);
  }
  return {m_status, message.str()};
}

void Interrupter::wait() {
  const sigset_t signals = watchedSignals();
  const auto start = std::chrono::steady_clock::now();
  while (!m_over) {
    const timespec left = m_limit ? remaining(*m_limit - (std::chrono::steady_clock::now() - start)) : timespec{};
    const int signal = sigtimedwait(&signals, nullptr, m_limit ? &left : nullptr);
    if (signal == kOver || (signal < 0 && errno != EAGAIN)) continue;
    if (signal < 0) {
      m_status = kTimedOut;
      orvel::cli::complain(kProgram, failure().message);
    } else {
      m_status = orvel::cli::kSignalled + signal;
      ::signal(signal, SIG_DFL);
      sigset_t again;
      sigemptyset(&again);
      sigaddset(&again, signal);
      pthread_sigmask(SIG_UNBLOCK, &again, nullptr);
    }
    eventfd_write(m_interrupted, 1);
    shutDownUntilOver();
    return;
  }
}

// A shutdown() that comes before start() has begun interrupts nothing.
void Interrupter::shutDownUntilOver() {
  constexpr timespec kPause{0, 50'000'000};
  sigset_t over;
  sigemptyset(&over);
  sigaddset(&over, kOver);
  while (!m_over) {
    Client::getClient().shutdown();
    sigtimedwait(&over, nullptr, &kPause);
  }
}

Session::Session(double timeout, bool json)
    : m_interrupter(timeout > 0 ? std::optional(Seconds(timeout)) : std::nullopt),
      m_client(Client::getClient()),
      m_json(json) {}

Session::~Session() {
  m_client.shutdown();
}

bool Session::open() {
  const auto start = [this] { return m_client.start({{}, {}, /*wait=*/false}); };
  const std::string directory = deviceDirectory().path;
  const auto noneThere = [&](const Problem& problem) {
    return Failure{kNoDevice, noDevice(directory, problem), {}, {}, directory};
  };
  // Looked for here first: the runtime says less, and in its own name.
  if (const Problem problem = isWorkstation() ? deviceProblem(directory) : Problem(); !problem.what.empty()) {
    fail(noneThere(problem));
    return false;
  }
  if (m_interrupter.status() == 0 && start()) return true;
  if (lastCall().code == CallStatus::Code::kFailed) keep(noneThere(deviceProblem(directory)));
  return false;
}

void Session::waitFor(Service service) {
  constexpr std::chrono::milliseconds kSilence(300);
  constexpr std::chrono::hours kForever(24 * 365);  // the client gives up before
  if (m_client.state(service).state != LinkState::kConnecting) return;
  if (m_client.waitFor(service, LinkState::kUp, kSilence) || m_interrupter.status() != 0) return;
  note(std::string("waiting for service ") + boundName(service) + adviceFor(service) + "; Ctrl-C gives up");
  m_client.start({{service}, kForever});  // whose failure the call that follows has, too
}

std::variant<Json, Failure> Session::call(const std::string& what, std::optional<Service> service,
                                          const std::function<Json(Client&)>& call) {
  if (service) waitFor(*service);
  const auto start = std::chrono::steady_clock::now();
  Json result;
  try {
    result = call(m_client);
  } catch (const std::logic_error&) {
    if (lastCall()) throw;  // else it is the client's, for a setting that is not a number
  }
  const CallStatus status = lastCall();
  if (!status) return failureOf(what, status, std::chrono::steady_clock::now() - start);
  return result;
}

std::optional<Json> Session::ask(const std::string& what, std::optional<Service> service,
                                 const std::function<Json(Client&)>& call) {
  const auto patiently = [&](Client& client) {
    if (!service) return call(client);
    const std::string text =
        what + ": no answer from " + boundName(*service) + " yet; try: orvelctl doctor; Ctrl-C gives up";
    std::optional<orvel::cli::Alarm> hint;
    if (isatty(STDERR_FILENO) != 0) hint.emplace(Seconds(1), [text] { note(text); });
    return call(client);
  };
  std::variant<Json, Failure> answer = this->call(what, service, patiently);
  if (m_interrupter.status() != 0) return std::nullopt;  // which is why it failed
  if (auto* result = std::get_if<Json>(&answer)) return std::move(*result);
  fail(std::get<Failure>(std::move(answer)));
  return std::nullopt;
}

bool Session::order(const std::string& what, std::optional<Service> service, const std::function<bool(Client&)>& call) {
  const auto taken = ask(what, service, call);
  if (taken == Json(false)) fail(refusalOf(what, service));
  return taken == Json(true);
}

void Session::carryOut(const std::string& what, Service service, const std::function<bool(Client&)>& call,
                       const Json& object, const std::string& text) {
  if (order(what, service, call)) print(object, text);
}

void Session::fail(Failure failure) {
  orvel::cli::complain(kProgram, orvel::cli::printable(failure.message));
  keep(std::move(failure));
}

void Session::note(const std::string& text) {
  orvel::cli::complain(kProgram, orvel::cli::printable(text));
}

void Session::print(const Json& object, const std::vector<std::string>& lines) {
  std::string text;
  for (const std::string& line : lines) text += (text.empty() ? "" : "\n") + orvel::cli::printable(line);
  printAsIs(object, text);
}

void Session::printAsIs(const Json& object, const std::string& text) {
  if (m_interrupter.status() == 0) write((m_json ? asText(object) : text) + '\n');
}

bool Session::writeSome(std::string& text) {
  const ssize_t written = ::write(STDOUT_FILENO, text.data(), std::min<std::size_t>(text.size(), PIPE_BUF));
  if (written >= 0) {
    text.erase(0, static_cast<std::size_t>(written));
    m_mid_line = !text.empty();
  } else if (errno != EAGAIN && errno != EINTR) {
    m_output_lost = true;
    fail({kFailed, orvel::cli::cannotWrite(errno)});
    return false;
  }
  return true;
}

void Session::write(std::string text) {
  bool failed = m_output_lost;
  while (!failed && !text.empty()) {
    pollfd descriptors[] = {{m_interrupter.descriptor(), POLLIN, 0}, {STDOUT_FILENO, POLLOUT, 0}};
    // Once interrupted, only what does not have to be waited for.
    const bool interrupted = m_interrupter.status() != 0;
    const int ready = poll(interrupted ? descriptors + 1 : descriptors, interrupted ? 1 : 2, interrupted ? 0 : -1);
    if (ready == 0) return;
    if (descriptors[1].revents != 0) failed = !writeSome(text);
  }
}

std::vector<Failure> Session::failures() const {
  std::vector<Failure> all;
  const int interrupted = m_interrupter.status();
  const bool accepted = m_interrupt_accepted && interrupted == orvel::cli::kSignalled + SIGINT;
  if (interrupted != 0 && !accepted) all.push_back(m_interrupter.failure());
  all.insert(all.end(), m_failures.begin(), m_failures.end());
  return all;
}

int Session::status() const {
  const std::vector<Failure> all = failures();
  return all.empty() ? static_cast<int>(kSuccess) : all.front().exitStatus;
}

int Session::finish() {
  const std::vector<Failure> all = failures();
  if (all.empty()) return kSuccess;
  // Behind half a line a reader could not tell where the failure begins.
  if (m_json && !m_mid_line) write(orvel::cli::envelope(all) + '\n');
  return all.front().exitStatus;
}

}  // namespace orvelctl

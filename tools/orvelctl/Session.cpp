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

#include "DeviceDirectory.h"
#include "LogWatch.h"
#include "tools/cli/Streams.h"

namespace orvelctl {
namespace {

constexpr int kOver = SIGUSR1;  // the interrupter's own, to end its wait

sigset_t watchedSignals() {
  sigset_t signals;
  sigemptyset(&signals);
  for (const int signal : {SIGINT, SIGTERM, SIGHUP, kOver}) sigaddset(&signals, signal);
  return signals;
}

timespec remaining(Seconds time) {
  const auto left = std::chrono::duration_cast<std::chrono::nanoseconds>(std::max(time, Seconds(0)));
  const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(left);
  return {seconds.count(), (left - seconds).count()};
}

}  // namespace

std::string asText(const Json& json) {
  return json.dump(-1, ' ', false, Json::error_handler_t::replace);
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

// A shutdown() that comes before initialize() has begun interrupts nothing.
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
  if (m_interrupter.status() == 0 && m_client.initialize()) return true;
  if (saidNoDevice()) {
    const DeviceDirectory directory = deviceDirectory();
    keep({kNoDevice,
          "no device in " + directory.path + ": " + deviceProblem(directory.path).what,
          {},
          {},
          directory.path});
  } else if (m_interrupter.status() == 0) {
    fail({kFailed, "the client could not be initialised"});
  }
  return false;
}

std::variant<Json, Failure> Session::call(const std::string& what, const std::string& service, const Json& nothing,
                                          const std::function<Json(Client&)>& call) {
  const CallLog log;
  const auto failed = [&](const std::string& problem, ExitStatus status = kFailed) {
    return Failure{status, what + ": " + problem, what, service};
  };
  Json result;
  try {
    result = call(m_client);
  } catch (const std::logic_error& error) {
    // The client passes on what the standard library throws for a setting that is not a number.
    const bool too_big = dynamic_cast<const std::out_of_range*>(&error) != nullptr;
    return failed(too_big ? "its value does not fit in an int" : "its value is not a number");
  }
  if (log.hasTimedOut()) return failed("the service did not answer in time", kTimedOut);
  if (log.hasMetDeath()) return failed("service " + service + " has died", kNotBound);
  if (result == nothing && isUnbound(service)) return failed("service " + service + " is not bound", kNotBound);
  if (log.hasError()) return failed("the call failed");
  return result;
}

std::optional<Json> Session::ask(const std::string& what, const std::string& service, const Json& nothing,
                                 const std::function<Json(Client&)>& call) {
  std::variant<Json, Failure> answer = this->call(what, service, nothing, call);
  if (m_interrupter.status() != 0) return std::nullopt;  // which is why it failed
  if (auto* result = std::get_if<Json>(&answer)) return std::move(*result);
  fail(std::get<Failure>(std::move(answer)));
  return std::nullopt;
}

void Session::carryOut(const std::string& what, const std::string& service, const std::function<bool(Client&)>& call,
                       const Json& object, const std::string& text) {
  const auto done = ask(what, service, false, call);
  if (done == Json(true)) {
    print(object, text);
  } else if (done) {
    fail(what, "refused", service);
  }
}

void Session::fail(Failure failure) {
  orvel::cli::complain(kProgram, failure.message);
  keep(std::move(failure));
}

void Session::fail(const std::string& what, const std::string& problem, const std::string& service, ExitStatus status) {
  fail({status, what + ": " + problem, what, service});
}

void Session::print(const Json& object, const std::string& text) {
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

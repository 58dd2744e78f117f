#include "Session.h"

#include <pthread.h>
#include <signal.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <iostream>
#include <stdexcept>
#include <system_error>

#include "LogWatch.h"

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

bool outputWritten() {
  errno = 0;
  std::cout.flush();
  if (!std::cout) std::cerr << "orvelctl: cannot write to standard output: " << std::strerror(errno) << std::endl;
  return static_cast<bool>(std::cout);
}

Interrupter::Interrupter(std::optional<Seconds> limit) : m_interrupted(eventfd(0, EFD_CLOEXEC)) {
  if (m_interrupted < 0) throw std::system_error(errno, std::generic_category(), "eventfd");
  const sigset_t signals = watchedSignals();
  pthread_sigmask(SIG_BLOCK, &signals, nullptr);
  m_thread = std::thread([this, limit] { wait(limit); });
}

Interrupter::~Interrupter() {
  m_over = true;
  pthread_kill(m_thread.native_handle(), kOver);
  m_thread.join();
  close(m_interrupted);
}

void Interrupter::wait(std::optional<Seconds> limit) {
  const sigset_t signals = watchedSignals();
  const auto start = std::chrono::steady_clock::now();
  while (!m_over) {
    const timespec left = limit ? remaining(*limit - (std::chrono::steady_clock::now() - start)) : timespec{};
    const int signal = sigtimedwait(&signals, nullptr, limit ? &left : nullptr);
    if (signal == kOver || (signal < 0 && errno != EAGAIN)) continue;
    if (signal < 0) {
      m_status = kTimedOut;
      std::cerr << "orvelctl: gave up after " << limit->count() << " s" << std::endl;
    } else {
      m_status = 128 + signal;
      ::signal(signal, SIG_DFL);
      sigset_t again;
      sigemptyset(&again);
      sigaddset(&again, signal);
      pthread_sigmask(SIG_UNBLOCK, &again, nullptr);
    }
    eventfd_write(m_interrupted, 1);
    Client::getClient().shutdown();
    return;
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
  if (m_client.initialize()) return true;
  if (saidNoDevice()) {
    m_status = kNoDevice;
  } else if (m_interrupter.status() == 0) {
    fail("the client could not be initialised");
  }
  return false;
}

std::optional<Json> Session::ask(const std::string& what, const std::string& service, const Json& nothing,
                                 const std::function<Json(Client&)>& call) {
  const CallLog log;
  Json result;
  try {
    result = call(m_client);
  } catch (const std::logic_error& error) {
    // The client passes on what the standard library throws for a setting that is no number.
    const bool too_big = dynamic_cast<const std::out_of_range*>(&error) != nullptr;
    fail(what + (too_big ? ": its value does not fit in an int" : ": its value is not a number"));
    return std::nullopt;
  }
  if (m_interrupter.status() != 0) return std::nullopt;
  if (log.hasTimedOut()) {
    fail(what + ": the service did not answer in time", kTimedOut);
  } else if (result == nothing && isUnbound(service)) {
    fail(what + ": service " + service + " is not bound", kNotBound);
  } else if (log.hasError()) {
    fail(what + ": the call failed");
  } else {
    return result;
  }
  return std::nullopt;
}

void Session::carryOut(const std::string& what, const std::string& service, const std::function<bool(Client&)>& call,
                       const Json& object, const std::string& text) {
  const auto done = ask(what, service, false, call);
  if (done == Json(true)) {
    print(object, text);
  } else if (done) {
    fail(what + ": refused");
  }
}

void Session::keep(ExitStatus status) {
  if (m_status == kSuccess) m_status = status;
}

void Session::fail(const std::string& message, ExitStatus status) {
  std::cerr << "orvelctl: " << message << std::endl;
  keep(status);
}

void Session::print(const Json& object, const std::string& text) {
  if (m_interrupter.status() != 0) return;
  std::cout << (m_json ? asText(object) : text) << '\n';
  if (!outputWritten()) keep(kFailed);
}

int Session::status() const {
  const int interrupted = m_interrupter.status();
  const bool counts = interrupted != 0 && !(m_interrupt_accepted && interrupted == 128 + SIGINT);
  return counts ? interrupted : static_cast<int>(m_status);
}

}  // namespace orvelctl

#include "binder/CallRecord.h"

#include <array>
#include <cerrno>
#include <cstddef>
#include <cstring>
#include <utility>

#include "binder/LinkBoard.h"

namespace orvel::service_apis {
namespace {

thread_local CallRecord* t_outermost = nullptr;
thread_local bool t_ended = false;

// A thread may call the client in a destructor of a thread-local object of its own, when this one is gone.
struct LastCall {
  CallStatus status;
  ~LastCall() { t_ended = true; }
};

// Null in a thread that ends.
CallStatus* last_call() {
  thread_local LastCall last;
  return t_ended ? nullptr : &last.status;
}

CallStatus::Code code_of(int error) {
  switch (error) {
    case -ESHUTDOWN:
      return CallStatus::Code::kNotInitialised;
    case -EPIPE:
    case -ECONNRESET:
      return CallStatus::Code::kDied;
    case -ETIMEDOUT:
      return CallStatus::Code::kTimedOut;
    default:
      return CallStatus::Code::kFailed;
  }
}

std::string text_of(CallStatus::Code code, int error) {
  switch (code) {
    case CallStatus::Code::kNotInitialised:
      return "shutdown() has ended the call";
    case CallStatus::Code::kDied:
      return "the service died before it answered";
    case CallStatus::Code::kTimedOut:
      return "the service did not answer in time";
    default:
      // Not strerror(), which is not for several threads everywhere.
      std::array<char, 128> text{};
      const char* const known = strerror_r(error < 0 ? -error : error, text.data(), text.size());
      return "the call failed: " + std::string(known) + " (" + std::to_string(error) + ")";
  }
}

}  // namespace

const char* nameOf(CallStatus::Code code) {
  constexpr std::array<const char*, 10> kNames = {"ok",        "not initialised", "not bound", "died",
                                                  "timed out", "exception",       "cut reply", "refused",
                                                  "invalid argument", "failed"};
  return kNames.at(static_cast<std::size_t>(code));
}

CallStatus lastCall() {
  return CallRecord::last();
}

CallRecord::CallRecord(const char* method, std::optional<Service> service) : m_outer(t_outermost) {
  if (m_outer) return;
  m_status.method = method;
  m_status.service = service;
  t_outermost = this;
}

CallRecord::~CallRecord() {
  if (m_outer) return;
  t_outermost = nullptr;
  if (m_status.service && m_status.code != CallStatus::Code::kNotBound) {
    const LinkRecord& link = LinkBoard::instance().record(*m_status.service);
    m_status.epoch = link.epoch();
    m_status.link = link.state();
  }
  if (CallStatus* last = last_call()) *last = std::move(m_status);
}

void CallRecord::fail(CallStatus::Code code, std::string text, int error) {
  if (!t_outermost || !t_outermost->m_status) return;
  CallStatus& status = t_outermost->m_status;
  status.code = code;
  status.error = error;
  status.text = std::move(text);
}

void CallRecord::fail_unbound(const Link& link) {
  if (!t_outermost || !t_outermost->m_status) return;
  const std::string cause = *link.cause == '\0' ? "" : std::string(": ") + link.cause;
  fail(CallStatus::Code::kNotBound, "the service is not bound (" + std::string(nameOf(link.state)) + cause + ")");
  t_outermost->m_status.link = link.state;
  t_outermost->m_status.epoch = link.epoch;
}

void CallRecord::fail_with(int error) {
  if (!t_outermost || !t_outermost->m_status) return;
  const CallStatus::Code code = code_of(error);
  fail(code, text_of(code, error), error);
}

void CallRecord::take_back(const char* text) {
  if (!t_outermost || t_outermost->m_status.text != text) return;
  CallStatus& status = t_outermost->m_status;
  status.code = CallStatus::Code::kOk;
  status.error = 0;
  status.text = "ok";
}

CallStatus CallRecord::last() {
  const CallStatus* const last = last_call();
  return last ? *last : CallStatus();
}

UserCode::UserCode() : m_outer(std::exchange(t_outermost, nullptr)) {
  if (CallStatus* last = last_call()) m_last = std::exchange(*last, {});
}

UserCode::~UserCode() {
  t_outermost = m_outer;
  if (CallStatus* last = last_call()) *last = std::move(m_last);
}

}  // namespace orvel::service_apis

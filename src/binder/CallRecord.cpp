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
thread_local CallRecord::Outcome t_last;
thread_local bool t_text_is_gone = false;

// The text of t_last, if that is a failure. A thread may call the client in the destructor of a thread-local object of
// its own, when this one is gone: then the text is that of the code.
struct LastText {
  std::string text;
  ~LastText() { t_text_is_gone = true; }
};

std::string* last_text() {
  thread_local LastText last;
  return t_text_is_gone ? nullptr : &last.text;
}

void set_last(const CallRecord::Outcome& outcome, std::string&& text) {
  t_last = outcome;
  if (outcome.code == CallStatus::Code::kOk) return;
  if (std::string* last = last_text()) *last = std::move(text);
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

// What only failures run, and what asks for them, is cold: compiled for size and out of the way of calls that succeed.
[[gnu::cold]] std::string text_of(CallStatus::Code code, int error) {
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
  constexpr std::array<const char*, 10> kNames = {
      "ok",        "not initialised", "not bound",        "died",  "timed out", "exception",
      "cut reply", "refused",         "invalid argument", "failed"};
  return kNames.at(static_cast<std::size_t>(code));
}

CallStatus lastCall() {
  return CallRecord::last();
}

CallRecord::CallRecord(const char* method, std::optional<Service> service) : m_outer(t_outermost) {
  if (m_outer) return;
  m_outcome.method = method;
  m_outcome.service = service;
  t_outermost = this;
}

CallRecord::~CallRecord() {
  if (m_outer) return;
  t_outermost = nullptr;
  if (m_outcome.service && m_outcome.code != CallStatus::Code::kNotBound) {
    const LinkRecord& link = LinkBoard::instance().record(*m_outcome.service);
    m_outcome.epoch = link.epoch();
    m_outcome.link = link.state();
  }
  set_last(m_outcome, std::move(m_text));
}

[[gnu::cold]] void CallRecord::fail(CallStatus::Code code, std::string text, int error) {
  if (!t_outermost || t_outermost->m_outcome.code != CallStatus::Code::kOk) return;
  t_outermost->m_outcome.code = code;
  t_outermost->m_outcome.error = error;
  t_outermost->m_text = std::move(text);
}

[[gnu::cold]] void CallRecord::fail_unbound(const LinkRecord& link) {
  if (!t_outermost || t_outermost->m_outcome.code != CallStatus::Code::kOk) return;
  const Link now = link.get();
  const std::string cause = *now.cause == '\0' ? "" : std::string(": ") + now.cause;
  fail(CallStatus::Code::kNotBound, "the service is not bound (" + std::string(nameOf(now.state)) + cause + ")");
  t_outermost->m_outcome.link = now.state;
  t_outermost->m_outcome.epoch = now.epoch;
}

[[gnu::cold]] void CallRecord::fail_with(int error) {
  const CallStatus::Code code = code_of(error);
  fail(code, text_of(code, error), error);
}

[[gnu::cold]] void CallRecord::take_back(const char* text) {
  if (!t_outermost || t_outermost->m_text != text) return;
  t_outermost->m_outcome.code = CallStatus::Code::kOk;
  t_outermost->m_outcome.error = 0;
}

[[gnu::cold]] CallStatus CallRecord::last() {
  CallStatus status;
  status.code = t_last.code;
  status.service = t_last.service;
  status.method = t_last.method;
  status.error = t_last.error;
  status.epoch = t_last.epoch;
  status.link = t_last.link;
  if (status) return status;
  const std::string* const text = last_text();
  status.text = text ? *text : nameOf(status.code);
  return status;
}

UserCode::UserCode() : m_outer(std::exchange(t_outermost, nullptr)), m_last(std::exchange(t_last, {})) {
  if (m_last.code == CallStatus::Code::kOk) return;
  if (std::string* text = last_text()) m_last_text = std::move(*text);
}

UserCode::~UserCode() {
  t_outermost = m_outer;
  set_last(m_last, std::move(m_last_text));
}

}  // namespace orvel::service_apis

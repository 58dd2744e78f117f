// Why the call of a public method failed.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "orvel/CallStatus.h"
#include "orvel/Service.h"

namespace orvel::service_apis {

class LinkRecord;

// Keeps the status of one call of a public method, from its entry to its exit, where it becomes its thread's last call.
// On the stack of that call. A public method that calls another is one call: the outermost record counts.
class CallRecord {
 public:
  // `method` lives as long as the process.
  explicit CallRecord(const char* method, std::optional<Service> service = std::nullopt);
  ~CallRecord();
  CallRecord(const CallRecord&) = delete;
  CallRecord& operator=(const CallRecord&) = delete;

  // Notes a failure for the call that this thread is in, unless one is noted; does nothing outside of calls. An empty
  // text stands for that of the error code.
  static void fail(CallStatus::Code code, std::string text, int error = 0);

  // The same, with the link that the service had then.
  static void fail_unbound(const LinkRecord& link);

  // The same for a call to a service that libvesk has failed with `error`.
  static void fail_with(int error);

  // Takes back the note with that text.
  static void take_back(const char* text);

  // The last call of this thread.
  static CallStatus last();

  // A status but for its text, so that a call that succeeds writes a few words and no more.
  struct Outcome {
    const char* method = "";
    std::uint64_t epoch = 0;
    int error = 0;
    CallStatus::Code code = CallStatus::Code::kOk;
    LinkState link = LinkState::kStopped;
    std::optional<Service> service;
  };

 private:
  Outcome m_outcome;
  std::string m_text;  // of a failure
  CallRecord* const m_outer;
};

// While one exists, its thread runs code of a user, whose calls are not those of the call around it.
class UserCode {
 public:
  UserCode();
  ~UserCode();
  UserCode(const UserCode&) = delete;
  UserCode& operator=(const UserCode&) = delete;

 private:
  CallRecord* const m_outer;
  const CallRecord::Outcome m_last;
  std::string m_last_text;  // of a failure
};

}  // namespace orvel::service_apis

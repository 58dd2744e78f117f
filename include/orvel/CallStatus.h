/// @file
/// Why a call failed.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <type_traits>
#include <utility>

#include "orvel/Export.h"
#include "orvel/Links.h"
#include "orvel/Service.h"

namespace orvel::service_apis {

/// What became of a call of a public method. A plain value.
struct CallStatus {
  /// The kinds of failure.
  enum class Code : std::uint8_t {
    kOk,               ///< the service has answered, or none was needed: the result counts, an empty one too
    kNotInitialised,   ///< the client is not initialised, or shutdown() has ended the call
    kNotBound,         ///< the service is not there, and was not asked; `link` says how the client stands with it
    kDied,             ///< the service died before it answered; it may have carried the call out
    kTimedOut,         ///< the service did not answer in time; it may carry the call out yet
    kException,        ///< the service answered with an exception, whose code is `error`
    kCutReply,         ///< the answer ended too early
    kRefused,          ///< the method must not be called here, such as in the connectivity callback
    kInvalidArgument,  ///< an argument cannot be sent, or the value of a setting is not what the method returns
    kFailed,           ///< all else; `error` is the message library's, a negated errno value
  };

  Code code = Code::kOk;                 ///< the kind; the first failure of a method that makes several calls
  std::optional<Service> service;        ///< the service that the method asks; none for a method that asks none
  const char* method = "";               ///< the public method; empty before the first call
  int error = 0;                         ///< the code of the exception or of the message library; 0 for neither
  std::string text = "ok";               ///< the reason as a person reads it, the exception's own text; never empty
  std::uint64_t epoch = 0;               ///< the service's newest connection, as in Link
  LinkState link = LinkState::kStopped;  ///< how the client stood with the service

  /// True when the call has succeeded.
  explicit operator bool() const { return code == Code::kOk; }
};

/// The word for a kind, "timed out".
ORVEL_API const char* nameOf(CallStatus::Code code);

/// The status of the last call that this thread made of a public method of the client. A callback has a status of its
/// own, which begins as ok: what it calls does not change that of the code around it. state() and the ends of
/// subscriptions leave it alone. Threads: any, each with its own.
ORVEL_API CallStatus lastCall();

/// A result and why it is what it is.
template <typename Value>
struct Checked {
  Value value;        ///< what the call returned
  CallStatus status;  ///< of the last call of the client that it made

  /// True when the call has succeeded.
  explicit operator bool() const { return static_cast<bool>(status); }
};

/// Makes a call and returns its result with its status:
///
///     if (const auto name = checked([&] { return client.getDeviceName(); })) show(name.value);
template <typename Call, std::enable_if_t<!std::is_void_v<std::invoke_result_t<Call>>, int> = 0>
[[nodiscard]] Checked<std::invoke_result_t<Call>> checked(Call&& call) {
  return {std::forward<Call>(call)(), lastCall()};  // braces: from left to right
}

/// The same for a call without a result: its status.
template <typename Call, std::enable_if_t<std::is_void_v<std::invoke_result_t<Call>>, int> = 0>
[[nodiscard]] CallStatus checked(Call&& call) {
  std::forward<Call>(call)();
  return lastCall();
}

}  // namespace orvel::service_apis

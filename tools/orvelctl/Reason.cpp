#include "Reason.h"

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <sstream>

#include "tools/cli/DeviceDirectory.h"

namespace orvelctl {
namespace {

using orvel::cli::isWorkstation;
using orvel::service_apis::CallStatus;
using Code = CallStatus::Code;

ExitStatus exitStatusOf(Code code) {
  switch (code) {
    case Code::kNotBound:
    case Code::kDied:
      return kNotBound;
    case Code::kTimedOut:
      return kTimedOut;
    default:
      return kFailed;
  }
}

// The library does not say how long its limit is; in tenths of a second, which a busy machine does not blur.
std::string timeOf(Seconds lasted) {
  std::ostringstream text;
  text << std::max(1.0, std::round(lasted.count() * 10)) / 10 << " s";
  return text.str();
}

std::string reasonOf(const CallStatus& status, Seconds lasted) {
  const std::string name = nameOf(status.code);
  const std::string asked = status.service ? std::string(" (") + boundName(*status.service) + ")" : "";
  switch (status.code) {
    case Code::kNotBound:
      return name + ": " + nameOf(status.link) + asked;
    case Code::kDied:
      return name + asked;
    case Code::kTimedOut:
      return name + " after " + timeOf(lasted) + asked;
    case Code::kException:
      return name + " " + std::to_string(status.error) + ": " + status.text;
    case Code::kCutReply:
      return name + asked;
    case Code::kFailed:  // "the call failed: ..."
      return status.text + (status.error == -EMSGSIZE && isWorkstation() ? "; a message has at most 8 MiB" : "");
    default:
      return name + ": " + status.text;
  }
}

}  // namespace

Failure failureOf(const std::string& what, const CallStatus& status, Seconds lasted) {
  Failure failure{exitStatusOf(status.code), what + ": " + reasonOf(status, lasted), what};
  if (status.service) failure.service = boundName(*status.service);
  failure.reason = wordOf(nameOf(status.code));
  failure.code = status.error;
  return failure;
}

Failure refusalOf(const std::string& what, std::optional<Service> service) {
  Failure failure{kFailed, what + ": refused: the service declined", what, service ? boundName(*service) : ""};
  failure.reason = wordOf(nameOf(Code::kRefused));
  return failure;
}

}  // namespace orvelctl

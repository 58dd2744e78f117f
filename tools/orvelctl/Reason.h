// Why a call failed, in words for people and for programs.
#pragma once

#include <optional>
#include <string>

#include "Session.h"
#include "orvel/CallStatus.h"

namespace orvelctl {

// A call that failed while `what` was done; it took `lasted`.
Failure failureOf(const std::string& what, const orvel::service_apis::CallStatus& status, Seconds lasted);

// The failure of a call to which the service has answered no.
Failure refusalOf(const std::string& what, std::optional<Service> service);

}  // namespace orvelctl

// The entries of the traffic: what clients asked of the services, and what services told their clients.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <string>

#include "sim/Wire.h"

namespace orvel::sim {

using Clock = std::chrono::steady_clock;

// How many go into one message; each has tens of kilobytes at most.
constexpr std::size_t kEntriesAtOnce = 50;

// What every entry says; how it ended is for the caller to add. `kind` is the key of the name: "method" for a call by a
// client, "notification" for a call of a client.
Json trafficEntry(const std::string& service, const char* kind, const Json& name, unsigned code, pid_t client,
                  const Json& arguments);

// The value, or the beginning of its text where that is long: one entry must not keep megabytes.
Json shortened(const Json& value);

// "12:30:01.250", in local time.
std::string clockTime(std::int64_t millisecondsSince1970);

double millisecondsSince(Clock::time_point start);

// "12:30:01.250  delegate.getSecureSetting(key: "volume") = "7"  0.1 ms, process 123"
// "12:30:01.250  delegate -> settingChanged(key: "volume", value: "7")  0.2 ms, process 123"
std::string describeEntry(const Json& entry);

}  // namespace orvel::sim

// The entries of the traffic: what clients asked of the services, and what services told their clients.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <string>

#include "device/Timer.h"
#include "device/Wire.h"

namespace orvel::sim {

// How many go into one message; each has tens of kilobytes at most, once it is shortened.
constexpr std::size_t kEntriesAtOnce = 50;

// The name of the program that a process runs; empty where that is not known, or the process has ended.
std::string programOf(pid_t process);

// What every entry says, whole; how it ended is for the caller to add. `kind` is the key of the name: "method" for a
// call by a client, "notification" for a call of a client. `moment` is what the host said of its beginning
// (Host::moment).
Json trafficEntry(const std::string& service, const char* kind, const Json& name, unsigned code, pid_t client,
                  const Json& arguments, const Json& moment);

// The value, or the beginning of its text where that is long: one entry must not keep megabytes.
Json shortened(const Json& value);

// Shortens what an entry may hold of any length, unless that was done before; its "shortened" then lists what.
void shortenEntry(Json& entry);

// Texts that are too long for one message travel in pieces: where the one ends that begins at `begin`. However a piece
// is written into a message, there is room for it.
std::size_t pieceEnd(const std::string& text, std::size_t begin);

// "(key: "volume", value: "7")"
std::string describeArguments(const Json& arguments);

// "12:30:01.250", in local time.
std::string clockTime(std::int64_t millisecondsSince1970);

// By the wall clock.
std::int64_t millisecondsSince1970();

double millisecondsSince(Clock::time_point start);

// "delegate.getSecureSetting", and of a notification "delegate -> settingChanged".
std::string describeName(const Json& entry);

// How it ended: "= \"7\"", "fails with EPIPE (Broken pipe)"; empty for a notification that was delivered.
std::string describeResult(const Json& entry);

// The faults that have changed it: "by error on *, by delay on getDeviceName"; empty where there were none.
std::string describeFaults(const Json& entry);

// Both, with a comma between them.
std::string describeOutcome(const Json& entry);

// "process 123 (status-line)"
std::string describeProcess(pid_t process);

// "1,151"
std::string withCommas(std::uint64_t number);

// "1 entry", "1,151 entries"
std::string countedEntries(std::uint64_t number);

}  // namespace orvel::sim

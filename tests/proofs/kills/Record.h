// What clients and the device say of a run, in records. A client's reach the loop as lines, each a flat JSON object.
//
//   by a client (`who` is the service where there is one)
//     begin id value        how many times faster its library's clock runs, and the number of its process
//     call id who key       a call begins, by name; numbers count calls and registrations together
//     register id who key   a registration begins, for what the device calls `key`; once for each key that it has
//     return id ok          a call or registration returns; ok where the service answered, or took it
//     unregister id         a registration is about to be taken back
//     unregistered id       and has been
//     notice id key value   a registration is told something
//     result id value       the status of the event that the call sent
//     died, bound, rebound, gaveup who      as the library's log says
//     link who key value ok the link to service `who` was told to be `key`; `value` is its epoch and the numbers of
//                           registrations held, restored and refused; ok where it says that the network was lost
//     obeyed id             all is registered for, and that many orders are carried out
//     ending                the client begins to stop: what it is still owed then may stay out
//
//   of the device, between `t` and `until`
//     kill who id           service `who`, which was process `id`, was killed
//     act who key value ok  all that registered for `key` with service `who` were told; ok where the device obeyed
//     refused who key value the same, but the device says that a client's queue was full
//     made who key id value ok    client process `value` registered with process `id`; ok unless the service refused
//
// Times are microseconds of the machine's steady clock, which all processes share.
#pragma once

#include <chrono>
#include <cstdint>
#include <nlohmann/json.hpp>
#include <string>

namespace orvel::kills {

using Time = std::int64_t;  // microseconds
constexpr Time kMillisecond = 1000;
constexpr Time kSecond = 1000 * kMillisecond;

struct Record {
  Time t = 0;
  std::string what;
  std::string who = {};
  std::string key = {};
  std::string value = {};
  std::int64_t id = 0;
  bool ok = false;
  Time until = 0;
};

NLOHMANN_DEFINE_TYPE_NON_INTRUSIVE_WITH_DEFAULT(Record, t, what, who, key, value, id, ok, until)

inline Time now() {
  const auto time = std::chrono::steady_clock::now().time_since_epoch();
  return std::chrono::duration_cast<std::chrono::microseconds>(time).count();
}

// How runs are set up.
constexpr Time kCallLimit = kSecond;             // of the clients' calls
constexpr Time kEventDelay = 40 * kMillisecond;  // from an event's arrival to its status

// What clients register for, in the words of the wire.
constexpr char kDelegate[] = "orvel_delegate";
constexpr char kConnectivity[] = "com.quarlo.orvel.androidconnectivitymanager";
constexpr char kCoordinator[] = "orvel-service-coordinator-public";
constexpr char kEvents[] = "com.quarlo.orvel.orvelsim.orvelsimeventclient";
constexpr char kNetwork[] = "network";
constexpr char kSetting[] = "setting:";      // and its name
constexpr char kDirective[] = "directive:";  // and the client's name, which is its namespace too

}  // namespace orvel::kills

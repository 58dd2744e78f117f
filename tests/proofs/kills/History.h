// What clients and the device have written down of a run: one record a line, each a flat JSON object in which
// empty fields may be left out.
//
//   by a client (`who` is the service where there is one; the file is the client's)
//     begin id key value    the call limit in milliseconds, the number of the process, and how many times faster the
//                           library's clock runs
//     call id who key       a call begins, by name; numbers count calls and registrations together
//     register id who key   a registration begins, for what the device calls `key`; once for each key that it has
//     return id ok          a call or registration returns; ok where the service answered, or took it
//     unregister id         a registration is about to be taken back
//     unregistered id       and has been
//     notice id value       a registration is told something
//     result id value       the status of the event that the call sent
//     died, bound, rebound, gaveup who      as the library's log says
//     ready                 every registration has been made once
//     ending, end           the client stops, and has stopped: what it is still owed then may stay out
//
//   of the device
//     limits value          milliseconds from an event's arrival to its status
//     kill who id           service `who`, which is process `id`, is about to be killed
//     killed who id         and has been
//     act id who key value  an order to tell all that registered for `key` with service `who` begins
//     done id ok value      and was obeyed; else "refused" where the device says that it reached no client, or an error
//     made who key id value ok    client process `value` registered with process `id`; ok unless the service refused
//     frozen, thawed who    a client stops running, and goes on
//
// Times are microseconds of the machine's steady clock, which all processes share. Records are in the order of their
// times.
#pragma once

#include <chrono>
#include <cstdint>
#include <fstream>
#include <nlohmann/json.hpp>
#include <stdexcept>
#include <string>
#include <vector>

namespace orvel::kills {

struct Record {
  std::int64_t t = 0;
  std::string what;
  std::string who = {};
  std::string key = {};
  std::string value = {};
  std::int64_t id = 0;
  bool ok = false;
};

NLOHMANN_DEFINE_TYPE_NON_INTRUSIVE_WITH_DEFAULT(Record, t, what, who, key, value, id, ok)

// Microseconds of the steady clock.
inline std::int64_t now() {
  const auto time = std::chrono::steady_clock::now().time_since_epoch();
  return std::chrono::duration_cast<std::chrono::microseconds>(time).count();
}

// One line without its end. The reader throws nlohmann::json::exception for what is not a record.
inline std::string lineOf(const Record& record) {
  return nlohmann::json(record).dump();
}
inline Record readRecord(const std::string& line) {
  return nlohmann::json::parse(line).get<Record>();
}

// Throws as readRecord does, and std::runtime_error that names a file which cannot be read.
inline std::vector<Record> readHistory(const std::string& file) {
  std::ifstream lines(file);
  std::vector<Record> records;
  for (std::string line; std::getline(lines, line);) records.push_back(readRecord(line));
  if (!lines.eof()) throw std::runtime_error("cannot read " + file);
  return records;
}

// What clients register for, in the words of the wire.
constexpr char kDelegate[] = "orvel_delegate";
constexpr char kConnectivity[] = "com.quarlo.orvel.androidconnectivitymanager";
constexpr char kCoordinator[] = "orvel-service-coordinator-public";
constexpr char kEvents[] = "com.quarlo.orvel.orvelsim.orvelsimeventclient";
constexpr char kPower[] = "com.quarlo.orvel.powermanager";
constexpr char kNetwork[] = "network";
constexpr char kSetting[] = "setting:";      // and its name
constexpr char kDirective[] = "directive:";  // and a namespace
constexpr int kNamespaces = 3;               // of each client
inline std::string namespaceOf(const std::string& client, int number) {
  return client + "-" + std::to_string(number);
}

}  // namespace orvel::kills

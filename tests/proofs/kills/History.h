// What clients and the device have written down of a run: one record a line, each a flat JSON object.
//
//   by a client (`who` is the service where there is one; the file is the client's)
//     begin id value        the call limit in milliseconds, and how many times faster the library's clock runs
//     call id who key       a synchronous call begins, by name
//     return id ok          and returns; ok where the service answered
//     register id who key   a registration begins, for what the device calls `key`; once for each key that it has
//     registered id ok      and returns
//     unregister id         a registration is about to be taken back
//     unregistered id       and has been
//     notice id value       a registration is told something
//     send id               an event begins to be sent
//     sent id ok            and is taken or not
//     result id value       the event's status
//     died, bound, rebound, gaveup who      as the library's log says
//     ending, end           the client stops, and has stopped: what it is still owed then may stay out
//
//   of the device
//     limits value          milliseconds from an event's arrival to its status
//     kill who id           service `who`, which is process `id`, is about to be killed
//     killed who id         and has been
//     act id who key value  an order to tell whoever registered for `key` with service `who` begins
//     done id ok value      and was obeyed; else "refused" where the device says that nobody was told, or an error
//     made who key id value ok    a client (`value`) registered with process `id`; ok unless the service refused
//     undelivered key value id text   a client (`who`) was not told: the negated errno value `id` says why
//     settled               what was due has arrived everywhere
//     frozen, thawed who    a client stops running, and goes on
//
// Times are microseconds of the machine's steady clock, which all processes share. Records are in the order of their times.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace orvel::kills {

struct Record {
  std::int64_t t = 0;
  std::string what;
  std::string who;
  std::string key;
  std::string value;
  std::int64_t id = 0;
  bool ok = false;
};

// Microseconds of the steady clock.
std::int64_t now();

// One line without its end. The reader throws nlohmann::json::exception for what is no record.
std::string lineOf(const Record& record);
Record readRecord(const std::string& line);

// Throws std::runtime_error that names the file and the line.
std::vector<Record> readHistory(const std::string& file);

}  // namespace orvel::kills

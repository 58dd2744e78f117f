// Judges a run by what a client and the device have written down, and by nothing else.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "History.h"

namespace orvel::kills {

struct History {
  std::vector<Record> device;
  std::string name;  // of the client
  std::vector<Record> client;
};

// How often each rule was put to the test.
struct Counts {
  std::int64_t calls = 0;
  std::int64_t owed = 0;      // notices that had to arrive
  std::int64_t open = 0;      // that a death left open
  std::int64_t withheld = 0;  // that must not arrive
  std::int64_t events = 0;
  std::int64_t replays = 0;  // complete ones, after a death of the delegate service
  // What may look like a loss and is none.
  std::int64_t givenUp = 0;      // services that stayed away too long
  std::int64_t refused = 0;      // replays refused, and made on the next connection
  std::int64_t notRestored = 0;  // notices that no network callback was there for any more
  std::int64_t deadEvents = 0;   // events whose service died before their status
  std::int64_t undelivered = 0;  // notices that the device says it has refused or given up on
};

struct Findings {
  Counts counts;
  std::vector<std::string> complaints;  // each with the client, the registration or call, and what is wrong
};

// Asserts:
//  - a call returns once, and at most a second after its limit
//  - a registration is told everything it is owed, once, in order, and nothing else. It is owed what the device was told to
//    tell while the registration was in force: between its being made with a process of the service and that process's
//    death. What was being told at the moment of the death, or being registered, is left open
//  - each registration with the delegate service is made once with each process that the client is bound to, settings
//    first, in the order in which they were first made; one that is refused is made again with the next process only
//  - a network callback is never made again by itself
//  - a service is given up on when it has been away for 300 s, and nothing comes of it from then on
//  - an event that is taken has one status, and none when its service died first
Findings check(const History& history);

}  // namespace orvel::kills

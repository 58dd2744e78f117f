// Judges a run by what its clients and its device have said, and by nothing else.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "Record.h"

namespace orvel::kills {

// How often each rule was put to the test, and what it found.
struct Findings {
  // "calls", "events", "replays" (complete ones, after a death of the delegate service), "links" (brought up again);
  // notices that were "owed", left "open" by a death, or "withheld"; and what may look like a loss and is not one:
  // "given up" (services that stayed away too long), "refused replays" (made on the next connection), "not restored"
  // (notices that came when the network callback was gone), "dead events" (whose service died before their status),
  // "refused notices" (by the device).
  std::map<std::string, std::int64_t> counts;
  std::vector<std::string> complaints;  // each with the client, what is wrong, and about which registration or call
};

// Takes the device's records, and those of each client by its name in the order in which it wrote them. Complains of a
// registration once, because the rest may follow from it. Asserts:
//  - a call returns once, and at most a second after its limit
//  - a registration is told everything it is owed, once, in order, and nothing else. It is owed what the device was
//    told to tell while the registration was in force: between its being made with a process of the service and that
//    process's death. What was being told at the moment of the death, or being registered, is left open
//  - each registration with the delegate service is made once with each process that the client is bound to, settings
//    first, in the order in which they were first made; one that is refused is made again with the next process only
//  - a network callback is never made again by itself
//  - a service is given up on when it has been away for 300 s, and nothing comes of it from then on
//  - a link is up, away, and up again in the next epoch, or given up; it is away for each death and for nothing else,
//    comes up before what the new process tells, and has the numbers of registrations that the device has. It says
//    that the network was lost when the connectivity service died with a registration in force
//  - an event that is taken has one status, and none when its service died first
Findings check(std::vector<Record> device, const std::map<std::string, std::vector<Record>>& clients);

}  // namespace orvel::kills

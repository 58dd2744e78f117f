// What people and clients do to packages and processes, or to a whole section. An act changes several values at once,
// by what the others are at that moment; so it is worked out where the scenario is kept, where two at once do not undo
// each other and clients never see half of one.
#pragma once

#include <chrono>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "device/Wire.h"

namespace orvel::sim {

// How the platform grades a process: the lower, the longer it is kept.
enum Importance : int { kForeground = 100, kForegroundService = 125, kService = 300, kCached = 400 };

// An act as a change of the scenario: {"act": verb, "name": of what it is for, "values": of its fields}.
//
//   install      a package; its uid is the next free one
//   replace      a package; its version code goes up by one
//   remove       a package; the processes that list it end too
//   start        a process; its package is the one that it is named after, and its uid that of its package
//   stop         a process
//   foreground   a process becomes the focused one; the one that was loses the focus and is cached
//   openPackage  the package's process becomes the focused one
//   servePackage the package's process has the "importance" given, or a greater one
//   set          a section of the scenario; several of its fields at once
//   fault        a section: the fault "key" of its "method", or of every one that has it; it becomes "value", for
//                "only", and ends without one
//   flap         a section: its service dies and comes back by itself; without values that ends, and it runs
//   flapOnce     a section: the death or the return of its service; after the last return it flaps no more
//   live         a section: its service is "alive" from now on, or dead, and flaps no more
//
// Values that are given go before what an act finds itself. openPackage and servePackage start the process if there is
// none, and do nothing for a package that is not installed.
Json makeAct(const char* verb, const std::string& name, const Json& values = Json::object());

// The fields of the scenario that an act looks at and changes, by section. Throws std::runtime_error for an act that
// does not exist.
using FieldsOfSections = std::vector<std::pair<std::string, std::vector<std::string>>>;
FieldsOfSections fieldsOf(const Json& act);

// Changes those fields of the scenario, which may lack all others. Throws std::runtime_error when something exists that
// must not, or does not exist that must.
void perform(Json& scenario, const Json& act);

// From one death or return of a service to the next; nothing for one that does not flap.
std::optional<std::chrono::milliseconds> flapInterval(const Json& section);

}  // namespace orvel::sim

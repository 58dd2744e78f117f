// What the verbs of orvel-sim share: messages to the device in the runtime directory, and output. Threads: one.
#pragma once

#include <string>

#include "device/Wire.h"

namespace orvel::sim {

// Throws when it cannot be written.
void print(const std::string& line);

// The answer to a question without arguments. This and the others throw as Control does.
Json ask(const char* question);

// A change of the scenario, of one value or an act.
void sendChange(const Json& change);

// The answer of a service to something that happens, or to a question.
Json sendEvent(const char* service, const Json& event);

// Sends a broadcast that no change has caused, and prints how many receivers got it.
void sendBroadcast(const Json& intent);

}  // namespace orvel::sim

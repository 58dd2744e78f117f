// What the verbs of orvel-sim share: orders to the device in the runtime directory, and output. Threads: one.
#pragma once

#include <string>

#include "device/Wire.h"

namespace orvel::sim {

// Throws when it cannot be written.
void print(const std::string& line);

// The answer to an order without arguments. All orders throw as Control does.
Json order(const char* name);

// A change of the scenario, of one value or an act.
void orderChange(const Json& change);

// Something for a service: what happens, or a question. Gives its answer.
Json orderEvent(const char* service, const Json& event);

// Sends a broadcast that is not the news of a change, and prints how many got it.
void orderBroadcast(const Json& intent);

}  // namespace orvel::sim

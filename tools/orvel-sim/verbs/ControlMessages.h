// What the verbs of orvel-sim share: messages to the device in the runtime directory, and output. Threads: one.
#pragma once

#include <string>

#include "device/Wire.h"
#include "tools/orvel-sim/host/Control.h"

namespace orvel::sim {

// Throws when it cannot be written.
void print(const std::string& line);

// Whether the command line asks for JSON, wherever in it; said before its verb runs.
void setJson(bool json);
bool isJson();

// Prints what a verb has done: as JSON where that is asked for, else in words, if there are any.
void printDone(const Json& done, const std::string& words = {});

// The device in the runtime directory, over one connection of this process. Throws as Control::connect.
Control& device();

// The answer to a question without arguments. This and the others throw as Control does.
Json ask(const char* question);

// A change of the scenario, of one value or an act. As JSON, it is printed.
void sendChange(const Json& change);

// The answer of a service to something that happens, or to a question.
Json sendEvent(const char* service, const Json& event);

// Sends a broadcast that no change has caused, and prints how many receivers got it.
void sendBroadcast(const Json& intent);

}  // namespace orvel::sim

// One run, from choices to verdict.
#pragma once

#include <string>

#include "Choices.h"
#include "Program.h"

namespace orvel::fuzz {

// Runs the program that `choices` decide and holds it against the model. Empty when all is as promised, else what is
// not, with all that led there. With `lines` the trace has the log lines of every level. One at a time.
std::string run(Choices& choices, Trace& trace, bool lines);

// A trace as text, up to the event `end`.
std::string shown(const Trace& trace, std::size_t end);

}  // namespace orvel::fuzz

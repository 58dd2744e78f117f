// What a caller of the client is promised, as a plain sequential account of one run.
#pragma once

#include <string>

#include "Trace.h"

namespace orvel::test::simulation {

// Goes through a trace: takes over what the run decided, and says in advance all that the client does. `pause` is how
// long a client waits after a death before it binds again, in seconds; `maro` whether the assistant was connected
// before. Returns what is left at the end, as describe_end(); throws std::runtime_error with what was not as promised.
std::string model_end(const Trace& trace, int pause, bool maro);

}  // namespace orvel::test::simulation

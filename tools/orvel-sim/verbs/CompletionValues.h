// Completion values that the argument declarations do not list: the names of the services, and what the device in the
// runtime directory holds at the moment.
#pragma once

#include <string>
#include <vector>

#include "device/Wire.h"
#include "tools/cli/Completion.h"

namespace orvel::sim {

// What completes the arguments of orvel-sim whose values their description does not list.
cli::Values completions();

// Answers `orvel-sim --complete-values LINE WORDBREAKS HEAD KIND [WORD...]`, of which `words` are those behind the
// first: writes the values of the kind, each behind HEAD, as far as they complete the end of LINE. The WORDs are what
// stands before the value in its own list: "set delegate" expects another value than "set". Gives the exit status: 1
// says that the names of files are welcome too. Without a device there are the values that need none; so there are for
// one that does not answer, but this call never returns then, because the process is ended (tools/cli/Completion.h).
int completeValues(const std::vector<std::string>& words);

// The next words of a way into a scenario, as `set` has it: "delegate", "settings", a key; or the values that are
// possible at its end, where they are few. Empty where anything may stand.
std::vector<std::string> nextWords(const Json& scenario, const std::vector<std::string>& way);

}  // namespace orvel::sim

// Shows the library's log on standard error.
#pragma once

#include <string>

namespace orvelctl {

// Takes the log over: lines of at least `level` (an Android log priority) are shown. Unless it is to be `whole`,
// without those that name a service that is not followed: the client looks for all services, whatever is asked.
void watchLog(int level, bool whole);

// From now on lines that name the service are shown.
void followService(const std::string& name);

}  // namespace orvelctl

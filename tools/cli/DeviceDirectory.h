// Where a workstation's IPC library looks for a device, told apart further than its one line does. The public headers
// say nothing of this; the rule is that of docs/architecture.md.
#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

namespace orvel::cli {

struct DeviceDirectory {
  std::string path;
  std::string chosenBy;  // "ORVEL_RUNTIME_DIR", "XDG_RUNTIME_DIR", or "neither ... nor ..."
};

// Whether the runtime in use is a workstation's, to which all of this applies.
bool isWorkstation();

// The one that counts.
DeviceDirectory deviceDirectory();

// The one where ORVEL_RUNTIME_DIR is not set.
DeviceDirectory usualDirectory();

// Whether a device lives in the directory; false also for one that this user may not look into.
bool deviceLivesIn(const std::string& directory);

// What is wrong, and a command that helps. Both are empty when nothing is.
struct Problem {
  std::string what;
  std::string advice;
};

// What keeps this user from a device in the directory: it cannot be used, or no device lives there.
Problem deviceProblem(const std::string& directory);

// That problem in one line, with the advice: "no device in DIRECTORY: it does not exist; start one: orvel-sim run".
std::string noDevice(const std::string& directory, const Problem& problem);

// What keeps this user from using the directory, whether or not a device lives there.
Problem directoryProblem(const std::string& directory);

// The other directories of this user in which a device lives.
std::vector<std::string> otherDevices(const std::string& directory);

// Returns the process that serves the service `name`, or 0 when no process does. The name consists of letters, digits,
// '-', '_' and inner '.'.
pid_t serverOf(const std::string& directory, const std::string& name);

// Whether a process is stopped, as by SIGSTOP or a debugger.
bool isStopped(pid_t process);

}  // namespace orvel::cli

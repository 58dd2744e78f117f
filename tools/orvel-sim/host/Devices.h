// The devices of this user: where they live, by which names, and which of them run.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <string>
#include <vector>

namespace orvel::sim {

// A device that runs.
struct FoundDevice {
  std::string directory;
  std::string name;  // empty: it was started without one
  pid_t pid;
  std::int64_t sinceMs;  // since 1970
};

// Those that run, the oldest first. Looks at the processes of this user and asks none of them.
std::vector<FoundDevice> runningDevices();

// The runtime directory of the device with that name. Throws ScenarioError for what is no name: letters, digits, '-',
// '_' and inner '.'.
std::string directoryOfName(const std::string& name);

// From now on, this process and those that it starts use the device in that directory, or with that name. A word with a
// slash is a directory.
void chooseDevice(const std::string& word);

// The options by which orvel-sim, in a shell that says nothing of a device, finds the one in that directory: none, or
// -d and its name or its directory.
std::vector<std::string> optionsFor(const std::string& directory);

// The folder for the directories of devices with names, made for this user alone. Throws std::runtime_error.
void makeFolderOfNames();

// What keeps a device from being served in the directory, as far as it can be known before; empty for nothing.
std::string servingProblem(const std::string& directory);

}  // namespace orvel::sim

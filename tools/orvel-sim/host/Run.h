// The programs behind `orvel-sim run`: the device, and the process of one isolated service.
#pragma once

#include <sys/types.h>

#include <memory>
#include <string>
#include <vector>

#include "device/Wire.h"

namespace orvel::sim {

class Replay;

struct RunOptions {
  Json scenario;
  bool isolate = false;
  // Answers in place of the services, which are not isolated then; null: the services answer.
  std::shared_ptr<Replay> replay;
  std::vector<std::string> command;  // empty: serve until interrupted
};

// Serves a device in the runtime directory, or runs the command with a device of its own; returns the exit status.
// Throws std::exception for what keeps the device from starting.
int runDevice(const RunOptions& options);

// Serves one service of the device that `parent` is, until that ends.
int serveAlone(const std::string& name, pid_t parent);

}  // namespace orvel::sim

// The programs behind `orvel-sim run`: the device, and the process of one isolated service.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <memory>
#include <optional>
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
  std::vector<std::string> command;    // empty: serve until interrupted
  std::string name{};                  // of the device; empty: none
  std::vector<std::string> without{};  // services that it does not have
  int readyFd = -1;                    // is told when the services can be found, then closed; -1: none
  bool json = false;                   // what is told, and where the device is served
  std::optional<std::uint16_t> web;    // the port of a page; 0: any that is free; nothing: there is no page
};

// Serves a device in the runtime directory or in that of its name, or runs the command with a device of its own;
// returns the exit status.
// Throws std::exception for what keeps the device from starting.
int runDevice(const RunOptions& options);

// Serves one service of the device that `parent` is, until that ends.
int serveAlone(const std::string& name, pid_t parent);

}  // namespace orvel::sim

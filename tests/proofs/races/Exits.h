// Every way in which a process may end under a running client.
#pragma once

#include <array>

#include "races/RandomDevice.h"

namespace orvel::races {

struct Exit {
  const char* name;
  // Ends the process with kExitStatus. The device lives as long as the process; the client was not created yet.
  void (*end)(RandomDevice& device);
};
constexpr int kExitStatus = 3;

extern const std::array<Exit, 8> kExits;

}  // namespace orvel::races

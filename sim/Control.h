// Giving orders to the device that lives in the runtime directory.
#pragma once

#include <stdexcept>

#include "sim/Wire.h"

namespace orvel::sim {

// No device lives in the runtime directory, or it ended. The text is empty where vesk has said so already.
struct NoDevice : std::runtime_error {
  using std::runtime_error::runtime_error;
};

// A connection to the supervisor. Any thread, one at a time.
class Control {
 public:
  // Of a process that is no device itself. Throws NoDevice.
  static Control connect();
  // Of a process that has a runtime. Throws NoDevice.
  explicit Control(void* runtime);
  Control(Control&& other) noexcept;
  ~Control();

  // Sends one order and gives its answer; `endpoint` goes along unless it is null. Throws NoDevice when the device dies
  // and std::runtime_error when it refuses the order.
  Json send(const Json& order, vesk_endpoint* endpoint = nullptr);

 private:
  void* m_runtime;
  vesk_handle m_handle{};
};

}  // namespace orvel::sim

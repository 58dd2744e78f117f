// The connection of orvel-sim's verbs to the device that lives in the runtime directory.
#pragma once

#include <chrono>
#include <stdexcept>

#include "device/Wire.h"
#include "tools/cli/Alarm.h"

namespace orvel::sim {

// The name under which the supervisor takes messages. A device is a runtime directory in which a process serves it.
constexpr char kControlName[] = "orvel-sim-control";

// No device lives in the runtime directory, or it ended. The text is empty where vesk has said so already.
struct NoDevice : std::runtime_error {
  using std::runtime_error::runtime_error;
};

// The device did not answer in time.
struct TimedOut : std::runtime_error {
  using std::runtime_error::runtime_error;
};

// While there is one, the messages of this process fail once its time is over: those in progress and all later ones.
// One in a process.
class TimeLimit {
 public:
  explicit TimeLimit(std::chrono::duration<double> limit);

 private:
  cli::Alarm m_alarm;
};

// A connection to the supervisor. Any thread, one at a time.
class Control {
 public:
  // Of a process that is not a device itself. Throws NoDevice and TimedOut.
  static Control connect();
  // Of a process that has a runtime. Throws NoDevice.
  explicit Control(void* runtime);
  Control(Control&& other) noexcept;
  ~Control();

  // The answer to one message, which has the key "order"; `endpoint` goes along unless it is null. Throws NoDevice when
  // the device dies, TimedOut when it does not answer, and std::runtime_error when it refuses.
  Json send(const Json& message, vesk_endpoint* endpoint = nullptr);

 private:
  void* m_runtime;
  vesk_handle m_handle{};
};

}  // namespace orvel::sim

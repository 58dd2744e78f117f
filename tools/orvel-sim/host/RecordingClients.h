// The programs that record the traffic, as the device sees them.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <utility>

#include "device/Runner.h"
#include "device/Timer.h"
#include "device/Wire.h"

namespace orvel::sim {

// Keeps for each recorder what it has not fetched yet, as JSON lines. A process records once at a time. Run-loop
// thread.
class RecordingClients {
 public:
  // `idle` is told whenever the last one goes.
  RecordingClients(void* runtime, std::function<void()> idle) : m_runtime(runtime), m_idle(std::move(idle)) {}
  ~RecordingClients() { stop(); }
  RecordingClients(const RecordingClients&) = delete;  // its address is what vesk knows it by
  RecordingClients& operator=(const RecordingClients&) = delete;

  bool empty() const { return m_recordingClients.empty(); }

  // Until the process that `endpoint` belongs to is gone.
  void add(RemotePtr endpoint);

  // Whole entries, and what happens between them, in order. One for which there is no room is left out; its
  // number is then missing.
  void record(const Json& entry);
  void recordFor(pid_t recorder, const Json& entry);

  // Answers with {"text": the lines that come next}, cut anywhere; empty when there are none, after waiting for some if
  // `wait` says so. Throws std::runtime_error for a process that does not record.
  void fetch(pid_t recorder, bool wait, const Answer& answer);

  // The device ends.
  void stop();

 private:
  struct Recorder {
    RemotePtr endpoint;
    std::deque<std::string> lines;
    std::size_t begin = 0;  // of what was not fetched of the first
    std::size_t bytes = 0;
    std::size_t mostBytes = 0;  // there ever were
    Answer waiting;             // null while the recorder does not wait
    std::unique_ptr<Timer> patience;
  };

  static void record(Recorder& recorder, const std::string& line);
  static void giveTo(Recorder& recorder, const Answer& answer);
  void remove(const vesk_remote* endpoint);

  void* m_runtime;
  std::function<void()> m_idle;
  std::map<pid_t, Recorder> m_recordingClients;
};

}  // namespace orvel::sim

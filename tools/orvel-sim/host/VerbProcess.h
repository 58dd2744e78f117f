// A verb of the command line, run as a process on this device for the page: the page can do nothing else.
#pragma once

#include <sys/types.h>

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "device/Timer.h"
#include "device/Wire.h"
#include "tools/orvel-sim/host/EventSource.h"
#include "tools/orvel-sim/host/Process.h"

namespace orvel::sim {

// What keeps the page from running `orvel-sim WORDS`: verbs that serve, that read or write files, or that do not end by
// themselves. Empty where nothing does.
std::string whyNotForPage(const std::vector<std::string>& words);

// Run-loop thread. Destroying it ends the process.
class VerbProcess {
 public:
  // {"status", "out", "err"}; what is too long of the texts is cut off, and said so.
  using Ended = std::function<void(const Json& result)>;

  // `ended` may destroy this. Throws std::system_error.
  VerbProcess(void* runtime, const std::vector<std::string>& words, Ended ended);
  ~VerbProcess();
  VerbProcess(const VerbProcess&) = delete;
  VerbProcess& operator=(const VerbProcess&) = delete;

 private:
  // What the process writes to one of its standard streams.
  class Output {
   public:
    Output();
    ~Output();
    Output(const Output&) = delete;
    Output& operator=(const Output&) = delete;

    int writeEnd() const { return m_writeEnd; }
    void watch(sd_event* event);  // the process has its own copy of the write end
    const std::string& text();    // with what is still in the pipe

   private:
    void read();

    int m_readEnd = -1;
    int m_writeEnd = -1;
    std::string m_text;
    bool m_isCut = false;
    SourcePtr m_source;
  };

  void processEnded(const siginfo_t& end);
  void giveUp();

  Output m_output;
  Output m_errors;
  Ended m_ended;
  bool m_isLate = false;
  std::unique_ptr<Process> m_process;
  std::unique_ptr<Timer> m_patience;
};

}  // namespace orvel::sim

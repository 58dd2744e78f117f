// A process under attack: started, watched and ended by the one who attacks it.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <string>
#include <utility>
#include <vector>

#include "vesk/host/Support.h"

namespace orvel::hostile {

class Process {
 public:
  // Runs `arguments` with `environment` added to this process's own. Standard error goes to `log`.
  Process(const std::vector<std::string>& arguments,
          const std::vector<std::pair<std::string, std::string>>& environment, const std::string& log);
  ~Process();  // kills it unless it has ended
  Process(const Process&) = delete;
  Process& operator=(const Process&) = delete;

  [[nodiscard]] pid_t pid() const { return m_pid; }
  bool is_alive();

  // One line of its standard output; empty at its end or after the limit.
  std::string read_line(int limit_ms);
  void write_line(const std::string& line) const;

  // Sends SIGTERM and gives the exit status, 128 + N when signal N ended it, -1 when it does not end within the limit.
  int terminate(int limit_ms);

  [[nodiscard]] std::size_t descriptors() const;
  [[nodiscard]] long resident_kb() const { return status_kb("VmRSS:"); }
  [[nodiscard]] long peak_kb() const { return status_kb("VmHWM:"); }
  void reset_peak() const;  // the highest use counts from now on

 private:
  [[nodiscard]] long status_kb(const char* key) const;
  void take_status(int status);

  pid_t m_pid = 0;
  int m_status = -1;  // once it has ended
  bool m_ended = false;
  vesk::UniqueFd m_input, m_output;
  std::string m_pending;
};

}  // namespace orvel::hostile

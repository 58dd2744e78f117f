// Processes that the loop has started.
#pragma once

#include <sys/types.h>

#include <csignal>
#include <cstdint>
#include <string>
#include <utility>
#include <vector>

namespace orvel::kills {

// Closes a descriptor at the end.
class Descriptor {
 public:
  explicit Descriptor(int number = -1) : m_number(number) {}
  ~Descriptor() { reset(); }
  Descriptor(Descriptor&& other) noexcept : m_number(std::exchange(other.m_number, -1)) {}
  Descriptor& operator=(Descriptor&& other) noexcept {
    reset();
    m_number = std::exchange(other.m_number, -1);
    return *this;
  }

  int get() const { return m_number; }
  void reset();

 private:
  int m_number;
};

// One process, with pipes as its standard input and output; its errors go to a file. It is sent a signal when this process
// ends, however that happens. Start it on the main thread: with the thread that did, it would end too.
class Child {
 public:
  // Throws std::system_error.
  Child(const std::vector<std::string>& words, const std::string& errors, int deathSignal);
  ~Child();  // kills it
  Child(const Child&) = delete;
  Child& operator=(const Child&) = delete;

  pid_t pid() const { return m_pid; }
  int output() const { return m_output.get(); }
  void write(const std::string& line) const;
  void closeInput() { m_input.reset(); }
  void signal(int number) const { kill(m_pid, number); }

  // The status of waitpid, once the process has ended. May be called again.
  int wait();
  // Whether it has ended; then wait() does not block.
  bool ended();

 private:
  pid_t m_pid = 0;
  bool m_reaped = false;
  int m_status = 0;
  Descriptor m_input;
  Descriptor m_output;
};

// What a process holds at a moment.
struct Usage {
  std::int64_t kilobytes = 0;  // resident
  std::int64_t threads = 0;
  std::int64_t descriptors = 0;
};
Usage usageOf(pid_t pid);

// Sends a signal to a process whose parent is `parent`, and to no other that has its number by now. False when it is gone.
bool signalChildOf(pid_t parent, pid_t pid, int number);

}  // namespace orvel::kills

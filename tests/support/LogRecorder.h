// What the library writes to the Android log.
#pragma once

#include <string>
#include <vector>

namespace orvel::test {

// Takes the place of the process's log writer as long as it lives. One at a time; lines may come from any thread.
class LogRecorder {
 public:
  // Lines of the module that the test is about stand without their tag.
  explicit LogRecorder(std::string module);
  ~LogRecorder();
  LogRecorder(const LogRecorder&) = delete;
  LogRecorder& operator=(const LogRecorder&) = delete;

  // The lines since the last call as "level text", with the whole tag in between when it is not the module's. `levels`
  // selects.
  std::vector<std::string> take(const std::string& levels = "VDIWE");
};

}  // namespace orvel::test

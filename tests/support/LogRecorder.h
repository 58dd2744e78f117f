// What the library writes to the Android log.
#pragma once

#include <android/log.h>

#include <mutex>
#include <string>
#include <utility>
#include <vector>

namespace orvel::test {

// Has the library format every line, and drops them all.
inline void discard_log() {
  __android_log_set_minimum_priority(ANDROID_LOG_VERBOSE);
  __android_log_set_logger([](const __android_logger_data*, const char*) {});
}

// Takes the place of the process's log writer as long as it lives. One at a time; lines may come from any thread.
class LogRecorder {
 public:
  // Lines of the module that the test is about stand without their tag.
  explicit LogRecorder(const std::string& module) {
    s_tag = "OrvelDelegateClient:" + module;
    s_lines.clear();
    __android_log_set_minimum_priority(ANDROID_LOG_VERBOSE);
    __android_log_set_logger(record);
  }
  ~LogRecorder() { __android_log_set_logger(__android_log_stderr_logger); }
  LogRecorder(const LogRecorder&) = delete;
  LogRecorder& operator=(const LogRecorder&) = delete;

  // The lines since the last call as "level text", with the whole tag in between when it is not the module's. `levels`
  // selects.
  std::vector<std::string> take(const std::string& levels = "VDIWE") {
    const std::lock_guard<std::mutex> lock(s_mutex);
    std::vector<std::string> lines;
    for (std::string& line : std::exchange(s_lines, {})) {
      if (levels.find(line[0]) != std::string::npos) lines.push_back(std::move(line));
    }
    return lines;
  }

 private:
  static void record(const __android_logger_data* data, const char* message) {
    const std::lock_guard<std::mutex> lock(s_mutex);
    const std::string tag = data->tag == s_tag ? "" : std::string(data->tag) + " ";
    s_lines.push_back(std::string(1, "..VDIWEFS"[data->priority]) + " " + tag + message);
  }

  inline static std::mutex s_mutex;  // guards the lines
  inline static std::string s_tag;
  inline static std::vector<std::string> s_lines;
};

}  // namespace orvel::test

#include "support/LogRecorder.h"

#include <android/log.h>

#include <mutex>
#include <utility>

namespace orvel::test {
namespace {

std::mutex g_mutex;
std::string g_tag;
std::vector<std::string> g_lines;

void record(const __android_logger_data* data, const char* message) {
  const std::lock_guard<std::mutex> lock(g_mutex);
  const std::string tag = data->tag == g_tag ? "" : std::string(data->tag) + " ";
  g_lines.push_back(std::string(1, "..VDIWEFS"[data->priority]) + " " + tag + message);
}

}  // namespace

LogRecorder::LogRecorder(std::string module) {
  g_tag = "OrvelDelegateClient:" + std::move(module);
  g_lines.clear();
  __android_log_set_minimum_priority(ANDROID_LOG_VERBOSE);
  __android_log_set_logger(record);
}

LogRecorder::~LogRecorder() {
  __android_log_set_logger(__android_log_stderr_logger);
}

std::vector<std::string> LogRecorder::take(const std::string& levels) {
  const std::lock_guard<std::mutex> lock(g_mutex);
  std::vector<std::string> lines;
  for (std::string& line : std::exchange(g_lines, {})) {
    if (levels.find(line[0]) != std::string::npos) lines.push_back(std::move(line));
  }
  return lines;
}

}  // namespace orvel::test

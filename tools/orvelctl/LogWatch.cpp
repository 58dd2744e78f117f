#include "LogWatch.h"

#include <android/log.h>

#include <algorithm>
#include <cstdio>
#include <mutex>
#include <set>
#include <string_view>

#include "Services.h"

namespace orvelctl {
namespace {

struct LogState {
  int level = ANDROID_LOG_WARN;  // set, as `whole`, before there is a second thread
  bool whole = true;
  std::mutex mutex;  // guards what follows
  std::set<std::string, std::less<>> followed;
};

// Never destroyed: the library logs while the process exits.
LogState& state() {
  static LogState& instance = *new LogState;
  return instance;
}

// Whether it is about a service that is not asked.
bool isForeign(std::string_view message) {
  const std::lock_guard<std::mutex> lock(state().mutex);
  const auto& services = orvel::service_apis::kAllServices;
  return std::any_of(services.begin(), services.end(), [&](Service service) {
    const char* const name = boundName(service);
    return message.find(name) != std::string_view::npos && state().followed.count(name) == 0;
  });
}

void take(const __android_logger_data* line, const char* text) {
  if (line->priority < state().level) return;
  const std::string_view message(text);
  // The IPC library has said the one already, and the failed call says the other, both better.
  for (const char* said : {":Failed to get VESK runtime", ":Not all required services are up"}) {
    if (message.find(said) != std::string_view::npos) return;
  }
  if (!state().whole && isForeign(message)) return;
  constexpr std::string_view kLetters = "??VDIWEF";
  const auto letter = static_cast<std::size_t>(std::clamp(line->priority, 0, static_cast<int>(ANDROID_LOG_FATAL)));
  std::fprintf(stderr, "%c %s: %s\n", kLetters[letter], line->tag, text);
}

}  // namespace

void watchLog(int level, bool whole) {
  state().level = level;
  state().whole = whole;
  __android_log_set_minimum_priority(level);
  __android_log_set_logger(take);
}

void followService(const std::string& name) {
  const std::lock_guard<std::mutex> lock(state().mutex);
  state().followed.insert(name);
}

}  // namespace orvelctl

#include "LogWatch.h"

#include <android/log.h>
#include <sys/eventfd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <map>
#include <mutex>
#include <optional>
#include <set>
#include <string_view>
#include <utility>

namespace orvelctl {
namespace {

struct Watch {
  int level = ANDROID_LOG_WARN;  // set before there is a second thread
  const int lost = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
  std::mutex mutex;  // guards what follows
  bool no_device = false;
  std::set<std::string, std::less<>> unbound;
  std::map<std::string, unsigned, std::less<>> losses;
  std::set<std::string, std::less<>> awaited;
};

// Never destroyed: the library logs while the process exits.
Watch& watch() {
  static Watch& instance = *new Watch;
  return instance;
}

thread_local bool t_error = false;
thread_local bool t_timed_out = false;
thread_local bool t_died = false;

// What stands between the two texts, when the message has them.
std::optional<std::string> nameIn(std::string_view message, std::string_view before, std::string_view after) {
  if (message.substr(0, before.size()) != before) return std::nullopt;
  message.remove_prefix(before.size());
  const std::size_t end = after.empty() ? message.size() : message.find(after);
  if (end == std::string_view::npos) return std::nullopt;
  return std::string(message.substr(0, end));
}

// Learns how the connections stand. The texts are part of the library's interface.
void learn(std::string_view message) {
  Watch& known = watch();
  const std::lock_guard<std::mutex> lock(known.mutex);
  if (const auto bound = nameIn(message, "bind_to_service:Bound to service: ", "")) known.unbound.erase(*bound);
  for (const auto& [before, after] : {std::pair("on_binder_died:Service (", ") has died"),
                                      std::pair("bind_to_service:Failed to register death callback, service (", ")"),
                                      std::pair("bind_to_service:Giving up connecting to service (", ")")}) {
    if (const auto lost = nameIn(message, before, after)) {
      known.unbound.insert(*lost);
      ++known.losses[*lost];
      eventfd_write(known.lost, 1);
    }
  }
  if (const auto slow = nameIn(message, "bind_to_orvel_service:Service ", " is not ready yet")) {
    if (known.awaited.insert(*slow).second) {
      std::fprintf(stderr, "orvelctl: waiting for service %s; Ctrl-C gives up\n", slow->c_str());
    }
  }
}

void take(const __android_logger_data* line, const char* text) {
  const std::string_view message(text);
  if (line->priority >= ANDROID_LOG_ERROR) t_error = true;
  if (const auto error = nameIn(message, "call:VESK call failed with error ", "")) {
    t_timed_out = t_timed_out || *error == std::to_string(-ETIMEDOUT);
    t_died = t_died || *error == std::to_string(-EPIPE) || *error == std::to_string(-ECONNRESET);
  }
  learn(message);
  if (nameIn(message, "initialize:Failed to get VESK runtime", "")) {
    const std::lock_guard<std::mutex> lock(watch().mutex);
    watch().no_device = true;
    return;  // told already, and better, by the IPC library
  }
  if (line->priority < watch().level) return;
  constexpr std::string_view kLetters = "??VDIWEF";
  const auto letter = static_cast<std::size_t>(std::clamp(line->priority, 0, static_cast<int>(ANDROID_LOG_FATAL)));
  std::fprintf(stderr, "%c %s: %s\n", kLetters[letter], line->tag, text);
}

}  // namespace

void watchLog(int level) {
  watch().level = level;
  // The lines that tell how connections stand go down to this level.
  __android_log_set_minimum_priority(std::min<int>(level, ANDROID_LOG_INFO));
  __android_log_set_logger(take);
}

bool saidNoDevice() {
  const std::lock_guard<std::mutex> lock(watch().mutex);
  return watch().no_device;
}

bool isUnbound(const std::string& service) {
  const std::lock_guard<std::mutex> lock(watch().mutex);
  return watch().unbound.count(service) != 0;
}

unsigned lossesOf(const std::string& service) {
  const std::lock_guard<std::mutex> lock(watch().mutex);
  const auto found = watch().losses.find(service);
  return found == watch().losses.end() ? 0 : found->second;
}

int losses() {
  return watch().lost;
}

CallLog::CallLog() {
  t_error = false;
  t_timed_out = false;
  t_died = false;
}

bool CallLog::hasError() const {
  return t_error;
}
bool CallLog::hasTimedOut() const {
  return t_timed_out;
}
bool CallLog::hasMetDeath() const {
  return t_died;
}

}  // namespace orvelctl

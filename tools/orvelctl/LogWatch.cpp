#include "LogWatch.h"

#include <android/log.h>

#include <algorithm>
#include <cstddef>
#include <cstdio>
#include <string_view>

#include "tools/cli/Text.h"

namespace orvelctl {
namespace {

void take(const __android_logger_data* line, const char* text) {
  constexpr std::string_view kLetters = "??VDIWEF";
  const auto letter = static_cast<std::size_t>(std::clamp(line->priority, 0, static_cast<int>(ANDROID_LOG_FATAL)));
  std::fprintf(stderr, "%c %s: %s\n", kLetters[letter], line->tag, orvel::cli::printable(text).c_str());
}

}  // namespace

void watchLog(int level) {
  __android_log_set_minimum_priority(level);
  __android_log_set_logger(take);
}

}  // namespace orvelctl

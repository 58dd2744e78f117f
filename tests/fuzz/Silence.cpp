// Every damaged message makes the library log.
#include <android/log.h>

namespace {

[[maybe_unused]] const int kSilent = (__android_log_set_minimum_priority(ANDROID_LOG_SILENT), 0);

}  // namespace

#include "parcel/StringUtils.h"

#include <utils/String8.h>

#include "binder/OrvelLogger.h"

namespace orvel::service_apis {
namespace {

// Unused so far: every text converts to something.
[[maybe_unused]] const OrvelLogger s_logger("StringUtils");

}  // namespace

std::string StringUtils::convertUtf16ToUtf8(const unsigned short* data, unsigned int length) {
  if (!data || length == 0) return {};
  return android::String8(reinterpret_cast<const char16_t*>(data), length).c_str();
}

}  // namespace orvel::service_apis

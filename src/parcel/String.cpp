#include "parcel/String.h"

#include "binder/OrvelLogger.h"
#include "parcel/Int32.h"
#include "parcel/StringUtils.h"

namespace orvel::service_apis {
namespace {

// Unused so far: a null string and a damaged one both read as empty, and neither is an error here.
[[maybe_unused]] const OrvelLogger s_logger("String");

constexpr int kNullString = -1;

// The code units of the next string, borrowed; null for a null buffer, a null string and a failed read.
const unsigned short* read_units(vesk_buffer* buffer, unsigned int* length) {
  if (!buffer) return nullptr;
  const unsigned short* const units = vesk_read_utf16_string(buffer, length);
  return vesk_buffer_last_error(buffer) == 0 ? units : nullptr;
}

}  // namespace

std::string String::read(vesk_buffer* buffer) {
  unsigned int length = 0;
  const unsigned short* const units = read_units(buffer, &length);
  return StringUtils::convertUtf16ToUtf8(units, length);
}

void String::skip(vesk_buffer* buffer) {
  unsigned int length = 0;
  read_units(buffer, &length);
}

bool String::write(vesk_payload* payload, const char* value) {
  vesk_write_utf16_cstring(payload, value);
  return vesk_payload_last_error(payload) == 0;
}

bool String::write(vesk_payload* payload, const std::string& value) {
  return write(payload, value.c_str());
}

bool String::write_optional(vesk_payload* payload, const char* value) {
  return value && *value ? write(payload, value) : Int32::write(payload, kNullString);
}

bool String::write_optional(vesk_payload* payload, const std::string& value) {
  return value.empty() ? Int32::write(payload, kNullString) : write(payload, value);
}

}  // namespace orvel::service_apis

#include "parcel/StringArray.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>

#include "parcel/String.h"

namespace orvel::service_apis {
namespace {

// Bounds what a corrupt or hostile length can cost.
constexpr std::int32_t kMaxStrings = 1000;

template <typename Text>
bool write_all(vesk_payload* payload, const std::vector<Text>& values) {
  vesk_write_array_length(payload, static_cast<std::int32_t>(values.size()));
  for (const Text& value : values) String::write(payload, value);
  return vesk_payload_last_error(payload) == 0;
}

}  // namespace

std::vector<std::string> StringArray::read(vesk_buffer* buffer) {
  if (!buffer) return {};
  const std::int32_t count = std::clamp(vesk_read_array_length(buffer), 0, kMaxStrings);
  std::vector<std::string> values(static_cast<std::size_t>(count));
  for (std::string& value : values) value = String::read(buffer);
  return values;
}

bool StringArray::write(vesk_payload* payload, const std::vector<const char*>& values) {
  return write_all(payload, values);
}

bool StringArray::write(vesk_payload* payload, const std::vector<std::string>& values) {
  return write_all(payload, values);
}

}  // namespace orvel::service_apis

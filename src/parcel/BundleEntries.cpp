#include "parcel/BundleEntries.h"

#include <utility>

#include "parcel/Int32.h"
#include "parcel/Int64.h"
#include "parcel/String.h"

namespace orvel::service_apis {
namespace {

// Keeps the first value of a key, unless the end of the buffer has cut it.
template <typename Value>
void keep(vesk_buffer* buffer, BundleMap<Value>& map, std::string key, Value value) {
  if (vesk_buffer_last_error(buffer) == 0) map.emplace(std::move(key), std::move(value));
}

template <typename Value, typename Write>
void write_all(vesk_payload* payload, const BundleMap<Value>& map, ValueTag tag, Write write) {
  for (const auto& [key, value] : map) {
    String::write(payload, key);
    Int32::write(payload, tag);
    write(payload, value);
  }
}

}  // namespace

void read_entries(vesk_buffer* buffer, int count, BundleMap<std::int32_t>& integers, BundleMap<std::int64_t>* longs,
                  BundleMap<std::string>& strings) {
  for (; count > 0 && vesk_buffer_last_error(buffer) == 0; --count) {
    std::string key = String::read(buffer);
    const int tag = Int32::read(buffer);
    if (tag == kStringTag) {
      keep(buffer, strings, std::move(key), String::read(buffer));
    } else if (tag == kIntegerTag || tag == kBooleanTag) {
      keep(buffer, integers, std::move(key), Int32::read(buffer));
    } else if (tag == kLongTag && longs) {
      long long value = 0;
      Int64::read(buffer, &value);
      keep(buffer, *longs, std::move(key), std::int64_t{value});
    } else if (tag != kNullTag) {
      return;  // The length of an unknown type's value is not on the wire, so reading stops here.
    }
  }
}

void write_entries(vesk_payload* payload, const BundleMap<std::int32_t>& integers) {
  write_all(payload, integers, kIntegerTag, Int32::write);
}

void write_entries(vesk_payload* payload, const BundleMap<std::int64_t>& longs) {
  write_all(payload, longs, kLongTag, Int64::write);
}

void write_entries(vesk_payload* payload, const BundleMap<std::string>& strings) {
  write_all(payload, strings, kStringTag,
            [](vesk_payload* into, const std::string& value) { String::write(into, value); });
}

}  // namespace orvel::service_apis

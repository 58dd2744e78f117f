// Reads and writes the entries of both kinds of bundle.
#pragma once

#include <cstdint>
#include <string>
#include <unordered_map>
#include <utility>

#include "vesk/vesk.h"

namespace orvel::service_apis {

// The platform's codes for the type of a value.
enum ValueTag : int {
  kNullTag = -1,
  kStringTag = 0,
  kIntegerTag = 1,
  kLongTag = 6,
  kBooleanTag = 9,
};

template <typename Value>
using BundleMap = std::unordered_map<std::string, Value>;

// Reads up to `count` entries into the map of their type; `longs` is null for a bundle without long integers, to which
// they are of an unknown type. Reading ends at an unknown type, and at the end of the buffer: an entry that it cuts is
// dropped.
void read_entries(vesk_buffer* buffer, int count, BundleMap<std::int32_t>& integers, BundleMap<std::int64_t>* longs,
                  BundleMap<std::string>& strings);

// Write the entries of one map, in the order in which the map holds them.
void write_entries(vesk_payload* payload, const BundleMap<std::int32_t>& integers);
void write_entries(vesk_payload* payload, const BundleMap<std::int64_t>& longs);
void write_entries(vesk_payload* payload, const BundleMap<std::string>& strings);

template <typename Value>
Value value_or(const BundleMap<Value>& map, const std::string& key, Value default_value) {
  const auto found = map.find(key);
  return found == map.end() ? std::move(default_value) : found->second;
}

}  // namespace orvel::service_apis

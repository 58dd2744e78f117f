// Arrays of records on the wire.
#pragma once

#include <algorithm>
#include <cstddef>
#include <memory>
#include <utility>
#include <vector>

#include "parcel/Int32.h"

namespace orvel::service_apis {

template <typename Record>
class RecordArray {
 public:
  using Records = std::vector<std::unique_ptr<Record>>;

  RecordArray() = delete;

  // True when the announced number of records was appended; a number below 1 announces none. False for a null buffer,
  // and when the buffer ends before all records have begun, with those read so far appended. A record that is absent is
  // passed over and does not count.
  static bool read(vesk_buffer* buffer, Records& records) {
    if (!buffer) return false;
    int count = std::max(Int32::read(buffer), 0);
    records.reserve(records.size() + static_cast<std::size_t>(std::min(count, kMaxReserved)));
    for (; count > 0; --count) {
      auto record = std::make_unique<Record>();
      // Each round consumes at least one word, so the data bound the loop, not the announced count.
      while (!Record::read(buffer, *record)) {
        if (vesk_buffer_last_error(buffer) != 0) return false;
      }
      records.push_back(std::move(record));
    }
    return true;
  }

  // The library never sends these: writes nothing, returns false.
  static bool write(vesk_payload* /*payload*/, const Records& /*records*/) { return false; }

 private:
  // Bounds what a corrupt or hostile number can cost.
  static constexpr int kMaxReserved = 64;
};

}  // namespace orvel::service_apis

// Records that are sent with their length in front.
#pragma once

#include <memory>

#include "parcel/Int32.h"
#include "vesk/vesk.h"

namespace orvel::service_apis {

// Writes such a record: once into a scratch payload to learn its length, then into `payload`, so that the length word
// is never patched. True when both lengths agree; false on failure and for a null payload. `write` takes a payload and
// the length to announce, and returns the length that it wrote, 0 when a write failed.
template <typename Write>
bool write_measured(vesk_payload* payload, const Write& write) {
  if (!payload) return false;
  int length = 0;
  {
    const std::unique_ptr<vesk_payload, decltype(&vesk_payload_free)> scratch(vesk_payload_alloc(), vesk_payload_free);
    if (!scratch) return false;
    length = write(scratch.get(), 0);
  }
  const int written = write(payload, length);
  return written != 0 && written == length;
}

// The number of bytes between `start` and the position of the payload; 0 once a write has failed.
inline int written_since(vesk_payload* payload, unsigned int start) {
  return vesk_payload_last_error(payload) == 0 ? static_cast<int>(vesk_payload_get_position(payload) - start) : 0;
}

// Writes a record behind the mark that it is there and its length in bytes, which counts its own word and is filled in
// at the end. False when `write_members` returned false, which leaves the length 0, and for a null payload.
template <typename Write>
bool write_patched(vesk_payload* payload, const Write& write_members) {
  if (!payload) return false;
  Int32::write(payload, 1);
  const unsigned int start = vesk_payload_get_position(payload);
  Int32::write(payload, 0);
  if (!write_members()) return false;
  const unsigned int end = vesk_payload_get_position(payload);
  vesk_payload_set_position(payload, start);
  Int32::write(payload, static_cast<int>(end - start));
  vesk_payload_set_position(payload, end);
  return true;
}

}  // namespace orvel::service_apis

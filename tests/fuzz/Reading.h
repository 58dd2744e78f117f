// What the targets of the client library share: the bytes of an input as libvesk hands them over, and what must hold
// for everything that reads them.
#pragma once

#include <android/log.h>

#include "Fuzz.h"
#include "support/Vesk.h"

namespace orvel::fuzz {

// Every damaged message makes the library log.
[[maybe_unused]] inline const int kSilent = (__android_log_set_minimum_priority(ANDROID_LOG_SILENT), 0);

inline test::BufferPtr bufferOf(Input input) {
  return test::buffer_of({input.data, input.size});
}

// Calls `read` with the input, and once more with as much of it as was read: what lies behind a message is not its own.
template <typename Read>
void checkReading(Input input, const Read& read) {
  const test::BufferPtr whole = bufferOf(input);
  const std::uint64_t before = allocated();
  read(whole.get());
  require(allocated() - before <= allowedFor(input.size), "reading allocates a small multiple of what is read");
  if (vesk_buffer_last_error(whole.get()) == 0) {
    const test::BufferPtr part = bufferOf({input.data, input.size - vesk_buffer_remaining(whole.get())});
    read(part.get());
    require(vesk_buffer_last_error(part.get()) == 0 && vesk_buffer_remaining(part.get()) == 0,
            "the same bytes are read whatever follows them");
  } else {
    unsigned int length = 1;
    require(vesk_read_i32(whole.get()) == 0 && vesk_read_i64(whole.get()) == 0 &&
                vesk_read_array_length(whole.get()) == 0 && vesk_read_utf16_string(whole.get(), &length) == nullptr &&
                length == 0,
            "behind an error there is nothing");
  }
}

}  // namespace orvel::fuzz

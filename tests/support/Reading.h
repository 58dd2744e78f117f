// Tables of damages, and what a reader makes of them.
#pragma once

#include <gtest/gtest.h>

#include <cstddef>
#include <string>
#include <vector>

#include "support/Vesk.h"

namespace orvel::test {

// Gives what it has read as text.
using Reader = std::string (*)(vesk_buffer*);

struct Row {
  const char* fault;
  Bytes bytes;
  std::string value;
  std::size_t unread;  // bytes that the reader must leave
};

// `without_buffer` is what the reader makes of a null buffer.
inline void expect_reads(Reader read, const std::vector<Row>& rows, const std::string& without_buffer = {}) {
  for (const Row& row : rows) {
    const BufferPtr buffer = buffer_of(row.bytes);
    EXPECT_EQ(read(buffer.get()), row.value) << row.fault;
    EXPECT_EQ(vesk_buffer_remaining(buffer.get()), row.unread) << row.fault;
  }
  EXPECT_EQ(read(nullptr), without_buffer);
}

}  // namespace orvel::test

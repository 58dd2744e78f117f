// Tables of bytes, and what a reader of records makes of them.
#pragma once

#include <gtest/gtest.h>

#include <cstddef>
#include <string>
#include <utility>
#include <vector>

#include "support/Vesk.h"

namespace orvel::test {

struct RecordTest : ::testing::Test {
  InprocessVesk m_vesk;
};

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

// Reads a record that consists of these pieces, each with its text, cut after every byte: the pieces before the cut
// must be there, and no other.
inline void expect_cuts(Reader read, const std::vector<std::pair<Bytes, std::string>>& pieces) {
  Bytes whole;
  std::string expected;
  for (const auto& [bytes, value] : pieces) {
    for (std::size_t size = 0; size < bytes.size(); ++size) {
      EXPECT_EQ(read(buffer_of(Bytes(whole).append({bytes.data(), size})).get()), expected) << whole.size() + size;
    }
    whole.append(bytes);
    expected += value;
  }
  EXPECT_EQ(read(buffer_of(whole).get()), expected);
  EXPECT_EQ(read(nullptr), "");
}

// What a record writes between the words 9 and 8, because its length is its own and what follows must stand behind it.
template <typename Record>
Bytes written(const Record& record, bool good = true) {
  const PayloadPtr payload(vesk_payload_alloc());
  vesk_write_i32(payload.get(), 9);
  EXPECT_EQ(record.write(payload.get()), good);
  vesk_write_i32(payload.get(), 8);
  return bytes_of(payload.get());
}

}  // namespace orvel::test

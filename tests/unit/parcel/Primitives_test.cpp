// Integers, doubles, strings and their arrays, byte by byte.
#include <functional>

#include "parcel/Double.h"
#include "parcel/Int32.h"
#include "parcel/Int64.h"
#include "parcel/String.h"
#include "parcel/StringArray.h"
#include "support/ClientTest.h"
#include "support/RecordTables.h"

namespace orvel::test {
namespace {

using namespace service_apis;  // NOLINT(google-build-using-namespace)

const Bytes kNull = Bytes().raw({0xff, 0xff, 0xff, 0xff});
const Bytes kEmpty = Bytes().raw({0, 0, 0, 0, 0, 0, 0, 0});
const Bytes kHi = Bytes().raw({2, 0, 0, 0, 'h', 0, 'i', 0, 0, 0, 0, 0});

TEST(Primitives, StringsReadAsTheirUtf8AndNoFurther) {
  std::vector<Row> rows = {
      {"a null string must read as empty", kNull, "", 4},
      {"an empty string is a length and an end", kEmpty, "", 4},
      {"text with padding", kHi, "hi", 4},
      {"text without padding", Bytes().raw({1, 0, 0, 0, 'h', 0, 0, 0}), "h", 4},
      {"a surrogate pair is one character", Bytes().utf16(u"\U0001F600\u00e9"), "\xf0\x9f\x98\x80\xc3\xa9", 4},
      {"text ends at U+0000", Bytes().utf16(std::u16string(u"ab\0cd", 5)), "ab", 4},
  };
  for (Row& row : rows) row.bytes.i32(77);
  expect_reads(String::read, rows);
  for (Row& row : rows) row.value = "";
  const auto skip = [](vesk_buffer* buffer) { return String::skip(buffer), std::string(); };
  expect_reads(skip, rows);

  expect_cuts(String::read, {{wire("'text'"), "text"}});
  for (const int length : {-2, 5, 0x7fffffff}) {
    EXPECT_EQ(String::read(buffer_of(Bytes().i32(length).i32(0)).get()), "") << length;
  }
  for (const char16_t bad : {u'\xd800', u'\xdbff', u'\xdc00', u'\xdfff'}) {
    const BufferPtr buffer = buffer_of(Bytes().utf16({bad, u'x'}).utf16({u'x', bad}).utf16("next"));
    EXPECT_EQ(String::read(buffer.get()).back(), 'x') << "an unpaired surrogate harms nothing around it";
    EXPECT_EQ(String::read(buffer.get())[0], 'x');
    EXPECT_EQ(String::read(buffer.get()), "next");
  }
}

TEST(Primitives, ArraysHaveTheirAnnouncedLengthUpToAThousand) {
  Bytes many = Bytes().i32(1500);
  for (int n = 1; n <= 1500; ++n) many.utf16(std::to_string(n));
  const BufferPtr buffer = buffer_of(many);
  EXPECT_EQ(StringArray::read(buffer.get()).back(), "1000");
  EXPECT_EQ(String::read(buffer.get()), "1001");

  EXPECT_EQ(StringArray::read(buffer_of(wire("2147483647")).get()), Lines(1000));
  EXPECT_EQ(StringArray::read(buffer_of(wire("5 'a' 'b'")).get()), (Lines{"a", "b", "", "", ""}));
  const Reader count = [](vesk_buffer* array) { return std::to_string(StringArray::read(array).size()); };
  expect_reads(count, {{"a null array", wire("~ 77"), "0", 4}, {"an empty one", wire("0 77"), "0", 4}}, "0");
}

TEST(Primitives, NullPointersReadAsNothingAndConsumeNothing) {
  long long integer = 5;
  double number = 5;
  EXPECT_EQ(Int32::read(nullptr), 0);
  EXPECT_FALSE(Int64::read(nullptr, &integer) || Double::read(nullptr, &number));
  EXPECT_TRUE(integer == 5 && number == 5);

  const BufferPtr buffer =
      buffer_of(Bytes().raw({0xfe, 255, 255, 255, 255, 255, 255, 255, 0, 0, 0, 0, 0, 0, 0xf8, 0x3f}));
  EXPECT_FALSE(Int64::read(buffer.get(), nullptr) || Double::read(buffer.get(), nullptr));
  EXPECT_TRUE(Int64::read(buffer.get(), &integer) && Double::read(buffer.get(), &number));
  EXPECT_TRUE(integer == -2 && number == 1.5);
}

TEST(Primitives, WritersPutDownExactlyTheirBytesAndReportErrors) {
  using Texts = std::vector<const char*>;
  const struct {
    std::function<bool(vesk_payload*)> write;
    Bytes bytes;
  } rows[] = {
      {[](auto* p) { return Int32::write(p, -2); }, Bytes().raw({0xfe, 0xff, 0xff, 0xff})},
      {[](auto* p) { return Int64::write(p, 500); }, Bytes().raw({0xf4, 1, 0, 0, 0, 0, 0, 0})},
      {[](auto* p) { return Double::write(p, 1.5); }, Bytes().raw({0, 0, 0, 0, 0, 0, 0xf8, 0x3f})},
      {[](auto* p) { return String::write(p, std::string()) && String::write(p, ""); }, Bytes(kEmpty).append(kEmpty)},
      {[](auto* p) { return String::write(p, std::string("hi")); }, kHi},
      {[](auto* p) { return String::write(p, "\u20AC\U0001F600\U0010FFFF"); },
       Bytes().raw({5, 0, 0, 0, 0xAC, 0x20, 0x3D, 0xD8, 0, 0xDE, 0xFF, 0xDB, 0xFF, 0xDF, 0, 0})},
      {[](auto* p) { return String::write(p, "\xFF\xC0z"); },
       Bytes().raw({3, 0, 0, 0, 0xFD, 0xFF, 0xFD, 0xFF, 'z', 0, 0, 0})},
      {[](auto* p) { return String::write_optional(p, nullptr); }, kNull},
      {[](auto* p) { return String::write_optional(p, ""); }, kNull},
      {[](auto* p) { return String::write_optional(p, std::string()); }, kNull},
      {[](auto* p) { return String::write_optional(p, std::string("hi")); }, kHi},
      {[](auto* p) { return String::write_optional(p, "hi"); }, kHi},
      {[](auto* p) { return StringArray::write(p, Lines()); }, Bytes().i32(0)},
      {[](auto* p) {
         return StringArray::write(p, Texts{"", "hi"});
       },
       Bytes().i32(2).append(kEmpty).append(kHi)},
  };
  for (const auto& row : rows) {
    const PayloadPtr payload(vesk_payload_alloc());
    EXPECT_TRUE(row.write(payload.get()));
    EXPECT_EQ(bytes_of(payload.get()), row.bytes);
    String::write(payload.get(), static_cast<const char*>(nullptr));
    EXPECT_FALSE(row.write(payload.get())) << "an earlier error must stick";
  }
}

}  // namespace
}  // namespace orvel::test

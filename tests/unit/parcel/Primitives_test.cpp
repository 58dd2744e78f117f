// Integers, doubles, strings and their arrays, byte by byte.
#include "parcel/Double.h"
#include "parcel/Int32.h"
#include "parcel/Int64.h"
#include "parcel/String.h"
#include "parcel/StringArray.h"
#include "support/ClientTest.h"

namespace orvel::test {
namespace {

using namespace service_apis;  // NOLINT(google-build-using-namespace)
using ::testing::Each;
using ::testing::ElementsAre;

TEST(Primitives, StringsReadAsTheirUtf8AndNoFurther) {
  const struct {
    const char* fault;
    Bytes bytes;
    std::string value;
  } rows[] = {
      {"a null string must read as empty", Bytes().raw({0xff, 0xff, 0xff, 0xff}), ""},
      {"an empty string is a length and an end", Bytes().raw({0, 0, 0, 0, 0, 0, 0, 0}), ""},
      {"text with padding", Bytes().raw({2, 0, 0, 0, 'h', 0, 'i', 0, 0, 0, 0, 0}), "hi"},
      {"text without padding", Bytes().raw({1, 0, 0, 0, 'h', 0, 0, 0}), "h"},
      {"a surrogate pair is one character", Bytes().utf16(u"\U0001F600\u00e9"), "\xf0\x9f\x98\x80\xc3\xa9"},
      {"text ends at U+0000", Bytes().utf16(std::u16string(u"ab\0cd", 5)), "ab"},
  };
  for (const auto& row : rows) {
    const BufferPtr buffer = buffer_of(Bytes(row.bytes).i32(77));
    EXPECT_EQ(String::read(buffer.get()), row.value) << row.fault;
    EXPECT_EQ(Int32::read(buffer.get()), 77) << row.fault;
  }
}

TEST(Primitives, UnpairedSurrogatesHarmNothingAroundThem) {
  for (const char16_t bad : {u'\xd800', u'\xdbff', u'\xdc00', u'\xdfff'}) {
    const BufferPtr buffer = buffer_of(Bytes().utf16({bad}).utf16({bad, u'x'}).utf16({u'x', bad}).utf16("next"));
    EXPECT_LE(String::read(buffer.get()).size(), 3U);
    EXPECT_NE(String::read(buffer.get()).find('x'), std::string::npos);
    EXPECT_EQ(String::read(buffer.get())[0], 'x');
    EXPECT_EQ(String::read(buffer.get()), "next");
  }
}

TEST(Primitives, DamagedStringsReadAsEmpty) {
  const Bytes whole = Bytes().utf16("text");
  for (std::size_t missing = 1; missing <= whole.size(); ++missing) {
    EXPECT_EQ(String::read(buffer_of(Bytes(whole).cut(missing)).get()), "") << missing << " bytes missing";
  }
  for (const std::int32_t length : {-2, 5, 0x7fffffff}) {
    EXPECT_EQ(String::read(buffer_of(Bytes().i32(length).i32(0)).get()), "") << length;
  }
}

TEST(Primitives, ArrayLengthsAreBounded) {
  Bytes many = Bytes().i32(1500);
  for (int n = 1; n <= 1500; ++n) many.utf16(std::to_string(n));
  const BufferPtr buffer = buffer_of(many);
  const Lines values = StringArray::read(buffer.get());
  ASSERT_EQ(values.size(), 1000U);
  EXPECT_EQ(values.back(), "1000");
  EXPECT_EQ(String::read(buffer.get()), "1001");

  const Lines hostile = StringArray::read(buffer_of(Bytes().i32(0x7fffffff)).get());
  EXPECT_EQ(hostile.size(), 1000U);
  EXPECT_THAT(hostile, Each(""));
  const Lines short_array = StringArray::read(buffer_of(Bytes().i32(5).utf16("a").utf16("b")).get());
  EXPECT_THAT(short_array, ElementsAre("a", "b", "", "", ""));

  const BufferPtr null_array = buffer_of(Bytes().null().i32(77));
  EXPECT_TRUE(StringArray::read(null_array.get()).empty());
  EXPECT_EQ(Int32::read(null_array.get()), 77);
}

TEST(Primitives, NullPointersReadAsNothingAndConsumeNothing) {
  long long integer = 5;
  double number = 5;
  EXPECT_EQ(Int32::read(nullptr), 0);
  EXPECT_EQ(String::read(nullptr), "");
  EXPECT_TRUE(StringArray::read(nullptr).empty());
  EXPECT_FALSE(Int64::read(nullptr, &integer) || Double::read(nullptr, &number));
  EXPECT_TRUE(integer == 5 && number == 5);

  const BufferPtr buffer =
      buffer_of(Bytes().raw({0xfe, 255, 255, 255, 255, 255, 255, 255, 0, 0, 0, 0, 0, 0, 0xf8, 0x3f}));
  EXPECT_FALSE(Int64::read(buffer.get(), nullptr) || Double::read(buffer.get(), nullptr));
  EXPECT_TRUE(Int64::read(buffer.get(), &integer) && Double::read(buffer.get(), &number));
  EXPECT_TRUE(integer == -2 && number == 1.5);
}

TEST(Primitives, WritersPutDownExactlyTheirBytesAndReportErrors) {
  const std::string empty;
  const std::string text = "hi";
  const Bytes null = Bytes().raw({0xff, 0xff, 0xff, 0xff});
  const Bytes nothing = Bytes().raw({0, 0, 0, 0, 0, 0, 0, 0});
  const Bytes hi = Bytes().raw({2, 0, 0, 0, 'h', 0, 'i', 0, 0, 0, 0, 0});
  const struct {
    bool (*write)(vesk_payload*, const std::string& empty, const std::string& text) = nullptr;
    Bytes bytes;
  } rows[] = {
      {[](auto* p, auto&, auto&) { return Int32::write(p, -2); }, Bytes().raw({0xfe, 0xff, 0xff, 0xff})},
      {[](auto* p, auto&, auto&) { return Int64::write(p, 500); }, Bytes().raw({0xf4, 1, 0, 0, 0, 0, 0, 0})},
      {[](auto* p, auto&, auto&) { return Double::write(p, 1.5); }, Bytes().raw({0, 0, 0, 0, 0, 0, 0xf8, 0x3f})},
      {[](auto* p, auto& e, auto&) { return String::write(p, e); }, nothing},
      {[](auto* p, auto&, auto&) { return String::write(p, ""); }, nothing},
      {[](auto* p, auto&, auto& t) { return String::write(p, t); }, hi},
      {[](auto* p, auto&, auto&) { return String::write_optional(p, nullptr); }, null},
      {[](auto* p, auto&, auto&) { return String::write_optional(p, ""); }, null},
      {[](auto* p, auto& e, auto&) { return String::write_optional(p, e); }, null},
      {[](auto* p, auto&, auto& t) { return String::write_optional(p, t); }, hi},
      {[](auto* p, auto&, auto&) { return String::write_optional(p, "hi"); }, hi},
      {[](auto* p, auto&, auto&) { return StringArray::write(p, Lines()); }, Bytes().i32(0)},
      {[](auto* p, auto&, auto&) {
         return StringArray::write(p, std::vector<const char*>{"", "hi"});
       },
       Bytes().i32(2).append(nothing).append(hi)},
  };
  for (const auto& row : rows) {
    const PayloadPtr payload(vesk_payload_alloc());
    EXPECT_TRUE(row.write(payload.get(), empty, text));
    EXPECT_EQ(bytes_of(payload.get()), row.bytes);
    String::write(payload.get(), static_cast<const char*>(nullptr));
    EXPECT_FALSE(row.write(payload.get(), empty, text)) << "an earlier error must stick";
  }
}

}  // namespace
}  // namespace orvel::test

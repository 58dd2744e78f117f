// From integers and strings, byte by byte, to component names, bundles and intents.
#include "orvel/OrvelIntent.h"

#include <cstddef>
#include <cstdint>
#include <functional>
#include <limits>
#include <type_traits>

#include "parcel/Double.h"
#include "parcel/Int32.h"
#include "parcel/Int64.h"
#include "parcel/OrvelBundle.h"
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

// What the maps hold under the keys of these tests: "a=1 a=2L a='x' ".
template <typename AnyBundle>
std::string contents(const AnyBundle& bundle) {
  std::string all;
  for (const std::string key : {"", "a", "b", "c"}) {
    if (const int value = bundle.get(key, -99); value != -99) all += key + "=" + std::to_string(value) + " ";
    if constexpr (std::is_same_v<AnyBundle, Bundle>) {
      if (const long long value = bundle.get(key, -99LL); value != -99) all += key + "=" + std::to_string(value) + "L ";
    }
    if (const std::string value = bundle.get(key, std::string("-")); value != "-") all += key + "='" + value + "' ";
  }
  return all;
}

std::string read_component(vesk_buffer* buffer) {
  const ComponentName component = ComponentName::read(buffer);
  return component.package_name + component.class_name + (component.good() ? " good" : "");
}
std::string read_bundle(vesk_buffer* buffer) {
  return contents(Bundle::read(buffer));
}
std::string read_metadata(vesk_buffer* buffer) {
  OrvelBundle bundle;
  bundle.put("c", "must go");
  EXPECT_EQ(OrvelBundle::read(buffer, bundle), buffer != nullptr);
  return contents(bundle);
}
std::string read_intent(vesk_buffer* buffer) {
  const auto [action, data, text3, package, component, extras, categories, flags] = OrvelIntent::read(buffer);
  EXPECT_TRUE(categories.empty() && flags == 0) << "neither is received";
  return action + data + text3 + package + component.package_name + component.class_name + contents(extras);
}

TEST_F(RecordTest, ComponentsEndAtAnEmptyPackage) {
  expect_reads(read_component, {{"both parts", wire("'p' 'c' 7"), "pc good", 4},
                                {"nothing follows a null package", wire("~ 'c'"), "", 8},
                                {"nothing follows an empty package", wire("'' 'c'"), "", 8},
                                {"a class may be null", wire("'p' ~ 7"), "p", 4}});
  EXPECT_EQ(written(ComponentName{"", "c"}), wire("9 '' 'c' 8")) << "an empty package is not a null one";
}

TEST_F(RecordTest, BundlesKeepWhatTheyKnowAndStopAtWhatTheyDoNot) {
  const std::string two = "'a' 1 5 'b' 0 'x' ";  // 36 bytes
  std::vector<Row> rows = {
      {"the first value of a key wins, in each map", wire("5 " + two + "'a' 1 6 'b' 0 'y' 'a' 0 ''"), "a=5 a='' b='x' ",
       0},
      {"no entries", wire("0 " + two), "", 36},
      {"less than no entries", wire("-1 " + two), "", 36},
      {"more bytes than entries", wire("1 " + two), "a=5 ", 20},
      {"a boolean is an integer", wire("2 'a' 9 1 'a' 1 0"), "a=1 ", 0},
      {"null has a key and no value", wire("3 'b' -1 " + two), "a=5 b='x' ", 0},
      {"null strings are empty", wire("1 ~ 0 ~ 7"), "='' ", 4},
      {"an unknown type ends it", wire("4 " + two + "'c' 2 " + two), "a=5 b='x' ", 36},
      {"a huge count ends with the buffer", wire("2147483647 " + two), "a=5 b='x' ", 0},
  };
  expect_reads(read_bundle, rows);
  for (Row& row : rows) row.bytes = wire("-5").append(row.bytes);  // a length that is ignored
  expect_reads(read_metadata, rows);
  EXPECT_LT(m_vesk.uses("vesk_read_utf16_string"), 100) << "a huge count must not be counted to its end";

  const std::string longs = "2 'a' 6 -4294967297L 'c' 1 8";
  std::string many = "31 ";
  for (int n = 0; n < 29; ++n) many += "'a' -1 ";
  many += two;
  expect_reads(read_bundle, {{"a long integer", wire(longs), "a=-4294967297L c=8 ", 0},
                             {"no ceiling", wire(many), "a=5 b='x' ", 0}});
  expect_reads(read_metadata, {{"metadata has no long integers", wire("0 " + longs), "", 24},
                               {"metadata ends at 30 entries", wire("0 " + many), "a=5 ", 20}});
}

template <typename AnyBundle>
AnyBundle filled() {
  AnyBundle bundle;
  EXPECT_TRUE(bundle.put("a", -2) && bundle.put("b", "x"));
  EXPECT_FALSE(bundle.put("a", 3) || bundle.put("b", "y")) << "put must not overwrite";
  EXPECT_EQ(contents(bundle), "a=-2 b='x' ");
  return bundle;
}

TEST_F(RecordTest, EveryTypeOfIntegerHasItsPlaceAndIsNotChangedOnItsWay) {
  Bundle bundle;
  const auto most = std::numeric_limits<std::uint64_t>::max();
  EXPECT_TRUE(bundle.put("a", true) && bundle.put("b", std::int16_t{-3})) << "what is widened to int is one";
  EXPECT_TRUE(bundle.put("a", std::int64_t{5}) && bundle.put("b", 6L) && bundle.put("c", std::size_t{7}));
  EXPECT_FALSE(bundle.put("d", most)) << "a value beyond the long integers";
  EXPECT_EQ(contents(bundle), "a=1 a=5L b=-3 b=6L c=7L ");
  bundle.put("n", -1LL);
  bundle.put("w", 1LL << 32);
  EXPECT_EQ(bundle.get("c", 0U), 7U);
  EXPECT_EQ(bundle.get("n", most), most) << "a value that the type cannot hold is not given";
  EXPECT_EQ(bundle.get("w", 9U), 9U);
  EXPECT_EQ(bundle.get("a", 9UL), 5UL) << "not the int of that key";
  EXPECT_THAT(bundle.keys(), ::testing::ElementsAre("a", "b", "c", "n", "w"));
  EXPECT_TRUE(bundle.contains("n") && !bundle.contains("d"));

  OrvelIntent intent{"a", "", "", "", {"p", "c"}, bundle, {}, 0};
  const OrvelIntent same = intent;
  EXPECT_TRUE(intent == same);
  intent.extras.put("z", "x");
  EXPECT_TRUE(intent != same && intent.extras != same.extras);
}

TEST_F(RecordTest, WhatIsWrittenAnnouncesItsLengthAndMarksWhatIsNotThere) {
  EXPECT_EQ(written(OrvelBundle()), wire("9 4 0 8"));
  EXPECT_EQ(written(filled<OrvelBundle>()), wire("9 40 2 'a' 1 -2 'b' 0 'x' 8"));
  auto bundle = filled<Bundle>();
  EXPECT_TRUE(bundle.put("c", 1LL << 32) && !bundle.put("c", 1LL));
  EXPECT_EQ(bundle.size(), 2U) << "long integers do not count";
  EXPECT_EQ(written(bundle), wire("9 60 3 'a' 1 -2 'c' 6 4294967296L 'b' 0 'x' 8"));

  const Bytes nothing = wire("9 1 40 '' ~ ~ ~ 0 0 0 0 8");
  OrvelIntent intent;
  EXPECT_EQ(written(intent), nothing);
  intent.extras.put("l", 6LL);
  EXPECT_EQ(written(intent), nothing) << "long integers alone are no extras";
  for (const ComponentName& incomplete : {ComponentName{"p", ""}, ComponentName{"", "c"}}) {
    intent.component = incomplete;
    EXPECT_EQ(written(intent), nothing) << "a component needs a package and a class";
  }
  intent = {"a", "d", "t", "p", {"q", "c"}, filled<Bundle>(), {"", "y"}, 0x10000000};
  EXPECT_EQ(written(intent), wire("9 1 128 'a' 'd' 't' 'p' 1 'q' 'c' 1 40 2 'a' 1 -2 'b' 0 'x' 2 '' 'y' 268435456 8"));
  EXPECT_FALSE(intent.write(nullptr) || intent.extras.write(nullptr) || OrvelBundle().write(nullptr));
}

TEST_F(RecordTest, ReceivedIntentsAreAbsentBelowAMarkOfOneAndKeepWhatPrecedesADamage) {
  const std::string head = "1 1 'a' ~ ~ ~ ";
  expect_reads(read_intent, {{"no intent", wire("0 40 " + head), "", 28},
                             {"negative mark", wire("-1 40 " + head), "", 28},
                             {"no length", wire("1 0 " + head), "", 28},
                             {"negative length", wire("1 -1 " + head), "", 28},
                             {"neither component nor extras", wire(head + "0 0 " + head), "a", 28},
                             {"negative marks", wire(head + "-1 -1 " + head), "a", 28}});
  expect_cuts(read_intent, {{wire("2 1 'action'"), "action"},  // any length will do
                            {wire("'data'"), "data"},
                            {wire("'text'"), "text"},
                            {wire("'package'"), "package"},
                            {wire("2 'its-package'"), "its-package"},
                            {wire("'its-class'"), "its-class"},
                            {wire("2 2147483647 'a' 1 5"), "a=5 "},
                            {wire("'b' 6 6L"), "b=6L "},
                            {wire("'c' 0 'x'"), "c='x' "},
                            {wire("'a' 77 1 'category' 4"), ""}});  // an unknown type
}

}  // namespace
}  // namespace orvel::test

// Component names, bundles and intents.
#include "orvel/OrvelIntent.h"

#include <type_traits>

#include "parcel/OrvelBundle.h"
#include "support/ClientTest.h"
#include "support/Reading.h"

namespace orvel::test {
namespace {

using namespace service_apis;  // NOLINT(google-build-using-namespace)

struct Intents : ::testing::Test {
  InprocessVesk m_vesk;
};

constexpr int kHuge = 0x7fffffff;

Bytes integer(const std::string& key, int value) {
  return Bytes().utf16(key).i32(1).i32(value);
}
Bytes long_integer(const char* key, std::int64_t value) {
  return Bytes().utf16(key).i32(6).i64(value);
}
Bytes text(const char* key, const char* value) {
  return Bytes().utf16(key).i32(0).utf16(value);
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

template <typename Record>
Bytes written(const Record& record) {
  const PayloadPtr payload(vesk_payload_alloc());
  return record.write(payload.get()) ? bytes_of(payload.get()) : Bytes();
}

TEST_F(Intents, ComponentsEndAtAnEmptyPackage) {
  expect_reads(read_component, {{"both parts", Bytes().utf16("p").utf16("c").i32(7), "pc good", 4},
                                {"nothing follows a null package", Bytes().null().utf16("c"), "", 8},
                                {"nothing follows an empty package", Bytes().utf16("").utf16("c"), "", 8},
                                {"a class may be null", Bytes().utf16("p").null().i32(7), "p", 4}});
  EXPECT_EQ(written(ComponentName{"", "c"}), Bytes().utf16("").utf16("c")) << "an empty package is not a null one";
}

TEST_F(Intents, BundlesKeepWhatTheyKnowAndStopAtWhatTheyDoNot) {
  const Bytes two = integer("a", 5).append(text("b", "x"));                          // 36 bytes
  const Bytes again = integer("a", 6).append(text("b", "y").append(text("a", "")));  // two keys that are taken
  std::vector<Row> rows = {
      {"the first value of a key wins, in each map", Bytes().i32(5).append(two).append(again), "a=5 a='' b='x' ", 0},
      {"no entries", Bytes().i32(0).append(two), "", 36},
      {"less than no entries", Bytes().i32(-1).append(two), "", 36},
      {"more bytes than entries", Bytes().i32(1).append(two), "a=5 ", 20},
      {"a boolean is an integer", Bytes().i32(2).utf16("a").i32(9).i32(1).append(integer("a", 0)), "a=1 ", 0},
      {"null has a key and no value", Bytes().i32(3).utf16("b").i32(-1).append(two), "a=5 b='x' ", 0},
      {"null strings are empty", Bytes().i32(1).null().i32(0).null().i32(7), "='' ", 4},
      {"an unknown type ends it", Bytes().i32(4).append(two).utf16("c").i32(2).append(two), "a=5 b='x' ", 36},
      {"a huge count ends with the buffer", Bytes().i32(kHuge).append(two), "a=5 b='x' ", 0},
  };
  expect_reads(read_bundle, rows);
  for (Row& row : rows) row.bytes = Bytes().i32(-5).append(row.bytes);  // a length that is ignored
  expect_reads(read_metadata, rows);
  EXPECT_LT(m_vesk.uses("vesk_read_utf16_string"), 100) << "a huge count must not be counted to its end";

  const Bytes longs = Bytes().i32(2).append(long_integer("a", -1 - (1LL << 32))).append(integer("c", 8));
  Bytes many = Bytes().i32(31);
  for (int n = 0; n < 29; ++n) many.utf16("a").i32(-1);
  many.append(two);
  expect_reads(read_bundle,
               {{"a long integer", longs, "a=-4294967297L c=8 ", 0}, {"no ceiling", many, "a=5 b='x' ", 0}});
  expect_reads(read_metadata, {{"metadata has no long integers", Bytes().i32(0).append(longs), "", 24},
                               {"metadata ends at 30 entries", Bytes().i32(0).append(many), "a=5 ", 20}});
}

template <typename AnyBundle>
AnyBundle filled() {
  AnyBundle bundle;
  EXPECT_TRUE(bundle.put("a", -2) && bundle.put("b", "x"));
  EXPECT_FALSE(bundle.put("a", 3) || bundle.put("b", "y")) << "put must not overwrite";
  EXPECT_EQ(contents(bundle), "a=-2 b='x' ");
  return bundle;
}

TEST_F(Intents, BundlesAnnounceTheBytesBehindTheirLength) {
  const Bytes entries = integer("a", -2).append(text("b", "x"));
  EXPECT_EQ(written(OrvelBundle()), Bytes().i32(4).i32(0));
  EXPECT_EQ(written(filled<OrvelBundle>()), Bytes().i32(40).i32(2).append(entries));
  auto bundle = filled<Bundle>();
  EXPECT_TRUE(bundle.put("c", 1LL << 32) && !bundle.put("c", 1LL));
  EXPECT_EQ(bundle.size(), 2U) << "long integers do not count";
  const Bytes three = integer("a", -2).append(long_integer("c", 1LL << 32)).append(text("b", "x"));
  EXPECT_EQ(written(bundle), Bytes().i32(60).i32(3).append(three));
}

OrvelIntent whole_intent() {
  return {"a", "d", "t", "p", {"q", "c"}, filled<Bundle>(), {"", "y"}, 0x10000000};
}

TEST_F(Intents, WrittenIntentsMarkWhatIsNotThere) {
  const Bytes nothing = Bytes().i32(1).i32(40).utf16("").null().null().null().i32(0).i32(0).i32(0).i32(0);
  OrvelIntent intent;
  EXPECT_EQ(written(intent), nothing);
  intent.extras.put("l", 6LL);
  EXPECT_EQ(written(intent), nothing) << "long integers alone are no extras";
  for (const ComponentName& incomplete : {ComponentName{"p", ""}, ComponentName{"", "c"}}) {
    intent.component = incomplete;
    EXPECT_EQ(written(intent), nothing) << "a component needs a package and a class";
  }
  Bytes whole = Bytes().i32(1).i32(128).utf16("a").utf16("d").utf16("t").utf16("p").i32(1).utf16("q").utf16("c");
  whole.i32(1).i32(40).i32(2).append(integer("a", -2)).append(text("b", "x"));
  EXPECT_EQ(written(whole_intent()), whole.i32(2).utf16("").utf16("y").i32(0x10000000));
}

TEST_F(Intents, EveryFailedWriteFailsTheIntentAndLeaksNothing) {
  OrvelIntent intent = whole_intent();
  intent.extras.put("c", 6LL);
  for (const char* operation : {"vesk_payload_alloc", "vesk_write_i32", "vesk_write_i64", "vesk_write_utf16_cstring",
                                "vesk_write_array_length"}) {
    const PayloadPtr good(vesk_payload_alloc());
    const int before = m_vesk.uses(operation);
    EXPECT_TRUE(intent.write(good.get()));
    const int uses = m_vesk.uses(operation) - before;
    EXPECT_GT(uses, 0) << operation;
    for (int nth = 1; nth <= uses; ++nth) {
      const PayloadPtr payload(vesk_payload_alloc());
      m_vesk.fail_once(operation, nth);
      EXPECT_FALSE(intent.write(payload.get())) << operation << ' ' << nth;
      EXPECT_EQ(m_vesk.live().payloads, 2) << operation << ' ' << nth;
    }
  }
  EXPECT_FALSE(intent.write(nullptr) || intent.extras.write(nullptr) || OrvelBundle().write(nullptr));
}

TEST_F(Intents, ReceivedMarksBelowOneMeanAbsent) {
  const Bytes head = Bytes().i32(1).i32(1).utf16("a").null().null().null();
  expect_reads(read_intent, {{"no intent", Bytes().i32(0).i32(40).append(head), "", 28},
                             {"negative mark", Bytes().i32(-1).i32(40).append(head), "", 28},
                             {"no length", Bytes().i32(1).i32(0).append(head), "", 28},
                             {"negative length", Bytes().i32(1).i32(-1).append(head), "", 28},
                             {"neither component nor extras", Bytes(head).i32(0).i32(0).append(head), "a", 28},
                             {"negative marks", Bytes(head).i32(-1).i32(-1).append(head), "a", 28}});
}

TEST_F(Intents, ReceivedIntentsKeepWhatPrecedesADamage) {
  const std::vector<std::pair<Bytes, std::string>> pieces = {
      {Bytes().i32(2).i32(1).utf16("action "), "action "},  // any length will do
      {Bytes().utf16("data "), "data "},
      {Bytes().utf16("text "), "text "},
      {Bytes().utf16("package "), "package "},
      {Bytes().i32(2).utf16("its package "), "its package "},
      {Bytes().utf16("its class "), "its class "},
      {Bytes().i32(2).i32(kHuge).append(integer("a", 5)), "a=5 "},
      {long_integer("b", 6), "b=6L "},
      {text("c", "x"), "c='x' "},
      {Bytes().utf16("a").i32(77).i32(1).utf16("category").i32(4), ""},  // an unknown type
  };
  Bytes whole;
  for (const auto& [bytes, value] : pieces) whole.append(bytes);
  for (std::size_t size = 0; size <= whole.size(); ++size) {
    std::string expected;
    std::size_t end = 0;
    for (const auto& [bytes, value] : pieces) {
      end += bytes.size();
      if (end <= size) expected += value;
    }
    EXPECT_EQ(read_intent(buffer_of(Bytes(whole).cut(whole.size() - size)).get()), expected) << size;
  }
}

TEST_F(Intents, TenThousandExtrasCrossInBothDirections) {
  OrvelIntent intent;
  Bytes received = Bytes().i32(10000);
  for (int n = 10000; n < 20000; ++n) {
    intent.extras.put(std::to_string(n), n);
    received.append(integer(std::to_string(n), n));  // 24 bytes
  }
  EXPECT_EQ(Bundle::read(buffer_of(received).get()).size(), 10000U);
  const BufferPtr sent = buffer_of(written(intent));
  for (const int word : {1, 240048, 0, 0, -1, -1, -1, 0, 1, 240004, 10000}) EXPECT_EQ(vesk_read_i32(sent.get()), word);
  EXPECT_EQ(vesk_buffer_remaining(sent.get()), 240008U);
}

}  // namespace
}  // namespace orvel::test

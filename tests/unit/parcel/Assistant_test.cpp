// What goes to the voice assistant and to the metrics service, and the assistant's results.
#include <climits>

#include "orvel/TarselMetricEvent.h"
#include "parcel/OrvelSimEventMetadata.h"
#include "parcel/OrvelSimEventResult.h"
#include "support/ClientTest.h"
#include "support/RecordTables.h"

namespace orvel::test {
namespace {

using namespace service_apis;  // NOLINT(google-build-using-namespace)
using Value = TarselMetricEventFieldValue;

TEST_F(RecordTest, AnEventResultIsUnknownUnlessItsMarkIsNotZeroAndItsCodeBelowSix) {
  const auto read = [](const Bytes& bytes) { return OrvelSimEventResult::read(buffer_of(bytes).get()); };
  for (const int code : {0, 1, 2, 3, 4, 5, 6, 7, 8, -1, -2, INT_MIN, INT_MAX}) {
    for (const int mark : {1, -1, INT_MIN, 0}) {
      EXPECT_EQ(read(Bytes().i32(mark).i32(code)), mark != 0 && code >= 0 && code < 6 ? code : 6) << mark << code;
    }
  }
  for (std::size_t cut = 1; cut <= 8; ++cut) EXPECT_EQ(read(wire("1 0").cut(cut)), 6) << "no success that was cut";
  EXPECT_EQ(OrvelSimEventResult::read(nullptr), 6);
  for (const auto result : {kSuccess, kUnknownError}) {
    EXPECT_EQ(OrvelSimEventResult::write(nullptr, result), result != kSuccess);
  }
}

TEST_F(RecordTest, MetadataGoBehindTheirLengthWithNoTextForAnEmptyOne) {
  const OrvelSimEventMetadata full{"n", "e", "3", "4", "5", "6", "7", true};
  EXPECT_EQ(written(full), wire("9 1 64 'n' 'e' '3' '4' '5' '6' '7' 1 8"));
  EXPECT_EQ(written(OrvelSimEventMetadata{}), wire("9 1 36 ~ ~ ~ ~ ~ ~ ~ 0 8"));
  EXPECT_EQ(written(OrvelSimEventMetadata{"", "", "", "", "", "", "x", true}), wire("9 1 40 ~ ~ ~ ~ ~ ~ 'x' 1 8"));
  const BufferPtr buffer = buffer_of(wire("1 24 'h' 'i' -1"));
  EXPECT_EQ(OrvelSimEventMetadata::read(buffer.get()).namespaceName, "") << "it is only sent";
  EXPECT_FALSE(full.write(nullptr) || vesk_buffer_remaining(buffer.get()) != 28);
}

TEST_F(RecordTest, AMetricEventHasTheNewestValueOfEachKeyInTheOrderOfTheKeysBytes) {
  EXPECT_EQ(written(TarselMetricEvent{}), wire("9 1 24 '' '' -1 8"));
  TarselMetricEvent event;
  std::string text = "v";
  event.header1 = "h";
  event.header2 = "i";
  EXPECT_TRUE(event.addStringEvent("s", text) && event.addLongEvent("l", -5) && event.addDoubleEvent("d", 1.5) &&
              event.addTimestampEvent("t", 1LL << 40U) && event.addBooleanEvent("b", true) &&
              event.addPredefinedEvent(TarselPredefined::kModel));
  EXPECT_EQ(text, "") << "moved";
  EXPECT_EQ(written(event), wire("9 1 148 'h' 'i' 6 '_Model' 5 5 'b' 4 1 'd' 2")
                                .f64(1.5)
                                .append(wire("'l' 1 -5L 's' 0 'v' 't' 3 1099511627776L 8")));
  text = "new";
  event.addStringEvent("l", text);
  event.addTimestampEvent("s", 2);
  for (const char* key : {"\xc3\xa9", "bc", "B", "", "d"}) event.addBooleanEvent(key, false);
  EXPECT_EQ(written(event), wire("9 1 216 'h' 'i' 10 '' 4 0 'B' 4 0 '_Model' 5 5 'b' 4 1 'bc' 4 0 'd' 4 0 'l' 0 'new' "
                                 "'s' 3 2L 't' 3 1099511627776L")
                                .utf16(u"\u00e9")
                                .append(wire("4 0 8")));
}

TEST_F(RecordTest, OnlyTheFifteenPredefinedFactsAreTaken) {
  std::istringstream keys(
      "_SoftwareVersion _SoftwareVersionFingerprint _OsFileTag _BuildType _Platform _Model _Hardware _DeviceType "
      "_DeviceId _CustomerId _MarketplaceId _CountryOfResidence _DeviceLanguage _OtaGroupName _TimeZone");
  TarselMetricEvent event;
  int number = 0;
  for (std::string key; keys >> key; ++number) {
    EXPECT_TRUE(event.addPredefinedEvent(TarselPredefined::Type(number)));
    EXPECT_EQ(event.fields.at(key)->intValue, number);
  }
  for (const int n : {number, -1, INT_MAX, INT_MIN}) EXPECT_FALSE(event.addPredefinedEvent(TarselPredefined::Type(n)));
  EXPECT_EQ(event.fields.size(), 15U);
}

TEST_F(RecordTest, AMetricEventThatBreaksOffKeepsALengthOfZero) {
  for (int kind = 6; kind <= 256; ++kind) {
    TarselMetricEvent event;
    event.fields["k"] = kind == 256 ? nullptr : std::make_unique<Value>();
    if (kind < 256) event.fields["k"]->kind = static_cast<std::uint8_t>(kind);
    EXPECT_EQ(written(event, false), wire("9 1 0 '' '' 1 'k' " + (kind < 255 ? std::to_string(kind) : "") + " 8"));
  }
  TarselMetricEvent target;
  Value value;
  const BufferPtr buffer = buffer_of(wire("1 24 'h' 'i' -1"));
  EXPECT_FALSE(TarselMetricEvent::read(buffer.get(), target) || Value::read(buffer.get(), value));
  EXPECT_FALSE(target.write(nullptr) || value.write(nullptr) || vesk_buffer_remaining(buffer.get()) != 28);
}

}  // namespace
}  // namespace orvel::test

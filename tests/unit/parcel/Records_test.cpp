// The records that the library only receives, and those of the voice assistant and the metrics.
#include <climits>

#include "orvel/TarselMetricEvent.h"
#include "parcel/DeviceInfo.h"
#include "parcel/NetworkInfo.h"
#include "parcel/OrvelResolveInfo.h"
#include "parcel/OrvelSimDirective.h"
#include "parcel/OrvelSimEventMetadata.h"
#include "parcel/OrvelSimEventResult.h"
#include "parcel/PackageInfo.h"
#include "parcel/RunningAppProcessInfo.h"
#include "support/ClientTest.h"
#include "support/RecordTables.h"

namespace orvel::test {
namespace {

using namespace service_apis;  // NOLINT(google-build-using-namespace)

class Records : public ClientTest {
 protected:
  Records() : ClientTest("NetworkInfo") {}
};

const std::string kApplication =
    "1 2 's1' 's2' 's3' 's4' 's5' 's6' 's7' 's8' 's9' 1 'l1' ~ 2 'l2' 'l3' 1 2 3 4 5 6 256 7 8 9 't1' 't2' 't3' 10 ";
const std::string kPackage = "1 1 'p' -7 '1.0' -4294967297L 1099511627776L ";
const std::string kResolved = "1 1 1 1 'a' 'c' 1 2 3 4 ";

// What they read as: strings stand in quotes, lists in braces.
const std::string kApplicationText = R"("s1" "s2" "s3" "s4" "s5" "s6" "s7" "s8" "s9" { "l1" } {} { "l2", "l3" } )"
                                     R"(1 2 3 4 5 6 true 7 8 9 "t1" "t2" "t3" 10 )";
const std::string kPackageText = R"("p" -7 "1.0" -4294967297 1099511627776 )";

template <typename... Members>
std::string text(const Members&... members) {
  return ((::testing::PrintToString(members) + " ") + ...);
}
std::string text(const ApplicationInfo& i) {
  return text(i.appString1, i.appString2, i.appString3, i.appString4, i.appString5, i.appString6, i.appString7,
              i.appString8, i.appString9, i.appList1, i.appList2, i.appList3, i.appInt1, i.appInt2, i.appInt3,
              i.appInt4, i.appInt5, i.appInt6, i.appFlag, i.appInt7, i.appInt8, i.appInt9, i.appString10, i.appString11,
              i.appString12, i.appInt10, i.metaData.get("k", -1), i.metaData.get("k", "-"));
}
std::string text(const PackageInfo& i) {
  return text(i.packageName, i.versionCode, i.versionName, i.long1, i.long2, i.applicationInfo.appString12);
}
std::string text(const OrvelResolveInfo& i) {
  return text(i.activityInfo.packageName, i.activityInfo.activityName, i.resolveInt1, i.resolveInt2, i.resolveInt3,
              i.resolveInt4);
}
std::string text(const RunningAppProcessInfo& i) {
  return text(i.processName, i.processInt1, i.processInt2, i.processList, i.unreadList, i.processInt3, i.processInt4,
              i.importance, i.processInt6, i.processInt7, i.processInt8, i.component.package_name,
              i.component.class_name, i.processInt9, i.processInt10, i.isFocused, i.processLong);
}
std::string text(const NetworkInfo& i) {
  return text(i.int1, i.int2, i.name1, i.name2, i.state, i.name4, i.int3, i.int4, i.int5, i.int6, i.name5, i.name6);
}

// Nothing when the read fails.
template <typename Record>
std::string read(vesk_buffer* buffer) {
  Record record;
  return Record::read(buffer, record) ? text(record) : "";
}
std::string read_device(vesk_buffer* buffer) {
  const auto [a, b, c, type, e, f, g, h, i, j] = DeviceInfo::read(buffer);
  return a + b + c + type + e + f + g + h + i + j;
}
// In the order of the wire: deliberately, the fourth text comes before the third.
std::string read_directive(vesk_buffer* buffer) {
  const auto [a, b, c, d, e, f, g] = OrvelSimDirective::read(buffer);
  return a + b + d + c + e + f + g;
}
std::string read_network(vesk_buffer* buffer) {
  return text(NetworkInfo::read(buffer));
}

TEST_F(Records, EveryMemberHasItsPlaceAndWidthAndWhatIsAbsentHasNone) {
  const struct {
    Reader read;
    std::size_t marks;  // it is absent as long as one of them is missing
    Bytes bytes;
    std::string value;
    std::string absent = {};
  } rows[] = {
      {read<ApplicationInfo>, 2, wire(kApplication + "1 -5 2 'k' 1 5 'k' 0 'v' 7"), kApplicationText + R"(5 "v" )"},
      {read<ApplicationInfo>, 2, wire(kApplication + "0 7"), kApplicationText + R"(-1 "-" )"},
      {read<PackageInfo>, 2, wire(kPackage + kApplication + "0 7"), kPackageText + R"("t3" )"},
      {read<PackageInfo>, 2, wire(kPackage + "-1 7"), kPackageText + R"("" )"},
      {read<OrvelResolveInfo>, 4, wire(kResolved + "7"), R"("a" "c" 1 2 3 4 )"},
      {read<RunningAppProcessInfo>, 1, wire("1 'n' 1 2 2 'p' 'q' 3 4 100 6 7 8 'cp' 'cc' 9 10 2 1099511627776L 7"),
       R"("n" 1 2 { "p", "q" } {} 3 4 100 6 7 8 "cp" "cc" 9 10 true 1099511627776 )"},
      {read<RunningAppProcessInfo>, 1, wire("1 ~ 1 2 ~ 3 4 100 6 7 8 '' 9 10 0 -1L 7"),
       R"("" 1 2 {} {} 3 4 100 6 7 8 "" "" 9 10 false -1 )"},
      {read_device, 1, wire("2 'a' 'b' 'c' 'd' 'e' 'f' 'g' 'h' 'i' 'j' 7"), "abcdefghij"},
      {read_network, 1, wire("1 1 2 'n1' 'n2' 'up' 'n4' 3 4 5 6 'n5' 'n6' 7"),
       R"(1 2 "n1" "n2" "up" "n4" 3 4 5 6 "n5" "n6" )", R"(0 0 "" "" "" "" 0 0 0 0 "" "" )"},
  };
  for (const auto& row : rows) {
    expect_reads(row.read, {{"whole", row.bytes, row.value, 4}}, row.absent);
    for (Bytes marks; marks.size() < 4 * row.marks; marks.i32(1)) {
      expect_reads(row.read,
                   {{"no mark", Bytes(marks).i32(0).utf16("next"), row.absent, 16},
                    {"a negative mark", Bytes(marks).i32(-1).utf16("next"), row.absent, 16}},
                   row.absent);
    }
  }
}

TEST_F(Records, ACutLosesOnlyWhatIsBehindIt) {
  const auto pieces = [](const std::string& head, const std::string& texts) {
    std::vector<std::pair<Bytes, std::string>> all;
    for (const char letter : texts)
      all.emplace_back(wire((all.empty() ? head : "") + "'" + letter + "'"), std::string(1, letter));
    return all;
  };
  expect_cuts(read_device, pieces("1 ", "abcdefghij"));
  expect_cuts(read_directive, pieces("", "abcdefg"));
}

TEST_F(Records, TheStateOfTheNetworkIsLoggedAndOnlyConnectedIs) {
  const auto log_of = [this](const Bytes& bytes) {
    NetworkInfo::read(buffer_of(bytes).get());
    return m_log.take();
  };
  const std::string line = "I read:Read network state [";
  EXPECT_EQ(log_of(wire("1 1 2 'a' 'b' 'up'")), Lines{line + "up]"});
  for (const std::string unknown : {"", "<unknown>"}) {
    EXPECT_EQ(log_of(wire("1 1 2 'a' 'b' '" + unknown + "'")),
              (Lines{line + unknown + "]", "W read:Network state is [" + unknown + "], returning empty string"}));
  }
  EXPECT_EQ(log_of(wire("0")), Lines{"I read:Parcel not ok"});
  NetworkInfo info = NetworkInfo::read(nullptr);
  EXPECT_EQ(m_log.take(), Lines{"I read:Buffer is null"});
  for (info.state = "CONNECTED "; info.state != "CONNECTE"; info.state.pop_back()) {
    EXPECT_EQ(info.isConnected(), info.state == "CONNECTED");
  }
  EXPECT_THAT(m_log.take(), ::testing::ElementsAre("I isConnected:Device is [not connected] to the network",
                                                   "I isConnected:Device is [connected] to the network"));
  EXPECT_FALSE(DeviceInfo::write(nullptr) || NetworkInfo::write(nullptr) || OrvelSimDirective::write(nullptr));
}

TEST_F(Records, AFailedReadLeavesNoOldApplicationOrComponent) {
  const BufferPtr absent = buffer_of(wire("0 0"));
  for (vesk_buffer* buffer : {static_cast<vesk_buffer*>(nullptr), absent.get()}) {
    PackageInfo package{"p", 1, "v", 2, 3, {}};
    package.applicationInfo.appString12 = "old";
    OrvelActivityInfo activity{"p", "a"};
    EXPECT_FALSE(PackageInfo::read(buffer, package) || OrvelActivityInfo::read(buffer, activity));
    EXPECT_EQ(text(package) + activity.packageName + activity.activityName, R"("p" 1 "v" 2 3 "" )");
  }
}

TEST_F(Records, ArraysEndWithTheirBufferAndPassOverWhatIsAbsent) {
  const Reader read = [](vesk_buffer* buffer) {
    OrvelResolveInfoArray::Records records(1);  // there before
    std::string names = OrvelResolveInfoArray::read(buffer, records) ? "all" : "ended";
    EXPECT_LE(records.capacity(), 65U) << "memory for what is announced and not there";
    for (std::size_t n = 1; n < records.size(); ++n) names += "," + records[n]->activityInfo.packageName;
    return names;
  };
  const std::size_t size_of_one = wire(kResolved).size();
  expect_reads(
      read,
      {{"no records", wire("0 " + kResolved), "all", size_of_one},
       {"less than none", wire("-5 " + kResolved), "all", size_of_one},
       {"gaps", wire("2 0 " + kResolved + "-1 1 0 1 1 1 0 " + kResolved + kResolved), "all,a,a", size_of_one},
       {"a package in place of a receiver", wire("1 " + kPackage), "all,", 32},
       {"a cut before the count", Bytes(), "all", 0},
       {"a cut in the marks", wire("2 " + kResolved + "1 1 1"), "ended,a", 0},
       {"a cut behind the marks, where the tail reads as empty", wire("2 " + kResolved + "1 1 1 1"), "all,a,", 0},
       {"a count beyond the end", wire("2147483647 " + kResolved + "0 " + kResolved), "ended,a,a", 0}},
      "ended");
  EXPECT_LT(m_vesk.uses("vesk_read_i32"), 100) << "a huge count must not be counted to its end";
}

TEST_F(RecordTest, AnEventResultIsUnknownUnlessItsMarkIsNotZeroAndItsCodeBelowSix) {
  const auto read = [](const Bytes& bytes) { return OrvelSimEventResult::read(buffer_of(bytes).get()); };
  for (const int code : {0, 1, 2, 3, 4, 5, 6, 7, 8, -1, INT_MIN, INT_MAX}) {
    for (const int mark : {1, -1, INT_MIN, 0}) {
      EXPECT_EQ(read(Bytes().i32(mark).i32(code)), mark != 0 && code >= 0 && code < 6 ? code : 6) << mark << code;
    }
  }
  for (std::size_t cut = 1; cut <= 8; ++cut) EXPECT_EQ(read(wire("1 0").cut(cut)), 6) << "no success that was cut";
  EXPECT_EQ(OrvelSimEventResult::read(nullptr), 6);
  EXPECT_TRUE(OrvelSimEventResult::write(nullptr, kUnknownError) && !OrvelSimEventResult::write(nullptr, kSuccess));
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
  for (const int kind : {6, 255, 256}) {
    TarselMetricEvent event;
    event.fields["k"] = kind == 256 ? nullptr : std::make_unique<TarselMetricEventFieldValue>();
    if (kind < 256) event.fields["k"]->kind = static_cast<std::uint8_t>(kind);
    EXPECT_EQ(written(event, false), wire(std::string("9 1 0 '' '' 1 'k' ") + (kind == 6 ? "6 8" : "8")));
  }
  TarselMetricEvent target;
  TarselMetricEventFieldValue value;
  const BufferPtr buffer = buffer_of(wire("1 24 'h' 'i' -1"));
  EXPECT_FALSE(TarselMetricEvent::read(buffer.get(), target) || TarselMetricEventFieldValue::read(buffer.get(), value));
  EXPECT_FALSE(target.write(nullptr) || value.write(nullptr) || vesk_buffer_remaining(buffer.get()) != 28);
}

}  // namespace
}  // namespace orvel::test

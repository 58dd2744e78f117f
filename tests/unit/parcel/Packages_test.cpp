// Package and process records.
#include <malloc.h>

#include <algorithm>

#include "parcel/OrvelResolveInfo.h"
#include "parcel/PackageInfo.h"
#include "parcel/RunningAppProcessInfo.h"
#include "support/ClientTest.h"
#include "support/Reading.h"

namespace orvel::test {
namespace {

using namespace service_apis;  // NOLINT(google-build-using-namespace)

struct Packages : ::testing::Test {
  InprocessVesk m_vesk;
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

// Nothing when the read fails.
template <typename Record>
std::string read(vesk_buffer* buffer) {
  Record record;
  return Record::read(buffer, record) ? text(record) : "";
}

TEST_F(Packages, EveryMemberHasItsPlaceAndWidthAndWhatIsAbsentHasNone) {
  const struct {
    Reader read;
    std::size_t marks;  // it fails as long as one of them is missing
    std::vector<Row> rows;
  } kinds[] = {
      {read<ApplicationInfo>,
       2,
       {{"whole", wire(kApplication + "1 -5 2 'k' 1 5 'k' 0 'v' 7"), kApplicationText + R"(5 "v" )", 4},
        {"no metadata", wire(kApplication + "0 7"), kApplicationText + R"(-1 "-" )", 4}}},
      {read<PackageInfo>,
       2,
       {{"whole", wire(kPackage + kApplication + "0 7"), kPackageText + R"("t3" )", 4},
        {"no application", wire(kPackage + "-1 7"), kPackageText + R"("" )", 4}}},
      {read<OrvelResolveInfo>, 4, {{"whole", wire(kResolved + "7"), R"("a" "c" 1 2 3 4 )", 4}}},
      {read<RunningAppProcessInfo>,
       1,
       {{"whole", wire("1 'n' 1 2 2 'p' 'q' 3 4 100 6 7 8 'cp' 'cc' 9 10 2 1099511627776L 7"),
         R"("n" 1 2 { "p", "q" } {} 3 4 100 6 7 8 "cp" "cc" 9 10 true 1099511627776 )", 4},
        {"no component", wire("1 ~ 1 2 ~ 3 4 100 6 7 8 '' 9 10 0 -1L 7"),
         R"("" 1 2 {} {} 3 4 100 6 7 8 "" "" 9 10 false -1 )", 4}}},
  };
  for (const auto& kind : kinds) {
    expect_reads(kind.read, kind.rows);
    for (Bytes marks; marks.size() < 4 * kind.marks; marks.i32(1)) {
      expect_reads(kind.read, {{"no mark", Bytes(marks).i32(0).utf16("next"), "", 16},
                               {"a negative mark", Bytes(marks).i32(-1).utf16("next"), "", 16}});
    }
  }
}

TEST_F(Packages, AFailedReadLeavesNoOldApplicationOrComponent) {
  const BufferPtr absent = buffer_of(wire("0 0"));
  for (vesk_buffer* buffer : {static_cast<vesk_buffer*>(nullptr), absent.get()}) {
    PackageInfo package{"p", 1, "v", 2, 3, {}};
    package.applicationInfo.appString12 = "old";
    OrvelActivityInfo activity{"p", "a"};
    EXPECT_FALSE(PackageInfo::read(buffer, package) || OrvelActivityInfo::read(buffer, activity));
    EXPECT_EQ(text(package) + activity.packageName + activity.activityName, R"("p" 1 "v" 2 3 "" )");
  }
}

TEST_F(Packages, ArraysEndWithTheirBufferAndPassOverWhatIsAbsent) {
  const Reader read = [](vesk_buffer* buffer) {
    OrvelResolveInfoArray::Records records(1);  // there before
    std::string names = OrvelResolveInfoArray::read(buffer, records) ? "all" : "ended";
    for (std::size_t n = 1; n < records.size(); ++n) names += "," + records[n]->activityInfo.packageName;
    return names;
  };
  const std::size_t size_of_one = wire(kResolved).size();
  expect_reads(read,
               {{"no records", wire("0 " + kResolved), "all", size_of_one},
                {"less than none", wire("-5 " + kResolved), "all", size_of_one},
                {"gaps", wire("2 0 " + kResolved + "-1 1 0 1 1 1 0 " + kResolved + kResolved), "all,a,a", size_of_one},
                {"a package in place of a receiver", wire("1 " + kPackage), "all,", 32},
                {"a count beyond the end", wire("2147483647 " + kResolved + "0 " + kResolved), "ended,a,a", 0}},
               "ended");
  EXPECT_LT(m_vesk.uses("vesk_read_i32"), 100) << "a huge count must not be counted to its end";

  const Bytes whole = wire("3 " + kResolved + kResolved + kResolved);
  for (std::size_t size = 0; size <= whole.size(); ++size) {
    const std::string names = read(buffer_of(Bytes(whole).cut(whole.size() - size)).get());
    // A record counts with its four marks; its tail reads as empty.
    const std::size_t begun = size < 20 ? 0 : std::min<std::size_t>((size - 20) / size_of_one + 1, 3);
    EXPECT_EQ(std::count(names.begin(), names.end(), ','), static_cast<int>(begun)) << size;
    EXPECT_EQ(names.rfind("all", 0) == 0, size < 4 || begun == 3) << size;
  }
}

// The worst that a reply can do: strings of four bytes each.
TEST_F(Packages, MemoryStaysWithinASmallMultipleOfTheReply) {
  Bytes reply = wire("2147483647");
  for (int process = 0; process < 200; ++process) {
    reply.append(wire("1 'n' 0 0 1000"));
    for (int package = 0; package < 1000; ++package) reply.null();
    reply.append(wire("0 0 0 0 0 0 ~ 0 0 0 0L"));
  }
  const BufferPtr buffer = buffer_of(reply);
  const auto heap = [] { return static_cast<double>(::mallinfo2().uordblks + ::mallinfo2().hblkhd); };
  const double before = heap();
  RunningAppProcessInfoArray::Records records;
  EXPECT_FALSE(RunningAppProcessInfoArray::read(buffer.get(), records));
  const double factor = (heap() - before) / static_cast<double>(reply.size());
  EXPECT_LT(factor, 9);
  RecordProperty("heap_bytes_per_byte", std::to_string(factor));
  EXPECT_EQ(records.size(), 200U);
  EXPECT_EQ(records.back()->processList.size(), 1000U);
}

}  // namespace
}  // namespace orvel::test

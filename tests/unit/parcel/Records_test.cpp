// The device and network records.
#include <array>

#include "parcel/DeviceInfo.h"
#include "parcel/NetworkInfo.h"
#include "support/ClientTest.h"

namespace orvel::test {
namespace {

using namespace service_apis;  // NOLINT(google-build-using-namespace)
using ::testing::ElementsAre;

class Records : public ClientTest {
 protected:
  Records() : ClientTest("NetworkInfo") {}
};

Lines members(const DeviceInfo& info) {
  return {info.info1, info.info2, info.info3, info.deviceType, info.info5,
          info.info6, info.info7, info.info8, info.info9,      info.info10};
}

TEST_F(Records, DeviceInfoKeepsWhatPrecedesADamage) {
  const Lines all = {"a", "bb", "ccc", "type", "e", "f", "g", "h", "i", "j"};
  Bytes whole = Bytes().i32(1);
  std::array<std::size_t, 10> ends{};
  for (std::size_t n = 0; n < all.size(); ++n) ends[n] = whole.utf16(all[n]).size();
  for (std::size_t size = 0; size <= whole.size(); ++size) {
    Lines expected(all.size());
    for (std::size_t n = 0; n < all.size() && ends[n] <= size; ++n) expected[n] = all[n];
    EXPECT_EQ(members(DeviceInfo::read(buffer_of(Bytes(whole).cut(whole.size() - size)).get())), expected) << size;
  }
}

TEST_F(Records, AbsentRecordsReadNothingBehindTheirMark) {
  for (const int mark : {0, -1}) {
    const BufferPtr device = buffer_of(Bytes().i32(mark).utf16("next"));
    const BufferPtr network = buffer_of(Bytes().i32(mark).utf16("next"));
    EXPECT_EQ(members(DeviceInfo::read(device.get())), Lines(10));
    EXPECT_EQ(NetworkInfo::read(network.get()).name1, "");
    EXPECT_EQ(vesk_buffer_remaining(device.get()), 16U);
    EXPECT_EQ(vesk_buffer_remaining(network.get()), 16U);
    EXPECT_THAT(m_log.take(), ElementsAre("I read:Parcel not ok"));
  }
  EXPECT_EQ(members(DeviceInfo::read(nullptr)), Lines(10));
  EXPECT_EQ(NetworkInfo::read(nullptr).state, "");
  EXPECT_THAT(m_log.take(), ElementsAre("I read:Buffer is null"));
  EXPECT_FALSE(DeviceInfo::write(nullptr) || NetworkInfo::write(nullptr));
}

TEST_F(Records, NetworkInfoReadsEveryMemberInOrder) {
  Bytes bytes = Bytes().i32(1).i32(1).i32(2).utf16("n1").utf16("n2").utf16("<unknown>").utf16("n4");
  const NetworkInfo info =
      NetworkInfo::read(buffer_of(bytes.i32(3).i32(4).i32(5).i32(6).utf16("n5").utf16("n6")).get());
  EXPECT_EQ((std::array{info.int1, info.int2, info.int3, info.int4, info.int5, info.int6}),
            (std::array{1, 2, 3, 4, 5, 6}));
  EXPECT_EQ((Lines{info.name1, info.name2, info.state, info.name4, info.name5, info.name6}),
            (Lines{"n1", "n2", "<unknown>", "n4", "n5", "n6"}));
  EXPECT_THAT(m_log.take(), ElementsAre("I read:Read network state [<unknown>]",
                                        "W read:Network state is [<unknown>], returning empty string"));
}

TEST_F(Records, OnlyTheExactStateIsConnected) {
  for (const char* state : {"connected", "CONNECTED ", "CONNECTE", "", "CONNECTED"}) {
    NetworkInfo info;
    info.state = state;
    const bool connected = state == std::string("CONNECTED");
    EXPECT_EQ(info.isConnected(), connected) << state;
    EXPECT_EQ(m_log.take(), Lines{connected ? "I isConnected:Device is [connected] to the network"
                                            : "I isConnected:Device is [not connected] to the network"});
  }
}

}  // namespace
}  // namespace orvel::test

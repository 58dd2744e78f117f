// The screen and the wake locks.
#include "services/IPowerManagerService.h"

#include "support/ClientTest.h"

namespace orvel::test {
namespace {

using service_apis::IPowerManagerService;
using ::testing::ElementsAre;

constexpr char kService[] = "com.quarlo.orvel.powermanager";
constexpr char kDescriptor[] = "com.quarlo.orveldelegate.powermanager.IPowerManagerService";

class IPowerManagerServiceTest : public ClientTest {
 protected:
  IPowerManagerServiceTest() : ClientTest("IPowerManagerService") { m_vesk.add_service(kService); }

  std::vector<unsigned> codes() const {
    std::vector<unsigned> codes;
    for (const Transaction& call : m_vesk.transactions(kService)) codes.push_back(call.code);
    return codes;
  }
};

TEST_F(IPowerManagerServiceTest, PartialWakeLockNeedsInterfaceVersionTwo) {
  IPowerManagerService power(m_runtime);
  m_log.take();
  answer(kService, Bytes().i32(0).i32(1));
  EXPECT_FALSE(power.acquirePartialWakeLock());
  EXPECT_THAT(m_log.take(),
              ElementsAre("D getVersion:",
                          "E acquirePartialWakeLock:wakeUpDeviceCustom() is not available in interface version 1"));
  answer(kService, Bytes().i32(0).i32(256));
  EXPECT_TRUE(power.isInteractive() && power.acquirePartialWakeLock());
  EXPECT_THAT(codes(), ElementsAre(3, 1, 3, 4));
  EXPECT_THAT(m_log.take(), ElementsAre("D getVersion:", "D wakeUpDeviceCustom:")) << "and nothing of the screen";
  EXPECT_EQ(m_vesk.transactions().back().request, request(kDescriptor, Bytes().i32(1).i64(500)));
}

TEST_F(IPowerManagerServiceTest, AnUnboundServiceIsNamedInEveryMethod) {
  m_vesk.refuse_binds(kService, 100);
  IPowerManagerService power(m_runtime);
  m_log.take();
  EXPECT_FALSE(power.isInteractive() || power.acquireFullWakeLock());
  EXPECT_FALSE(power.acquirePartialWakeLock() || power.wakeUpDeviceCustom(1, 1));
  EXPECT_THAT(m_log.take("E"),
              ElementsAre("E isInteractive:Invalid binder handle", "E wakeUpDevice:Invalid binder handle",
                          "E getVersion:Invalid binder handle",
                          "E acquirePartialWakeLock:wakeUpDeviceCustom() is not available in interface version 0",
                          "E wakeUpDeviceCustom:Invalid binder handle"));
}

}  // namespace
}  // namespace orvel::test

// What single queries of the delegate service do besides what all methods do.
#include "services/IDelegateService.h"

#include "services/IActivityManager.h"
#include "support/ClientTest.h"

namespace orvel::test {
namespace {

using namespace service_apis;  // NOLINT(google-build-using-namespace)
using ::testing::ElementsAre;
using ::testing::IsEmpty;

class IDelegateServiceTest : public ClientTest {
 protected:
  IDelegateServiceTest() : ClientTest("IDelegateService") { start_services(); }
};

TEST_F(IDelegateServiceTest, OnlyTheExactUnknownIdentifierIsNone) {
  IDelegateService service(m_runtime);
  for (const std::string id : {"<unknown>", "", "<Unknown>", "<unknown> "}) {
    const bool none = id == "<unknown>" || id.empty();
    answer(kServices[kDelegate], Bytes().i32(0).utf16(id));
    EXPECT_EQ(service.getDirectedId(), none ? "" : id);
    const std::string warning = "W getDirectedId:DirectedId is [" + id + "], returning empty string";
    EXPECT_EQ(m_log.take("W"), none ? Lines{warning} : Lines{});
  }
}

TEST_F(IDelegateServiceTest, MissingArgumentsAreNotSent) {
  IDelegateService service(m_runtime);
  OrvelResolveInfoArray::Records receivers(1);
  m_log.take();
  for (const char* name : {static_cast<const char*>(nullptr), ""}) {
    EXPECT_FALSE(service.getApplicationInfo(name, 0) || service.getPackageInfo(name, 0));
    EXPECT_FALSE(!service.getRawResourceAsString(name, 0).empty() || service.checkSystemFeature(name));
    EXPECT_EQ(service.getSecureSetting(name), "");
    EXPECT_FALSE(service.registerForSecureSettings(name, {}));
    EXPECT_FALSE(service.registerForBroadcastWithDataTypeOrScheme(name, {}, {}, {}));
    EXPECT_THAT(m_log.take("WE"), ElementsAre("E getApplicationInfo:Package name is null or empty",
                                              "E getPackageInfo:Package name is null or empty",
                                              "E getRawResourceAsString:Package name is null or empty",
                                              "E checkSystemFeature:Feature name is null or empty",
                                              "E getSecureSetting:Setting key is null or empty",
                                              "E registerForSecureSettings:Setting key is null or empty",
                                              "E registerForBroadcastWithDataTypeOrScheme:Intent is null or empty"));
  }
  EXPECT_FALSE(service.queryBroadcastReceivers("", 0, receivers) || service.getLaunchIntentForPackage(""));
  EXPECT_THAT(m_log.take(), ElementsAre("E queryBroadcastReceivers:Intent is empty",
                                        "E getLaunchIntentForPackage:Package name is empty"));
  EXPECT_EQ(service.getInstalledPackages(5), Lines());
  EXPECT_THAT(m_log.take(), ElementsAre("E getInstalledPackages:Not implemented - get installed packages. flags=[5]"));
  m_vesk.refuse_binds(kServices[kDelegate], 1000);
  IDelegateService unbound(m_runtime);
  m_log.take();
  EXPECT_FALSE(unbound.queryBroadcastReceivers("", 0, receivers) || unbound.getLaunchIntentForPackage(""));
  EXPECT_THAT(m_log.take(), IsEmpty()) << "an unbound service is not news";
  EXPECT_EQ(receivers.size(), 1U) << "what was there stays";
  EXPECT_EQ(m_vesk.transactions().size(), 0U);
}

TEST_F(IDelegateServiceTest, RecordsAreAppendedOrReplacedAndNoneOutlivesADamagedReply) {
  IDelegateService service(m_runtime);
  IActivityManager activities(m_runtime);
  OrvelResolveInfoArray::Records receivers(1);
  RunningAppProcessInfoArray::Records processes(1);
  for (const bool whole : {true, false}) {
    for (const char* name : kServices) answer(name, wire(whole ? "0 1 1 1 1 1" : "0 2 1 1 1 1"));
    EXPECT_EQ(service.queryBroadcastReceivers("a", 0, receivers), whole);
    EXPECT_EQ(receivers.size(), whole ? 2U : 0U);
    EXPECT_EQ(activities.getRunningAppProcessesInfo(processes), whole);
    EXPECT_EQ(processes.size(), whole ? 1U : 0U);
  }
}

}  // namespace
}  // namespace orvel::test

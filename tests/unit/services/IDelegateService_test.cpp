// The queries of the delegate service, and the intents that it is sent.
#include "services/IDelegateService.h"

#include "services/IActivityManager.h"
#include "support/ClientTest.h"

namespace orvel::test {
namespace {

using service_apis::IActivityManager;
using service_apis::IDelegateService;
using service_apis::OrvelIntent;
using service_apis::OrvelResolveInfoArray;
using service_apis::RunningAppProcessInfoArray;
using ::testing::ElementsAre;

constexpr char kService[] = "orvel_delegate";
constexpr char kDescriptor[] = "com.quarlo.orveldelegate.IDelegateService";

const struct Query {
  std::string (*ask)(IDelegateService&);
  unsigned code;
  Bytes arguments;
  Lines log;  // for the value "abc"
} kQueries[] = {
    {[](auto& s) { return s.getPFM(); }, 17, {}, {"I getPFM:Read PFM [abc]"}},
    {[](auto& s) { return s.getCOR(); }, 18, {}, {"I getCOR:Read COR [abc]"}},
    {[](auto& s) { return s.getDirectedId(); }, 32, {}, {"I getDirectedId:Read directedId [abc]"}},
    {[](auto& s) { return s.getDeviceName(); },
     33,
     {},
     {"I getDeviceName:Read device name", "D getDeviceName:Device name is [abc]"}},
    {[](auto& s) { return s.getDSNV2(); }, 42, {}, {"I getDSNV2:Read DSNV2", "D getDSNV2:DSN is [abc]"}},
    {[](auto& s) { return s.getSecureSetting("volume"); },
     15,
     Bytes().utf16("volume"),
     {"I getSecureSetting:Reading setting key [volume]", "I getSecureSetting:Read setting key [volume] value [abc]"}},
};

class IDelegateServiceTest : public ClientTest {
 protected:
  IDelegateServiceTest() : ClientTest("IDelegateService") { m_vesk.add_service(kService); }
};

TEST_F(IDelegateServiceTest, EachQueryIsOneTransactionOfItsOwn) {
  IDelegateService service(m_runtime);
  answer(kService, Bytes().i32(0).utf16("abc"));
  for (const Query& query : kQueries) {
    m_log.take();
    EXPECT_EQ(query.ask(service), "abc");
    EXPECT_EQ(m_log.take(), query.log);
    EXPECT_EQ(m_vesk.transactions(kService).back().code, query.code);
    EXPECT_EQ(m_vesk.transactions(kService).back().request, request(kDescriptor, query.arguments));
  }
  Bytes record = Bytes().i32(0).i32(1);
  for (const char* text : {"a", "b", "c", "type", "e", "f", "g", "h", "i", "j"}) record.utf16(text);
  answer(kService, record);
  EXPECT_EQ(service.getDeviceInfo().info10, "j");
  EXPECT_EQ(m_vesk.transactions(kService).back().code, 14U);
  EXPECT_THAT(m_log.take(), ElementsAre("D getDeviceInfo:Read deviceInfo: [a] [b] [c] [type]"));
  EXPECT_EQ(m_vesk.transactions().size(), std::size(kQueries) + 1);
  EXPECT_EQ(messages(), 0);
}

TEST_F(IDelegateServiceTest, DamagedRepliesReadAsEmpty) {
  std::vector<Bytes> replies = {Bytes().i32(0).null(), Bytes().i32(-8).utf16("no").i32(0).utf16("abc"),
                                Bytes().i32(0).i32(0x7fffffff)};
  const Bytes whole = Bytes().i32(0).utf16("abc");
  for (std::size_t missing = 1; missing <= whole.size(); ++missing) replies.push_back(Bytes(whole).cut(missing));
  IDelegateService service(m_runtime);
  for (const Bytes& reply : replies) {
    answer(kService, reply);
    for (const Query& query : kQueries) EXPECT_EQ(query.ask(service), "") << query.code << ", " << reply;
    EXPECT_EQ(service.getDeviceInfo().info1, "") << reply;
  }
  EXPECT_EQ(messages(), 0);
}

TEST_F(IDelegateServiceTest, OnlyTheExactUnknownIdentifierIsNone) {
  IDelegateService service(m_runtime);
  for (const char* id : {"<unknown>", "", "<Unknown>", "<unknown> "}) {
    const bool none = id == std::string("<unknown>") || id == std::string();
    answer(kService, Bytes().i32(0).utf16(id));
    EXPECT_EQ(service.getDirectedId(), none ? "" : id);
    const std::string warning = std::string("W getDirectedId:DirectedId is [") + id + "], returning empty string";
    EXPECT_EQ(m_log.take("W"), none ? Lines{warning} : Lines{});
  }
}

TEST_F(IDelegateServiceTest, MissingArgumentsAreNotSentAndUnboundLookupsAreSilent) {
  for (const bool bound : {true, false}) {
    m_vesk.refuse_binds(kService, bound ? 0 : 1000);
    IDelegateService service(m_runtime);
    OrvelResolveInfoArray::Records receivers(1);
    m_log.take();
    for (const char* name : {static_cast<const char*>(nullptr), ""}) {
      EXPECT_FALSE(service.getApplicationInfo(name, 0) || service.getPackageInfo(name, 0));
      EXPECT_FALSE(!service.getRawResourceAsString(name, 0).empty() || service.checkSystemFeature(name));
      EXPECT_EQ(service.getSecureSetting(name), "");
      EXPECT_THAT(m_log.take("WE"), ElementsAre("E getApplicationInfo:Package name is null or empty",
                                                "E getPackageInfo:Package name is null or empty",
                                                "E getRawResourceAsString:Package name is null or empty",
                                                "E checkSystemFeature:Feature name is null or empty",
                                                "E getSecureSetting:Setting key is null or empty"));
    }
    EXPECT_FALSE(service.queryBroadcastReceivers("", 0, receivers) || service.getLaunchIntentForPackage(""));
    EXPECT_EQ(m_log.take(), bound ? Lines({"E queryBroadcastReceivers:Intent is empty",
                                           "E getLaunchIntentForPackage:Package name is empty"})
                                  : Lines());
    for (const Query& query : kQueries) EXPECT_TRUE(bound || query.ask(service).empty()) << query.code;
    EXPECT_TRUE(bound || service.getDeviceInfo().deviceType.empty());
    EXPECT_EQ(m_log.take(), bound ? Lines() : Lines({"I getSecureSetting:Reading setting key [volume]"}));
    EXPECT_FALSE(!bound &&
                 (service.queryBroadcastReceivers("a", 0, receivers) || service.getLaunchIntentForPackage("p")));
    EXPECT_EQ(receivers.size(), 1U) << "what was there stays";
    EXPECT_EQ(service.getInstalledPackages(5), Lines());
    EXPECT_THAT(m_log.take(),
                ElementsAre("E getInstalledPackages:Not implemented - get installed packages. flags=[5]"));
  }
  EXPECT_EQ(m_vesk.transactions().size(), 0U);
}

TEST_F(IDelegateServiceTest, RecordsAreAppendedOrReplacedAndNoneOutlivesADamagedReply) {
  start_services();
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
  EXPECT_EQ(messages(), 0);
}

TEST_F(IDelegateServiceTest, IntentsOfAnySizeAndTextAreSentWhole) {
  IDelegateService service(m_runtime);
  answer(kService, wire("0"));
  const std::tuple<std::string, std::u16string, int> actions[] = {
      {"", u"", 40},
      {{'a', '\0', 'b'}, u"a", 40},
      {"\xed\xa0\x80", u"\ufffd\ufffd\ufffd", 44},
      {std::string(1 << 20, 'x'), std::u16string(1 << 20, 'x'), (1 << 21) + 40}};
  for (const auto& [action, units, length] : actions) {
    OrvelIntent intent;
    intent.action = action;
    EXPECT_TRUE(service.sendBroadcastWithPermission(intent, "p"));
    const Bytes expected = Bytes().i32(1).i32(length).utf16(units).append(wire("~ ~ ~ 0 0 0 0 'p'"));
    EXPECT_TRUE(m_vesk.transactions().back().request == request(kDescriptor, expected)) << action.substr(0, 9);
  }
  OrvelIntent intent;
  for (int n = 10000; n < 20000; ++n) intent.extras.put(std::to_string(n), n);  // 24 bytes each
  EXPECT_TRUE(service.startService(intent));
  const Bytes head = request(kDescriptor, wire("1 240048 '' ~ ~ ~ 0 1 240004 10000"));
  const Bytes whole = m_vesk.transactions().back().request;
  EXPECT_EQ(Bytes(whole.data(), head.size()), head);
  EXPECT_EQ(whole.size(), head.size() + 240000 + 8);
}

}  // namespace
}  // namespace orvel::test

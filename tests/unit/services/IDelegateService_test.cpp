// The identity and settings queries of the delegate service.
#include "services/IDelegateService.h"

#include "support/ClientTest.h"

namespace orvel::test {
namespace {

using service_apis::IDelegateService;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

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

TEST_F(IDelegateServiceTest, AKeyThatIsNullOrEmptyIsNotSent) {
  IDelegateService service(m_runtime);
  for (const char* key : {static_cast<const char*>(nullptr), ""}) {
    m_log.take();
    EXPECT_EQ(service.getSecureSetting(key), "");
    EXPECT_THAT(m_log.take(), ElementsAre("E getSecureSetting:Setting key is null or empty"));
  }
  EXPECT_THAT(m_vesk.transactions(), IsEmpty());
}

TEST_F(IDelegateServiceTest, AnUnboundServiceIsSilentAndReadsAsEmpty) {
  m_vesk.refuse_binds(kService, 100);
  IDelegateService service(m_runtime);
  m_log.take();
  for (const Query& query : kQueries) EXPECT_EQ(query.ask(service), "") << query.code;
  EXPECT_EQ(service.getDeviceInfo().deviceType, "");
  EXPECT_THAT(m_log.take(), ElementsAre("I getSecureSetting:Reading setting key [volume]"));
}

}  // namespace
}  // namespace orvel::test

// Intents, packages and processes, from the caller to the services and back.
#include "orvel/OrvelDelegateClient.h"
#include "orvel/OrvelIntent.h"
#include "support/ClientTest.h"

namespace orvel::test {
namespace {

using Client = service_apis::OrvelDelegateClient;
using service_apis::OrvelIntent;
using namespace ::testing;  // NOLINT(google-build-using-namespace): its matchers

template <typename Value>
std::string text(const Value& value) {
  return PrintToString(value);
}
std::string list(Client& client, bool (Client::*query)(Lines&)) {
  Lines names = {"old"};
  const std::string good = text((client.*query)(names));
  return good + text(names);
}
std::string state(Client& client, const char* package) {
  std::tuple state(true, 55, true);
  auto& [found, importance, focused] = state;
  const std::string good = text(client.getAppProcessState(package, found, importance, focused));
  return good + text(state);
}

const OrvelIntent kIntent{"a", "", "", "", {}, {}, {}, 5};
constexpr char kSent[] = "1 40 'a' ~ ~ ~ 0 0 0 5";
constexpr char kApplication[] = "1 1 ~ ~ ~ ~ ~ ~ ~ ~ ~ ~ ~ ~ 0 0 0 0 0 0 0 0 0 0 ~ ~ ~ 0 1 4 2 'k' 1 5 'k' 0 'v'";
constexpr char kReceivers[] = "3 1 1 1 1 'r' ~ 0 0 0 0 1 1 1 1 '' ~ 0 0 0 0 1 1 1 1 'r' ~ 0 0 0 0";
constexpr char kProcesses[] =
    "3 1 'f' 0 0 2 'q' 'p' 0 0 100 0 0 0 ~ 0 0 0 0L 1 'b' 0 0 2 'x' 'p' 0 0 125 0 0 0 ~ 0 0 2 0L "
    "1 'g' 0 0 2 'p' '' 0 0 100 0 0 0 ~ 0 0 1 0L";

// Every method, the call that it makes of a service, and what comes of the answer and of a failure.
// NOLINTNEXTLINE(cppcoreguidelines-pro-type-member-init): every row gives what has no default
const struct Method {
  std::string (*ask)(Client&);  // none: the second call of the method before
  std::size_t service;
  unsigned code;
  const char *arguments, *answer, *result, *failure;
  const char* absent = failure;  // without a service
} kMethods[] = {
    {[](auto& c) { return text(c.broadcastIntentWithIntKey("A", "P", "K", "X", 5)); }, 0, 27,
     "1 80 'A' ~ ~ ~ 1 'P' 'K' 1 20 1 'X' 1 5 0 0", "", "true", "false"},
    {[](auto& c) { return text(c.broadcastIntent(&kIntent)); }, 0, 27, kSent, "", "true", "false"},
    {[](auto& c) { return text(c.startActivity(&kIntent)); }, 0, 37, kSent, "", "true", "false"},
    {[](auto& c) { return text(c.startForegroundService(&kIntent)); }, 0, 30, kSent, "", "true", "false"},
    {[](auto& c) { return text(c.startService(&kIntent)); }, 0, 29, kSent, "", "true", "false"},
    {[](auto& c) { return text(c.broadcastIntentWithPermission(&kIntent, "r")); }, 0, 38, "1 40 'a' ~ ~ ~ 0 0 0 5 'r'",
     "", "true", "false"},
    {[](auto& c) { return text(c.launchApplicationWithPackageName("p")); }, 0, 60, "'p'", "1 1 'm' ~ ~ ~ 1 'q' 'c' 0",
     "true", "false"},
    {nullptr, 0, 37, "1 56 'm' ~ ~ ~ 1 'q' 'c' 0 0 0", "", "", ""},
    {[](auto& c) { return text(c.getApplicationInfoMetaData("p", -1, "k", 7)); }, 0, 53, "'p' -1L", kApplication, "5",
     "7"},
    {[](auto& c) { return c.getApplicationInfoMetaData("p", 1, "k", "-"); }, 0, 53, "'p' 1L", kApplication, "v", "-"},
    {[](auto& c) { return c.getApplicationInfoMetaData("p", 0, "l", "-"); }, 0, 53, "'p' 0L", kApplication, "-", "-"},
    {[](auto& c) { return c.getPackageVersionCode("p", 5); }, 0, 54, "'p' 5L", "1 1 'p' -7 '1.0'", "-7", ""},
    {[](auto& c) { return c.getPackageVersionName("p", 6); }, 0, 54, "'p' 6L", "1 1 'p' -7 '1.0'", "1.0", ""},
    {[](auto& c) { return c.getRawResourceAsString("p", 7); }, 0, 55, "'p' 7", "'text'", "text", ""},
    {[](auto& c) { return text(c.hasSystemFeature("f")); }, 0, 26, "'f'", "-256", "true", "false"},
    {[](auto& c) { return text(c.getPackageNamesForUid(-5)); }, 0, 21, "-5", "2 'q' 'p'", R"({ "q", "p" })", "{}"},
    {[](auto& c) { return text(c.getBroadcastReceiverPackageNames("a", -2)); }, 0, 59, "'a' -2L", kReceivers,
     R"({ "r", "r" })", "{}"},
    {[](auto& c) { return list(c, &Client::getInstalledPackageNames); }, 6, 2, "", "2 'q' 'p'", R"(true{ "q", "p" })",
     "true{}", "false{}"},
    {[](auto& c) { return list(c, &Client::getForegroundPackages); }, 4, 2, "", kProcesses, R"(true{ "", "p", "q" })",
     "false{}"},
    {[](auto& c) { return state(c, "p"); }, 4, 2, "", kProcesses, "true(true, 100, false)", "false(true, 55, true)"},
    {[](auto& c) { return state(c, "x"); }, 4, 2, "", kProcesses, "true(true, 125, true)", "false(true, 55, true)"},
    {[](auto& c) { return state(c, ""); }, 4, 2, "", kProcesses, "true(true, 100, true)", "false(true, 55, true)"},
    {[](auto& c) { return state(c, "y"); }, 4, 2, "", kProcesses, "true(false, -1, false)", "false(true, 55, true)"},
};

class IntentsAndPackages : public ClientTest {
 protected:
  IntentsAndPackages() : ClientTest("OrvelDelegateClient") { start_services(); }
  ~IntentsAndPackages() override { m_client.shutdown(); }

  // Asks everything, answered as the rows say or by `failure`, and expects what `expected` picks.
  void ask_all(const char* Method::*expected, const Reply* failure = nullptr) {
    m_log.take();
    for (const Method& method : kMethods) {
      if (!method.ask) continue;
      Reply reply = failure ? *failure : Reply{Bytes().i32(0).append(wire(method.answer)), 0};
      m_vesk.add_service(kServices[method.service], [reply](const Transaction&) { return reply; });
      EXPECT_EQ(method.ask(m_client), method.*expected) << method.code;
    }
  }
  // The lines of the proxies and those of the client that are no details, each once; none of the connection itself.
  std::string log(const std::string& levels = "DIWE") {
    std::string all = "\n";
    for (const std::string& line : m_log.take(levels)) {
      const bool of_proxy = line.compare(2, 21, "OrvelDelegateClient:I") == 0;
      const std::string shown = line.substr(0, 2) + line.substr(of_proxy ? 22 : 2) + '\n';
      if (line.find(" call:") != std::string::npos || line.find(" exceptionOccurred:") != std::string::npos) continue;
      if ((of_proxy || line[0] != 'D') && all.find(shown) == std::string::npos) all += shown;
    }
    return all;
  }

  Client& m_client = Client::getClient();
};

TEST_F(IntentsAndPackages, EachMethodMakesItsCallAndUnderstandsTheAnswer) {
  ASSERT_TRUE(m_client.initialize());
  ask_all(&Method::result);
  EXPECT_EQ(log(), R"(
I broadcastIntentWithIntKey:Broadcasting intent with action=[A], package=[P], class=[K], key=[X], value=[5]
I broadcastIntentWithIntKey:Intent broadcasted, status=1
I IDelegateService getApplicationInfo:Read applicationInfo for package [p]
I IDelegateService getPackageInfo:Read packageInfo for package [p]
I IDelegateService getRawResourceAsString:Read raw resource for package [p] resourceId [7] result [text]
I IDelegateService checkSystemFeature:System feature [f] is available: 1
I IDelegateService getPackageNamesForUid:Retrived package names for uid -5
D IDelegateService queryBroadcastReceivers:Read 3 RunningAppProcessInfo items
I IOrvelPackageManager getPackages:Read 2 packages
D IOrvelPackageManager getPackages:Package: q
D IOrvelPackageManager getPackages:Package: p
I IActivityManager getRunningAppProcessesInfo:Read 3 RunningAppProcessInfo items
)");
  const char* const interfaces[] = {
      "IDelegateService", "", "", "", "activitymanager.IActivityManager", "", "packagemanager.IOrvelPackageManager"};
  const std::vector<Transaction> calls = m_vesk.transactions();
  ASSERT_EQ(calls.size(), std::size(kMethods));
  for (std::size_t n = 0; n < calls.size(); ++n) {
    const std::string descriptor = std::string("com.quarlo.orveldelegate.") + interfaces[kMethods[n].service];
    EXPECT_EQ(calls[n].code, kMethods[n].code);
    EXPECT_EQ(calls[n].request, request(descriptor.c_str(), wire(kMethods[n].arguments)));
  }
  EXPECT_EQ(messages(), 0);
}

TEST_F(IntentsAndPackages, EveryFailureGivesTheDefaultAndTouchesNoOutput) {
  ask_all(&Method::absent);
  EXPECT_THAT(m_log.take(), Each(EndsWith(":Client is not initialized")));
  ASSERT_TRUE(m_client.initialize());
  m_log.take();
  EXPECT_FALSE(m_client.broadcastIntent(nullptr) || m_client.broadcastIntentWithPermission(nullptr, "r") ||
               m_client.startActivity(nullptr) || m_client.startForegroundService(nullptr) ||
               m_client.startService(nullptr));
  EXPECT_THAT(m_log.take(), AllOf(SizeIs(5), Each(AllOf(StartsWith("E "), EndsWith(":intent is null")))));
  EXPECT_TRUE(m_vesk.transactions().empty());
  for (const Reply& failure : {Reply{{}, -EIO}, Reply{wire("-3 'no' 0 1 1 'p' 1 1"), 0}}) {
    ask_all(&Method::failure, &failure);
    EXPECT_EQ(log("E"), R"(
E getApplicationInfoMetaData:Failed to get application info for package: p, key: k
E getApplicationInfoMetaData:Failed to get application info for package: p, key: l
E getPackageVersionCode:Failed to get package info for package: p
E getPackageVersionName:Failed to get package info for package: p
E IDelegateService queryBroadcastReceivers:Failed to read OrvelResolveInfoArray from reply
E getBroadcastReceiverPackageNames:Failed to query broadcast receivers for intent: a
E IActivityManager getRunningAppProcessesInfo:Failed to read RunningAppProcessInfoArray from reply
E getForegroundPackages:Failed to get running app processes
E getAppProcessState:Failed to get running app processes
)");
  }
  EXPECT_EQ(messages(), 0);
  m_client.shutdown();
  for (const char* name : kServices) m_vesk.refuse_binds(name, 1000);
  ASSERT_TRUE(m_client.initialize());
  ask_all(&Method::absent);
  EXPECT_THAT(log(), AllOf(HasSubstr("E launchApplicationWithPackageName:Failed to get launch intent for package: p\n"),
                           HasSubstr("E getInstalledPackageNames:Failed to get installed packages\n"),
                           Not(ContainsRegex("resource|feature|Retrived|IActivity|IOrvelPack|E IDelegate"))));
}

}  // namespace
}  // namespace orvel::test

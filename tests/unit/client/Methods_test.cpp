// What all public methods have in common, for each row of the table: its requests, its result, and how it fails. Then
// what single queries do besides.
#include <cerrno>
#include <cstdint>
#include <functional>
#include <limits>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <tuple>
#include <utility>

#include "orvel/CallbackQueue.h"
#include "support/ClientTest.h"
#include "support/Notifications.h"

namespace orvel::test {
namespace {

using ::testing::Each;
using ::testing::ElementsAre;
using ::testing::EndsWith;
using ::testing::IsEmpty;

using service_apis::CallStatus;
using service_apis::checked;
using service_apis::kAllServices;
using service_apis::lastCall;
using service_apis::LinkState;

class Methods : public StoppedClient {
 protected:
  // Every method is refused, and says so; one that asks no service only if `asks_none`.
  void expect_refused(const std::string& error, bool asks_none) {
    m_log.take();
    for (const Method& each : kMethods) {
      const bool is_state = each.service == Method::kNoService;
      EXPECT_EQ(each.call(m_client, {}), is_state && asks_none ? "false" : each.refused) << each.name;
      const Lines lines = m_log.take();
      EXPECT_EQ(lines.empty(), is_state && !asks_none) << each.name;
      EXPECT_THAT(lines, Each(EndsWith(error)));
      const bool by_id = each.name == std::string("isDeviceRegistered");  // whose question that is
      const std::string line = std::string("E ") + (by_id ? "getCustomerDirectedID" : each.name) + error;
      EXPECT_TRUE(lines.empty() || lines.back() == line) << each.name;
    }
  }

  // What was logged, each line once: by the proxies, and by the client what is not a detail. Not the Binder's lines,
  // and not the longest one; other tests have them.
  std::string said(const std::string& levels) {
    const std::string of_proxy = "OrvelDelegateClient:I";
    std::string all = "\n";
    for (const std::string& line : m_log.take(levels)) {
      const auto has = [&line](const char* word) { return line.find(word) != std::string::npos; };
      if (has(" call:") || has(" exceptionOccurred:") || has("SchemeInternal:")) continue;
      const bool by_proxy = line.find(of_proxy) == 2;
      const std::string shown = line.substr(0, 2) + line.substr(by_proxy ? of_proxy.size() + 1 : 2) + '\n';
      if ((by_proxy || line[0] != 'D') && all.find('\n' + shown) == std::string::npos) all += shown;
    }
    return all;
  }
};

TEST_F(Methods, EachMakesItsRequestsAndUnderstandsTheAnswers) {
  start();
  using Made = std::vector<std::tuple<std::string, unsigned, Bytes>>;
  std::size_t before = 0;
  for (const Method& each : kMethods) {
    EXPECT_EQ(each.call(m_client, {}), each.result) << each.name;
    Made made;
    Made expected;
    const std::vector<Transaction> all = m_vesk.transactions();
    for (; before < all.size(); ++before) {
      const Transaction& call = all[before];
      // The endpoints come last, 8 bytes each.
      made.emplace_back(call.service, call.code, Bytes(call.request).cut(8 * call.endpoints.size()));
    }
    for (const Request& wanted : each.requests) {
      if (wanted.code == 0) continue;
      const auto service = static_cast<std::size_t>(each.service);
      expected.emplace_back(kServices.at(service), wanted.code,
                            request(kInterfaces.at(service), wire(wanted.arguments)));
    }
    EXPECT_EQ(made, expected) << each.name;
  }
  EXPECT_EQ(said("DIWE"), R"(
I IDelegateService getDeviceName:Read device name
D IDelegateService getDeviceName:Device name is [Hall]
I IDelegateService getDSNV2:Read DSNV2
D IDelegateService getDSNV2:DSN is [G1]
D IDelegateService getDeviceInfo:Read deviceInfo: [1] [2] [3] [type]
I IDelegateService getDirectedId:Read directedId [owner]
I IDelegateService getCOR:Read COR [DE]
I IDelegateService getPFM:Read PFM [shop]
I IDelegateService getSecureSetting:Reading setting key [k]
I IDelegateService getSecureSetting:Read setting key [k] value [42]
D IPowerManagerService getVersion:
D IPowerManagerService wakeUpDeviceCustom:
D IPowerManagerService wakeUpDevice:
D IAndroidConnectivityManager registerDefaultNetworkCallback:call registerDefaultNetworkCallback
D IAndroidConnectivityManager unregisterNetworkCallback:call unregisterNetworkCallback
I IDelegateService registerForSecureSettingsInternal:Registered for updates to setting key [k] (result=1)
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
I IOrvelSimEventClient sendEvent:namespace=1, name=2
I sendEvent:sendEvent, status=true
I registerForDirective:registerForDirective, status=1
)");
  EXPECT_EQ(messages(), 6) << "those of the three network registrations, deliberately";
}

TEST_F(Methods, EachFailsWithItsService) {
  start();
  for (const Bytes& reply : {Bytes(), wire("-3 'no' 0 1 1 'p' 1 1")}) {
    for (const char* service : kServices) answer(service, reply, reply == Bytes() ? -EIO : 0);
    for (const Method& each : kMethods) {
      if (each.requests[0].code == 0) continue;
      EXPECT_EQ(each.call(m_client, {}), each.failure) << each.name;
    }
    EXPECT_EQ(said("WE"), R"(
W IDelegateService getDirectedId:DirectedId is [], returning empty string
E IPowerManagerService acquirePartialWakeLock:wakeUpDeviceCustom() is not available in interface version 0
E getApplicationInfoMetaData:Failed to get application info for package: p, key: k
E getPackageVersionCode:Failed to get package info for package: p
E getPackageVersionName:Failed to get package info for package: p
E IDelegateService queryBroadcastReceivers:Failed to read OrvelResolveInfoArray from reply
E getBroadcastReceiverPackageNames:Failed to query broadcast receivers for intent: a
E IActivityManager getRunningAppProcessesInfo:Failed to read RunningAppProcessInfoArray from reply
E getForegroundPackages:Failed to get running app processes
E getAppProcessState:Failed to get running app processes
)");
  }
}

TEST_F(Methods, EachIsRefusedUnlessTheClientIsInitialized) {
  expect_refused(":Client is not initialized", /*asks_none=*/false);
  start();
  m_client.shutdown();
  expect_refused(":Client is not initialized", /*asks_none=*/false);
  EXPECT_THAT(m_vesk.transactions(), IsEmpty());
}

TEST_F(Methods, EachFailsWhileItsServiceIsNotBound) {
  for (const char* service : kServices) m_vesk.refuse_binds(service, 1000);
  ASSERT_TRUE(m_client.initialize());
  m_log.take();
  for (const Method& each : kMethods) {
    const bool asks = each.requests[0].code != 0;
    EXPECT_EQ(each.call(m_client, {}), asks ? each.refused : each.result) << each.name;
  }
  EXPECT_EQ(said("WE"), R"(
E IPowerManagerService isInteractive:Invalid binder handle
E IPowerManagerService getVersion:Invalid binder handle
E IPowerManagerService acquirePartialWakeLock:wakeUpDeviceCustom() is not available in interface version 0
E IPowerManagerService wakeUpDevice:Invalid binder handle
E launchApplicationWithPackageName:Failed to get launch intent for package: p
E getApplicationInfoMetaData:Failed to get application info for package: p, key: k
E getPackageVersionCode:Failed to get package info for package: p
E getPackageVersionName:Failed to get package info for package: p
E getBroadcastReceiverPackageNames:Failed to query broadcast receivers for intent: a
E getInstalledPackageNames:Failed to get installed packages
E getForegroundPackages:Failed to get running app processes
E getAppProcessState:Failed to get running app processes
E IOrvelSimEventClient sendEvent:m_binder.good() = false
)");
  EXPECT_THAT(m_vesk.transactions(), IsEmpty());
}

TEST_F(Methods, EachIsRefusedInsideTheConnectivityCallback) {
  start();
  int told = 0;
  EXPECT_TRUE(m_client.registerForMaroConnectivityChange([&](bool) {
    ++told;
    expect_refused(":Called from the connectivity callback", /*asks_none=*/true);
    EXPECT_FALSE(m_client.initialize());
    m_client.shutdown();
    EXPECT_THAT(m_log.take(),
                ElementsAre("E initialize:Called from the connectivity callback", "E shutdown:Called from a callback"));
  }));
  send("com.quarlo.speech.CONNECTIVITY_ACTION",
       broadcast("any", "", 1, wire("'com.quarlo.speech.EXTRA_CONNECTIVITY' 1 1")));
  m_vesk.drain();
  EXPECT_EQ(told, 1);
  EXPECT_TRUE(m_client.isMaroConnected()) << "and nothing is left locked";
}

// ---- The statuses of calls ----

using StatusCode = CallStatus::Code;

// How a service may fail, and the status of a call that it fails.
struct Failure {
  const char* name;
  std::function<Reply(const Transaction& call)> answer;
  StatusCode code;
  int error;
  const char* text;
};

// The reply ends behind its exception code; one that is nothing else, in front of it.
Reply cut(const Transaction& call) {
  const bool is_more = good_reply(call.service, call.code).size() > 4;
  return {is_more ? wire("0") : Bytes(), 0};
}

const Failure kFailures[] = {
    {"died",
     [](const Transaction&) {
       return Reply{{}, -EPIPE};
     },
     StatusCode::kDied, -EPIPE, "the service died before it answered"},
    {"timed out",
     [](const Transaction&) {
       return Reply{{}, -ETIMEDOUT};
     },
     StatusCode::kTimedOut, -ETIMEDOUT, "the service did not answer in time"},
    {"exception",
     [](const Transaction&) {
       return Reply{wire("-3 'no' 0"), 0};
     },
     StatusCode::kException, -3, "no"},
    {"mute exception",
     [](const Transaction&) {
       return Reply{wire("-5 '' 0"), 0};
     },
     StatusCode::kException, -5, "the service answered with an exception"},
    {"cut reply", cut, StatusCode::kCutReply, 0, "the reply of the service ended too early"},
};

class Statuses : public StoppedClient {
 protected:
  // Every service answers as m_answer says.
  void serve(const std::string& service) override {
    m_vesk.add_service(service, [this](const Transaction& call) { return m_answer(call); });
  }
  static Reply good(const Transaction& call) { return {good_reply(call.service, call.code), 0}; }

  // The status of the row's call, of which all is checked but what the arguments say.
  void expect_status(const Method& each, StatusCode code, const std::string& text, int error = 0,
                     LinkState link = LinkState::kUp) {
    const auto [result, status] = checked([&] { return each.call(m_client, {}); });
    EXPECT_EQ(status.code, code) << each.name << ": " << nameOf(status.code);
    EXPECT_EQ(static_cast<bool>(status), code == StatusCode::kOk) << each.name;
    EXPECT_EQ(status.text, text) << each.name;
    EXPECT_EQ(status.error, error) << each.name;
    EXPECT_STREQ(status.method, each.name);
    EXPECT_EQ(status.service.has_value(), each.service != Method::kNoService) << each.name;
    if (!status.service) return;
    EXPECT_EQ(*status.service, kAllServices.at(static_cast<std::size_t>(each.service))) << each.name;
    EXPECT_EQ(status.epoch, m_client.state(*status.service).epoch) << each.name;
    EXPECT_EQ(status.link, link) << each.name;
    EXPECT_TRUE(code != StatusCode::kOk || result == each.result) << each.name;
  }
  static bool asks(const Method& each) { return each.requests[0].code != 0; }

  std::function<Reply(const Transaction& call)> m_answer = good;
};

TEST_F(Statuses, OfEachMethodSayHowItFailedAndNothingOfItStays) {
  start();
  for (const Method& each : kMethods) {
    expect_status(each, StatusCode::kOk, "ok");
    for (const Failure& failure : kFailures) {
      if (!asks(each)) continue;
      SCOPED_TRACE(failure.name);
      m_answer = failure.answer;
      expect_status(each, failure.code, failure.text, failure.error);
      m_answer = good;
      expect_status(each, StatusCode::kOk, "ok");
    }
  }
  m_vesk.fail_once("vesk_service_register", 1, -EIO);
  expect_status(method("subscribeDirective"), StatusCode::kFailed, "the call failed: Input/output error (-5)", -EIO);
}

TEST_F(Statuses, OfEachMethodSayThatItsServiceWasNotAsked) {
  const auto expect_all = [&](StatusCode code, const std::string& text, LinkState link, const auto& is_refused) {
    for (const Method& each : kMethods) {
      const bool refused = is_refused(each);
      expect_status(each, refused ? code : StatusCode::kOk, refused ? text : "ok", 0, link);
    }
  };
  const auto has_service = [](const Method& each) { return each.service != Method::kNoService; };
  expect_all(StatusCode::kNotInitialised, "the client is not initialised", LinkState::kStopped, has_service);
  for (const char* service : kServices) m_vesk.refuse_binds(service, 1000);
  ASSERT_TRUE(m_client.initialize());
  expect_all(StatusCode::kNotBound, "the service is not bound (given up: the service was not found within 300 s)",
             LinkState::kGivenUp, asks);
  m_client.shutdown();
  expect_all(StatusCode::kNotInitialised, "the client is not initialised", LinkState::kStopped, has_service);
}

TEST_F(Statuses, OfACallInADeathSayThatFirstAndThenThatTheServiceIsAway) {
  start();
  const auto name = [this] { return checked([this] { return m_client.getDeviceName(); }).status; };
  const std::uint64_t before = name().epoch;
  m_vesk.hold_run_loop();
  m_answer = [this](const Transaction& call) {
    m_vesk.kill_service(call.service);
    return good(call);
  };
  EXPECT_EQ(name().code, StatusCode::kDied);
  m_answer = good;
  m_clock.at_sleep(1, [&] {
    const CallStatus away = name();
    EXPECT_EQ(away.code, StatusCode::kNotBound);
    EXPECT_EQ(away.text, "the service is not bound (away: the service has died)");
    EXPECT_EQ(std::tuple(away.link, away.epoch), std::tuple(LinkState::kAway, before));
    serve(kServices[kDelegate]);
  });
  m_vesk.drain();
  EXPECT_EQ(std::tuple(name().code, name().epoch), std::tuple(StatusCode::kOk, before + 1));
}

TEST_F(Statuses, OfMethodsWithTwoRequestsAreThoseOfTheFirstFailure) {
  start();
  for (const Method& each : kMethods) {
    // The row of that name makes two calls.
    if (each.requests[1].code == 0 || each.name == std::string("unregisterForNetworkConnectivityChange")) continue;
    int made = 0;
    bool both = true;
    m_answer = [&](const Transaction& call) {
      if (++made == 2) return Reply{{}, -ETIMEDOUT};
      return both ? Reply{wire("-3 'first' 0"), 0} : good(call);
    };
    expect_status(each, StatusCode::kException, "first", -3);
    made = 0;
    both = false;
    expect_status(each, StatusCode::kTimedOut, "the service did not answer in time", -ETIMEDOUT);
  }
  m_answer = [](const Transaction&) { return Reply{wire("0 1"), 0}; };
  expect_status(method("acquirePartialWakeLock"), StatusCode::kFailed,
                "the power manager is too old to keep the processor awake");
}

TEST_F(Statuses, OfThreadsCallbacksAndWhatTheyCapturedLeaveEachOtherAlone) {
  start();
  service_apis::CallbackQueue queue;
  const auto use = [this] {
    EXPECT_STREQ(lastCall().method, "") << "nothing has been called here yet";
    EXPECT_TRUE(lastCall());
    m_client.isScreenOn();
    EXPECT_STREQ(lastCall().method, "isScreenOn");
    m_heard.emplace_back("used");
  };
  std::thread(use).join();
  m_client.setExecutor(queue.executor());
  auto captured = std::shared_ptr<void>(nullptr, [use](void*) { use(); });
  auto subscription = m_client.subscribeTimeSync([use, captured](long long, long long) { use(); });
  captured = nullptr;
  const auto links = m_client.subscribeLink(service_apis::Service::kPower, [use](const auto&) { use(); });
  m_vesk.send(registrations().back().endpoints.front(), 1, broadcast("any", ""));
  m_vesk.drain();

  m_answer = [](const Transaction&) { return Reply{wire("-3 'no' 0"), 0}; };
  m_client.getDeviceName();
  EXPECT_EQ(queue.dispatch(), 2U);
  subscription.end();
  EXPECT_EQ(m_heard.size(), 4U);
  EXPECT_STREQ(lastCall().method, "getDeviceName");
  EXPECT_EQ(std::tuple(lastCall().code, lastCall().error), std::tuple(StatusCode::kException, -3));
  EXPECT_TRUE(checked([this] { m_client.setExecutor({}); }));
}

class Queries : public StartedClient {
 protected:
  int setting(const std::string& value) {
    answer(kServices[kDelegate], Bytes().i32(0).utf16(value));
    return m_client.getSecureSettingInt("key", 7);
  }
};

TEST_F(Queries, SettingsAreNumbersOrThrowAndLeaveTheClientUsable) {
  const std::pair<const char*, int> numbers[] = {
      {"", 7}, {"42", 42}, {"  -3", -3}, {"12abc", 12}, {"010", 10}, {"-2147483648", std::numeric_limits<int>::min()}};
  for (const auto& [value, number] : numbers) EXPECT_EQ(setting(value), number) << value;
  for (const char* value : {"abc", " ", "-", "- 1"}) EXPECT_THROW(setting(value), std::invalid_argument) << value;
  EXPECT_THROW(setting("2147483648"), std::out_of_range);
  EXPECT_EQ(setting("1"), 1) << "the lock must not stay behind";
  m_client.getSecureSettingInt(std::string("key\0tail", 8), 7);
  EXPECT_EQ(m_vesk.transactions().back().request, request(kInterfaces[kDelegate], wire("'key'")));
}

TEST_F(Queries, WhatIsNotInAnAnswerIsNotFoundAndOfSeveralTheFirstCounts) {
  EXPECT_EQ(m_client.getApplicationInfoMetaData("p", 0, "l", "-"), "-");
  const auto state = [this](const char* package) {
    bool found = false;
    bool focused = false;
    int importance = 55;
    EXPECT_TRUE(m_client.getAppProcessState(package, found, importance, focused));
    return std::tuple(found, importance, focused);
  };
  EXPECT_EQ(state("x"), std::tuple(true, 125, true));
  EXPECT_EQ(state(""), std::tuple(true, 100, true));
  EXPECT_EQ(state("y"), std::tuple(false, -1, false));
  for (const char* service : {kServices[kDelegate], kServices[kPower]}) answer(service, wire("0 0"));
  EXPECT_FALSE(m_client.isScreenOn() || m_client.acquirePartialWakeLock() || m_client.hasSystemFeature("f"));
}

TEST_F(Queries, NullIsRefusedBeforeTheClientIsAsked) {
  EXPECT_FALSE(m_client.broadcastIntent(nullptr) || m_client.broadcastIntentWithPermission(nullptr, "r") ||
               m_client.startActivity(nullptr) || m_client.startForegroundService(nullptr) ||
               m_client.startService(nullptr));
  m_client.recordTarselMetricEvent(nullptr);
  EXPECT_THAT(m_log.take("WE"),
              ElementsAre("E broadcastIntent:intent is null", "E broadcastIntentWithPermission:intent is null",
                          "E startActivity:intent is null", "E startForegroundService:intent is null",
                          "E startService:intent is null", "E recordTarselMetricEvent:event is null"));
  EXPECT_THAT(m_vesk.transactions(), IsEmpty());
}

}  // namespace
}  // namespace orvel::test

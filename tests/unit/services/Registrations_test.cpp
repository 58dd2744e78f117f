// Registrations with the delegate service, and what becomes of them when it dies.
#include <atomic>
#include <set>
#include <thread>

#include "services/IDelegateService.h"
#include "support/ClientTest.h"
#include "support/Notifications.h"
#include "support/RunLoop.h"

namespace orvel::test {
namespace {

using namespace service_apis;  // NOLINT(google-build-using-namespace)
using ::testing::ElementsAre;
using ::testing::IsEmpty;

class Registrations : public ClientTest {
 protected:
  Registrations() : ClientTest("IDelegateService") { start_services(); }

  void serve(const std::string& service) override {
    m_vesk.add_service(service, [this](const Transaction& call) {
      if (before_answer) before_answer();
      return Reply{wire(call.code == m_refused ? "-3 'no' 0" : "0"), 0};
    });
  }

  static bool hear_setting(IDelegateService& service, const char* key) {
    return service.registerForSecureSettings(key, [](const std::string&, const std::string&) {});
  }
  static bool hear_broadcast(IDelegateService& service, const char* action) {
    const auto ignore = [](const std::string&, const std::string&, const Bundle&) {};
    return service.registerForBroadcastWithDataTypeOrScheme(action, {}, {}, ignore);
  }

  std::atomic<unsigned> m_refused{0};   // the code of the calls that are answered with an exception
  std::function<void()> before_answer;  // set while nothing is called
};

TEST_F(Registrations, WhatWasNotTakenIsNotMadeAgain) {
  IDelegateService service(m_runtime);
  for (const unsigned code : {34U, 28U}) {
    m_refused = code;
    EXPECT_FALSE(code == 34 ? hear_setting(service, "volume") : hear_broadcast(service, "a.SCREEN"));
  }
  EXPECT_THAT(
      m_log.take("I"),
      ::testing::IsSupersetOf({"I registerForSecureSettingsInternal:Registered for updates to setting key [volume] "
                               "(result=0)",
                               "I registerForBroadcastWithDataTypeOrSchemeInternal:Registered to receive "
                               "broadcasts for intent [a.SCREEN] (result=0)"}));
  die_and_return(kServices[kDelegate], [&] {
    m_log.take();
    EXPECT_FALSE(hear_setting(service, "volume") || hear_broadcast(service, "a.SCREEN"));
    EXPECT_THAT(m_log.take(), IsEmpty()) << "an unbound service is not news";
  });
  EXPECT_THAT(m_vesk.transactions(), ::testing::SizeIs(2));
}

TEST_F(Registrations, AfterEachDeathAllAreMadeAgainOnceSettingsFirst) {
  IDelegateService service(m_runtime);
  for (const char* key : {"A", "B", "A"}) {
    EXPECT_TRUE(hear_setting(service, key) && hear_broadcast(service, key[0] == 'A' ? "a.X" : "a.Y"));
  }
  EXPECT_EQ(messages(), 0);
  // What fails once is tried again the next time.
  for (const unsigned refused : {0U, 28U, 0U}) {
    m_refused = refused;
    m_log.take();
    die_and_return(kServices[kDelegate]);
    EXPECT_THAT(m_log.take(),
                ::testing::Contains("I onBinderReconnectedCallback:Binder reconnected, re-registering callbacks"));
    if (refused != 0) continue;
    EXPECT_THAT(subjects(), ElementsAre("A", "B", "A", "a.X", "a.Y", "a.X"));
    EXPECT_EQ(m_vesk.live().endpoint_references, 6) << "those of the dead connection are gone";
  }
  EXPECT_THAT(m_vesk.transactions(), ::testing::SizeIs(4 * 6));
}

TEST_F(Registrations, EveryMessageCallsBackDamagedOrNot) {
  IDelegateService service(m_runtime);
  Lines heard;
  service.registerForSecureSettings("k", [&](auto& key, auto& value) { heard.push_back(key + "=" + value); });
  service.registerForBroadcastWithDataTypeOrScheme(
      "a", {}, {}, [&](auto& action, auto& data, auto&) { heard.push_back(action + "|" + data); });
  const std::vector<Transaction> taken = registrations();
  const auto answer_of = [&](std::size_t registration, const Bytes& message) {
    std::future<Reply> reply = m_vesk.call(taken[registration].endpoints[0], 99, message);
    m_vesk.run_pending();
    return reply.get();
  };
  EXPECT_EQ(answer_of(0, setting("k", "v")).bytes, Bytes()) << "nothing is answered";
  EXPECT_EQ(answer_of(0, setting("k", "v").cut(4)).result, 0);
  EXPECT_EQ(answer_of(0, {}).result, 0);
  EXPECT_EQ(answer_of(1, broadcast("a", "d")).result, 1) << "two-way is for settings";
  for (const std::size_t missing : {0U, 20U}) m_vesk.send(taken[1].endpoints[0], 99, broadcast("a", "d").cut(missing));
  m_vesk.run_pending();
  EXPECT_THAT(heard, ElementsAre("k=v", "k=", "=", "a|d", "a|"));
  EXPECT_EQ(messages(), 0);
}

TEST_F(Registrations, AListRenewsExactlyOnceWhenADeathOverlapsIt) {
  Binder binder(m_runtime, kServices[kDelegate], false);
  Lines renewed;
  std::function<void()> while_replaying = [] {};
  ReplayList<std::string> list(binder, [&](const std::string& entry, Connection on) {
    if (entry == "early") std::exchange(while_replaying, [] {})();
    renewed.push_back(entry + std::to_string(on));
    return true;
  });
  list.add("early", binder.connection());
  EXPECT_THAT(renewed, IsEmpty());
  die_and_return(kServices[kDelegate]);
  list.add("late", 1);  // its connection died before it was in the list
  EXPECT_THAT(renewed, ElementsAre("late2"));
  list.replay();
  list.replay();
  EXPECT_THAT(renewed, ElementsAre("late2", "early2"));
  die_and_return(kServices[kDelegate]);
  while_replaying = [&] { list.add("while replaying", 2); };
  list.replay();
  EXPECT_THAT(renewed, ElementsAre("late2", "early2", "while replaying3", "early3", "late3"));
  // A claim that a further death overtook must not be made on the connection after it.
  m_log.take();
  EXPECT_EQ(binder.call_if_bound("i", 1, kNoArguments, 2), std::nullopt);
  EXPECT_THAT(m_log.take(), IsEmpty()) << "a connection that is gone is not a failure";
  EXPECT_EQ(binder.call_if_bound("i", 1, kNoArguments, 3)->connection(), 3U);
  EXPECT_EQ(m_vesk.transactions().size(), 1U);
}

// Threads register while the service dies at every one of its calls in turn: before it knows the caller, before it has
// answered, and after.
TEST_F(Registrations, NoneIsLostOrDoubledWhileThreadsRegisterAndTheServiceDies) {
  constexpr int kEach = 28;
  IDelegateService service(m_runtime);
  std::atomic<int> calls{0};
  std::atomic<bool> deadly{true};
  std::mutex one_death;
  before_answer = [&] {
    if (++calls % 7 != 0 || !deadly) return;
    const std::lock_guard<std::mutex> lock(one_death);
    die(kServices[kDelegate]);
  };
  const auto register_each = [&](int first) {
    for (int n = first; n < first + kEach; ++n) {
      const auto hear = n % 2 == 0 ? hear_setting : hear_broadcast;
      while (!hear(service, std::to_string(n).c_str())) std::this_thread::yield();
    }
  };
  const RunLoop loop(m_runtime);
  std::thread one(register_each, 0);
  std::thread another(register_each, kEach);
  register_each(2 * kEach);
  one.join();
  another.join();
  deadly = false;
  m_vesk.drain();  // a replay that may have caused the last death
  m_vesk.drain();  // the replay after that
  die(kServices[kDelegate]);
  m_vesk.drain();
  const Lines newest = subjects();
  EXPECT_THAT(newest, ::testing::SizeIs(3 * kEach));
  EXPECT_THAT(std::set<std::string>(newest.begin(), newest.end()), ::testing::SizeIs(3 * kEach));
  std::set<std::pair<std::uint32_t, std::string>> taken;
  for (const Transaction& each : m_vesk.transactions(kServices[kDelegate])) {
    EXPECT_TRUE(each.result != 0 || taken.emplace(each.connection, subject(each)).second) << "twice in one life";
  }
  EXPECT_GT(taken.rbegin()->first, 10U);
}

}  // namespace
}  // namespace orvel::test

// Registrations with the delegate service, and what becomes of them when it dies.
#include <algorithm>
#include <atomic>
#include <map>
#include <set>
#include <thread>

#include "services/IDelegateService.h"
#include "support/ClientTest.h"
#include "support/FakeDelegate.h"
#include "support/RunLoop.h"

namespace orvel::test {
namespace {

using namespace service_apis;  // NOLINT(google-build-using-namespace)
using ::testing::ElementsAre;
using ::testing::IsEmpty;

constexpr char kDescriptor[] = "com.quarlo.orveldelegate.IDelegateService";
const Bytes kException = Bytes().i32(-3).utf16("no").i32(0);

class Registrations : public ClientTest {
 protected:
  Registrations() : ClientTest("IDelegateService") { m_delegate.start(); }

  static bool hear_setting(IDelegateService& service, const char* key) {
    return service.registerForSecureSettings(key, [](const std::string&, const std::string&) {});
  }
  static bool hear_broadcast(IDelegateService& service, const char* action) {
    const auto ignore = [](const std::string&, const std::string&, const Bundle&) {};
    return service.registerForBroadcastWithDataTypeOrScheme(action, {}, {}, ignore);
  }

  // The service dies and is there again, with a new life, when the pause is over.
  void die() {
    m_clock.at_sleep(1, [this] { m_delegate.start(); });
    m_vesk.kill_service(FakeDelegate::kName);
  }

  FakeDelegate m_delegate{m_vesk};
};

// The request up to its endpoint.
void expect_arguments(const Registration& registration, const Bytes& arguments) {
  const Bytes head = request(kDescriptor, arguments);
  ASSERT_GT(registration.request.size(), head.size());
  EXPECT_EQ(Bytes(registration.request.data(), head.size()), head);
}

TEST_F(Registrations, EachKindIsOneTransactionWithItsArgumentsAndAnEndpoint) {
  IDelegateService service(m_runtime);
  m_log.take();
  EXPECT_TRUE(hear_setting(service, "volume"));
  EXPECT_TRUE(hear_broadcast(service, "a.SCREEN"));
  EXPECT_TRUE(service.registerForBroadcastWithDataTypeOrScheme("a.PACKAGE", {"text/plain"}, {"package", "x"}, {}));
  const std::vector<Registration> taken = m_delegate.registrations();
  ASSERT_EQ(taken.size(), 3U);
  EXPECT_EQ(taken[0].code, 34U);
  expect_arguments(taken[0], Bytes().utf16("volume"));
  EXPECT_EQ(taken[1].code, 28U);
  expect_arguments(taken[1], Bytes().utf16("a.SCREEN").i32(0).i32(0));
  expect_arguments(taken[2], Bytes().utf16("a.PACKAGE").i32(1).utf16("text/plain").i32(2).utf16("package").utf16("x"));
  EXPECT_THAT(
      m_log.take(),
      ElementsAre(
          "I registerForSecureSettingsInternal:Registered for updates to setting key [volume] (result=1)",
          "I registerForBroadcastWithDataTypeOrSchemeInternal:Registered to receive broadcasts for intent [a.SCREEN] "
          "(result=1)",
          "I registerForBroadcastWithDataTypeOrSchemeInternal:Registered to receive broadcasts for intent [a.PACKAGE] "
          "(result=1)"));
  EXPECT_EQ(m_vesk.live().endpoint_references, 3) << "only the service's";
  EXPECT_EQ(messages(), 0);
}

TEST_F(Registrations, WhatWasNotTakenIsNotMadeAgain) {
  IDelegateService service(m_runtime);
  m_delegate.refuse(34, kException);
  m_delegate.refuse(28, kException);
  EXPECT_FALSE(hear_setting(service, "volume") || hear_broadcast(service, "a.SCREEN"));
  m_log.take();
  for (const char* nothing : {static_cast<const char*>(nullptr), ""}) {
    EXPECT_FALSE(hear_setting(service, nothing) || hear_broadcast(service, nothing));
    EXPECT_THAT(m_log.take(), ElementsAre("E registerForSecureSettings:Setting key is null or empty",
                                          "E registerForBroadcastWithDataTypeOrScheme:Intent is null or empty"));
  }
  m_clock.at_sleep(1, [&] {
    m_log.take();
    EXPECT_FALSE(hear_setting(service, "volume") || hear_broadcast(service, "a.SCREEN"));
    EXPECT_THAT(m_log.take(), IsEmpty()) << "an unbound service is no news";
    m_delegate.start();
  });
  m_vesk.kill_service(FakeDelegate::kName);
  m_vesk.run_pending();
  EXPECT_THAT(m_vesk.transactions(), ::testing::SizeIs(2));
}

TEST_F(Registrations, AfterEachDeathAllAreMadeAgainOnceSettingsFirst) {
  IDelegateService service(m_runtime);
  for (const char* key : {"A", "B", "A"}) {
    EXPECT_TRUE(hear_setting(service, key) && hear_broadcast(service, key[0] == 'A' ? "a.X" : "a.Y"));
  }
  for (int death = 0; death < 3; ++death) {
    m_log.take();
    die();
    m_vesk.run_pending();
    EXPECT_THAT(m_delegate.subjects(), ElementsAre("A", "B", "A", "a.X", "a.Y", "a.X"));
    EXPECT_THAT(m_log.take(),
                ::testing::Contains("I onBinderReconnectedCallback:Binder reconnected, re-registering callbacks"));
    EXPECT_EQ(m_vesk.live().endpoint_references, 6) << "those of the dead connection are gone";
  }
  // One that fails once is tried again the next time.
  m_delegate.refuse(28, kException);
  die();
  m_vesk.run_pending();
  EXPECT_THAT(m_delegate.subjects(), ElementsAre("A", "B", "A"));
  m_delegate.accept(28);
  die();
  m_vesk.run_pending();
  EXPECT_EQ(m_vesk.transactions().size(), 5 * 6U + 6U);
}

TEST_F(Registrations, EndpointsDecodeWhatArrivesAndSurviveEveryDamage) {
  IDelegateService service(m_runtime);
  std::vector<std::string> heard;
  const auto on_setting = [&](const std::string& key, const std::string& value) { heard.push_back(key + "=" + value); };
  const auto on_broadcast = [&](const std::string& action, const std::string& data, const Bundle& extras) {
    heard.push_back(action + "|" + data + "|" + std::to_string(extras.get("n", -1)));
  };
  service.registerForSecureSettings("k", on_setting);
  service.registerForBroadcastWithDataTypeOrScheme("a", {}, {}, on_broadcast);
  service.registerForSecureSettings("none", {});
  service.registerForBroadcastWithDataTypeOrScheme("none", {}, {}, {});
  vesk_endpoint* const setting_endpoint = m_delegate.registrations()[0].endpoint;
  vesk_endpoint* const broadcast_endpoint = m_delegate.registrations()[1].endpoint;
  const auto answer_of = [&](vesk_endpoint* endpoint, const Bytes& message) {
    std::future<Reply> reply = m_vesk.call(endpoint, 99, message);
    m_vesk.run_pending();
    return reply.get();
  };
  const auto send = [&](const Bytes& message) {
    m_vesk.send(broadcast_endpoint, 99, message);
    m_vesk.run_pending();
  };

  EXPECT_EQ(answer_of(setting_endpoint, setting("k", "")).bytes, Bytes()) << "nothing is answered";
  const Bytes extras = Bytes().utf16("n").i32(1).i32(5).utf16("n").i32(1).i32(6);
  send(broadcast("a", "package:x", 2, extras));
  EXPECT_EQ(answer_of(broadcast_endpoint, broadcast("a", "")).result, 1) << "two-way is for settings";
  EXPECT_THAT(heard, ElementsAre("k=", "a|package:x|5"));

  const Bytes whole_setting = setting("k", "v");
  const Bytes whole_broadcast = broadcast("a", "d", 1, Bytes().utf16("n").i32(1).i32(5));
  for (const Bytes& whole : {whole_setting, whole_broadcast}) {
    for (std::size_t missing = 1; missing <= whole.size(); ++missing) {
      heard.clear();
      whole == whole_setting ? void(answer_of(setting_endpoint, Bytes(whole).cut(missing)))
                             : send(Bytes(whole).cut(missing));
      ASSERT_EQ(heard.size(), 1U) << "a callback for each message, " << missing << " bytes missing";
      EXPECT_THAT(heard[0], ::testing::AnyOf("=", "k=", "||-1", "a||-1", "a|d|-1"));
    }
  }
  EXPECT_EQ(answer_of(m_delegate.registrations()[2].endpoint, setting("none", "")).result, -EIO) << "must throw";
  EXPECT_EQ(messages(), 0);
}

// Runs a step once, when it is moved into its place in the list.
struct Moved {
  explicit Moved(std::function<void()> once) : step(std::move(once)) {}
  Moved(Moved&& other) noexcept {
    if (const auto once = std::exchange(other.step, nullptr)) once();
  }
  std::function<void()> step;
};

TEST_F(Registrations, AListRenewsWhateverADeathOverlapsWithExactlyOnce) {
  Binder binder(m_runtime, FakeDelegate::kName, false);
  Lines renewed;
  std::function<void()> while_replaying = [] {};
  ReplayList<std::string> list(binder, [&](const std::string& entry, Connection on) {
    if (entry == "early") std::exchange(while_replaying, [] {})();
    renewed.push_back(entry + std::to_string(on));
  });
  const auto rebind = [&] {
    die();
    m_vesk.run_pending();
  };

  list.add("early", binder.connection());
  EXPECT_THAT(renewed, IsEmpty());
  rebind();
  list.add("late", 1);  // its connection died before it was in the list
  EXPECT_THAT(renewed, ElementsAre("late2"));
  list.replay();
  list.replay();
  EXPECT_THAT(renewed, ElementsAre("late2", "early2"));
  rebind();
  while_replaying = [&] { list.add("while replaying", 2); };
  list.replay();
  EXPECT_THAT(renewed, ElementsAre("late2", "early2", "while replaying3", "early3", "late3"));
  // A claim that a further death overtook must not be made on the connection after it.
  m_log.take();
  EXPECT_EQ(binder.call_if_bound("i", 1, no_arguments, 2), std::nullopt);
  EXPECT_THAT(m_log.take(), IsEmpty()) << "a connection that is gone is not a failure";
  EXPECT_EQ(binder.call_if_bound("i", 1, no_arguments, 3)->connection(), 3U);
  EXPECT_EQ(m_vesk.transactions().size(), 1U);

  // A whole rebind, its replay included, between the answer to a registration and its place in the list.
  std::vector<Connection> made_on;
  ReplayList<Moved> overtaken(binder, [&](const Moved&, Connection on) { made_on.push_back(on); });
  const auto rebind_and_replay = [&] {
    rebind();
    overtaken.replay();
  };
  overtaken.add(Moved(rebind_and_replay), binder.connection());
  EXPECT_THAT(made_on, ElementsAre(4U));
}

// Threads register while the service dies at every one of its calls in turn: before it knows the caller, before it has
// answered, and after.
TEST_F(Registrations, NoneIsLostOrDoubledWhileThreadsRegisterAndTheServiceDies) {
  constexpr int kThreads = 3;
  constexpr int kEach = 40;
  IDelegateService service(m_runtime);
  std::atomic<int> calls{0};
  std::atomic<bool> deadly{true};
  std::mutex one_death;
  m_delegate.before_answer = [&] {
    if (++calls % 7 != 0 || !deadly) return;
    const std::lock_guard<std::mutex> lock(one_death);
    die();
  };
  std::multiset<std::string> names;
  for (int n = 0; n < kThreads * kEach; ++n) names.insert(std::to_string(n));
  {
    const RunLoop loop(m_runtime);
    std::vector<std::thread> threads;
    threads.reserve(kThreads);
    for (int thread = 0; thread < kThreads; ++thread) {
      threads.emplace_back([&, thread] {
        for (int n = 0; n < kEach; ++n) {
          const std::string name = std::to_string(thread * kEach + n);
          const auto hear = n % 2 == 0 ? hear_setting : hear_broadcast;
          while (!hear(service, name.c_str())) std::this_thread::yield();
        }
      });
    }
    for (std::thread& thread : threads) thread.join();
    deadly = false;
    m_vesk.drain();  // a replay that may have caused the last death
    m_vesk.drain();  // the replay after that
    die();
    m_vesk.drain();
  }
  m_delegate.before_answer = nullptr;
  EXPECT_GT(m_delegate.lives(), 10U);
  const Lines subjects = m_delegate.subjects();
  EXPECT_EQ(std::multiset<std::string>(subjects.begin(), subjects.end()), names);
  for (std::size_t life = 0; life < m_delegate.lives(); ++life) {
    std::map<std::string, int> times;
    for (const Registration& each : m_delegate.registrations(life)) ++times[each.subject];
    for (const auto& [subject, count] : times) EXPECT_EQ(count, 1) << subject << " in life " << life;
  }
}

}  // namespace
}  // namespace orvel::test

// shutdown() at every point of a rebind: at each sleep of the library's, and at each use that it makes of libvesk, before,
// while and after the one that shuts down gets on.
#include <android/log.h>

#include <CLI/CLI.hpp>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <functional>
#include <string>
#include <string_view>
#include <thread>
#include <utility>

#include "binder/Waiting.h"
#include "orvel/OrvelDelegateClient.h"
#include "races/Watchdog.h"
#include "support/ClientTest.h"
#include "support/FakeDelegate.h"

namespace {

using namespace orvel::test;   // NOLINT(google-build-using-namespace)
using namespace orvel::races;  // NOLINT(google-build-using-namespace)
using orvel::service_apis::OrvelDelegateClient;

// How far the other thread is with its shutdown() when the rebind goes on.
enum Meeting { kAnywhere, kInterrupting, kRuntimeShutDown, kMeetings };

// How the service comes back.
enum Comeback { kAfterThePause, kWhileItIsSought, kLate, kComebacks };

struct Case {
  std::string service;
  Comeback comeback;
};

struct Points {
  int sleeps = 0;
  int uses = 0;
};

std::string describe(const Case& what, Meeting meeting, const char* kind, int point) {
  return what.service + ", comeback " + std::to_string(what.comeback) + ", meeting " + std::to_string(meeting) + ", " +
         kind + " " + std::to_string(point);
}

// Starts a client with a registration of each kind, lets one service die and come back, and gives the points that the
// rebind passed. `arm` is called right before the death.
class Rebind {
 public:
  explicit Rebind(Case what) : m_case(std::move(what)) {
    m_vesk.be_strict();
    for (const char* service : kServices) m_vesk.add_service(service);
    m_delegate.start();
    m_client.initialize();
    m_client.registerForTimeSync([](long long, long long) {});
    m_client.registerForSecureSettingIntChange("a", 0, [](int) {});
    m_client.registerForDirective("N", [](auto&&...) {});
  }

  OrvelDelegateClient& client() { return m_client; }
  InprocessVesk& vesk() { return m_vesk; }

  // `step` runs at the sleep of that number, if any, and before the service comes back when that is the same.
  Points run(
      int at_sleep = 0, const std::function<void()>& step = [] {}) {
    const int uses = m_vesk.uses();
    const auto sleeps = m_clock.sleeps().size();
    // After the pause; at the second of the ten sleeps for readiness; after two attempts, at the first sleep of the third.
    const int back_at = m_case.comeback == kAfterThePause ? 1 : m_case.comeback == kWhileItIsSought ? 3 : 24;
    if (m_case.comeback == kWhileItIsSought) m_vesk.hold_binds(m_case.service);
    m_clock.at_sleep(back_at, [this, same = at_sleep == back_at, step] {
      if (same) step();
      m_vesk.complete_binds(m_case.service);
      if (m_case.service == FakeDelegate::kName) return m_delegate.start();
      m_vesk.add_service(m_case.service);
    });
    if (at_sleep != back_at) m_clock.at_sleep(at_sleep, step);
    m_vesk.kill_service(m_case.service);
    m_vesk.drain();
    return {static_cast<int>(m_clock.sleeps().size() - sleeps), m_vesk.uses() - uses};
  }

  // What is left of the client after its end; empty for nothing.
  std::string left() {
    Live live = m_vesk.live();
    live.lookups = 0;  // a handle that comes when the client has stopped waiting for it stays bound
    if (live == Live{}) return {};
    std::ostringstream text;
    text << live;
    return text.str();
  }

 private:
  const Case m_case;
  InprocessVesk m_vesk;
  VirtualClock m_clock;
  FakeDelegate m_delegate{m_vesk};
  OrvelDelegateClient& m_client = OrvelDelegateClient::getClient();
};

// One rebind with a shutdown() that begins at a point; true when everything ended well.
bool shut_down_at(const Case& what, Meeting meeting, bool at_sleep, int point) {
  const std::string name = describe(what, meeting, at_sleep ? "sleep" : "use", point);
  Rebind rebind(what);
  std::thread stopper;
  std::atomic<bool> reached{false};
  const auto stop = [&](std::string_view operation) {
    reached = true;
    stopper = std::thread([&] { rebind.client().shutdown(); });
    if (meeting == kInterrupting)
      while (!orvel::service_apis::waiting::interrupted()) std::this_thread::yield();
    // A shutdown waits for what binds or publishes, so that nothing does so after it.
    const bool waited_for = operation == "vesk_service_bind" || operation == "vesk_binder_servicemanager_get" ||
                            operation == "vesk_service_register";
    if (meeting == kRuntimeShutDown && !waited_for)
      while (rebind.vesk().uses("vesk_shutdown") == 0) std::this_thread::yield();
  };
  if (!at_sleep) rebind.vesk().at_use(point, stop);
  rebind.run(at_sleep ? point : 0, [&] { stop(""); });
  rebind.client().shutdown();
  if (stopper.joinable()) stopper.join();
  std::string fault = rebind.left();
  if (!reached) fault = "the point was not reached";
  if (fault.empty()) return true;
  std::printf("broken: %s: %s\n", name.c_str(), fault.c_str());
  return false;
}

}  // namespace

int main(int argc, char** argv) {
  CLI::App app("shutdown() at every point of a rebind.");
  int count = 1;
  app.add_option("--count", count, "How often each point is passed")->capture_default_str();
  CLI11_PARSE(app, argc, argv);
  __android_log_set_minimum_priority(ANDROID_LOG_VERBOSE);
  __android_log_set_logger([](const __android_logger_data*, const char*) {});

  const Watchdog watchdog(std::chrono::seconds(60), "every point is tried in order: run it again");
  int points = 0;
  int broken = 0;
  for (const char* service : {kServices[0], kServices[3], kServices[6]}) {
    for (int comeback = 0; comeback < kComebacks; ++comeback) {
      const Case what{service, static_cast<Comeback>(comeback)};
      Points passed;
      {
        Rebind undisturbed(what);
        passed = undisturbed.run();
        undisturbed.client().shutdown();
      }
      const auto try_all = [&](bool at_sleep, int last) {
        for (int point = 1; point <= last; ++point) {
          for (int meeting = 0; meeting < kMeetings * count; ++meeting) {
            const Watchdog::Step step(at_sleep ? "a shutdown at a sleep" : "a shutdown at a use of libvesk");
            broken += shut_down_at(what, static_cast<Meeting>(meeting % kMeetings), at_sleep, point) ? 0 : 1;
            ++points;
          }
        }
      };
      try_all(true, passed.sleeps);
      try_all(false, passed.uses);
    }
  }
  std::printf(
      "orvel-shutdown-points: %d shutdowns, at every point of 9 rebinds in %d meetings, %d times each; %d broken\n",
      points, static_cast<int>(kMeetings), count, broken);
  return broken == 0 ? 0 : 1;
}

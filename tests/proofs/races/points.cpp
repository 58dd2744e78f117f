// shutdown() at every point of a rebind: at each sleep of the library's, and at each use that it makes of libvesk, before,
// while and after the thread that shuts down gets on.
#include <android/log.h>

#include <atomic>
#include <functional>
#include <sstream>
#include <string>
#include <string_view>
#include <thread>

#include "binder/Waiting.h"
#include "support/ClientFixture.h"
#include "support/Runner.h"

namespace {

using namespace orvel::test;  // NOLINT(google-build-using-namespace)

// How far the other thread is with its shutdown() when the rebind goes on.
enum Meeting { kAnywhere, kInterrupting, kRuntimeShutDown, kMeetings };

// A case in which the service comes back at that sleep: after the pause; at the second of the ten sleeps for readiness;
// after two attempts, at the first sleep of the third.
struct Case {
  const char* name;
  std::string service;
  int back_at;
};
constexpr int kWhileItIsSought = 3;

long g_points = 0;
bool g_canary = false;

// A client with subscriptions, one of whose services dies and comes back.
class Rebind : public ClientFixture {
 public:
  explicit Rebind(const Case& what) : m_case(what) {
    start_services();
    m_client.initialize();
    subscribe(m_client);
    if (g_canary) m_planted.reset(vesk_payload_alloc());
  }

  // `step` runs at the sleep of that number, if any, and before the service comes back when that is the same.
  void run(
      int at_sleep = 0, const std::function<void()>& step = [] {}) {
    if (m_case.back_at == kWhileItIsSought) m_vesk.hold_binds(m_case.service);
    m_clock.at_sleep(m_case.back_at, [this, same = at_sleep == m_case.back_at, step] {
      if (same) step();
      m_vesk.complete_binds(m_case.service);
      serve(m_case.service);
    });
    if (at_sleep != m_case.back_at) m_clock.at_sleep(at_sleep, step);
    m_vesk.kill_service(m_case.service);
    m_vesk.drain();
  }

  Client& m_client = Client::getClient();

 private:
  const Case m_case;
  PayloadPtr m_planted;
};

// One rebind with a shutdown() that begins at a point.
void shut_down_at(const Case& what, Meeting meeting, bool at_sleep, int point) {
  begin(std::string(at_sleep ? "sleep " : "use ") + std::to_string(point) + ", meeting " + std::to_string(meeting));
  Rebind rebind(what);
  std::thread stopper;
  std::atomic<bool> reached{false};
  const auto stop = [&](std::string_view operation) {
    reached = true;
    stopper = std::thread([&] { rebind.m_client.shutdown(); });
    if (meeting == kInterrupting)
      while (!orvel::service_apis::waiting::interrupted()) std::this_thread::yield();
    // A shutdown waits for what binds or publishes, so that nothing does so after it.
    const bool waited_for = operation == "vesk_service_bind" || operation == "vesk_binder_servicemanager_get" ||
                            operation == "vesk_service_register";
    if (meeting == kRuntimeShutDown && !waited_for)
      while (rebind.m_vesk.uses("vesk_shutdown") == 0) std::this_thread::yield();
  };
  if (!at_sleep) rebind.m_vesk.at_use(point, stop);
  rebind.run(at_sleep ? point : 0, [&] { stop(""); });
  rebind.m_client.shutdown();
  if (stopper.joinable()) stopper.join();
  require(reached, "the point is reached");
  Live left = rebind.m_vesk.live();
  left.lookups = 0;  // a handle that comes when the client has stopped waiting for it stays bound
  std::ostringstream text;
  text << "nothing is left, not " << left;
  require(left == Live{}, text.str());
  ++g_points;
}

void shut_down_at_each(const Case& what, long times) {
  int sleeps = 0;
  int uses = 0;
  {
    Rebind undisturbed(what);
    uses = undisturbed.m_vesk.uses();
    undisturbed.run();
    uses = undisturbed.m_vesk.uses() - uses;
    sleeps = static_cast<int>(undisturbed.m_clock.sleeps().size());
    undisturbed.m_client.shutdown();
  }
  for (long n = 0; n < times * kMeetings; ++n) {
    const auto meeting = static_cast<Meeting>(n % kMeetings);
    for (int sleep = 1; sleep <= sleeps; ++sleep) shut_down_at(what, meeting, true, sleep);
    for (int use = 1; use <= uses; ++use) shut_down_at(what, meeting, false, use);
  }
}

}  // namespace

int main(int argc, char** argv) {
  Runner runner("orvel-shutdown-points", "shutdown() at every point of a rebind, --count times");
  for (const Service service : {kDelegate, kDirectives, kPackages}) {
    for (const Case& what : {Case{"after-the-pause", kServices.at(service), 1},
                             Case{"while-it-is-sought", kServices.at(service), kWhileItIsSought},
                             Case{"late", kServices.at(service), 24}}) {
      runner.add(what.service + "/" + what.name, [&runner, what] { shut_down_at_each(what, runner.count()); });
    }
  }
  if (const auto ended = runner.parse(argc, argv)) return *ended;
  g_canary = runner.canary();
  __android_log_set_minimum_priority(ANDROID_LOG_VERBOSE);
  __android_log_set_logger([](const __android_logger_data*, const char*) {});
  return runner.run([] { return std::to_string(g_points) + " shutdowns"; });
}

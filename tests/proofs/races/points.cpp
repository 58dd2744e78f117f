// shutdown() at every point of a start and of a rebind: at each sleep of the library's, and at each use that it makes
// of libvesk, before, while and after the thread that shuts down gets on.
#include <atomic>
#include <functional>
#include <set>
#include <string>
#include <string_view>
#include <thread>

#include "binder/Waiting.h"
#include "support/ClientFixture.h"
#include "support/LogRecorder.h"
#include "support/Runner.h"

namespace {

using namespace orvel::test;  // NOLINT(google-build-using-namespace)

// How far the other thread is with its shutdown() when the library goes on.
enum Meeting { kAnywhere, kInterrupting, kRuntimeShutDown, kMeetings };

// A service that is away: from before the start of the client, or from its death on. It comes back, ready to be bound
// or not yet, at a sleep of that number.
struct Case {
  std::string name;
  std::string service;
  bool at_start;
  bool bind_is_held;
  int back_at;
};

std::vector<Case> cases() {
  std::vector<Case> all;
  for (const Service service : {kDelegate, kDirectives, kPackages}) {
    const std::string name = kServices.at(service);
    all.push_back({name + "/start", name, true, false, 2});
    all.push_back({name + "/start-that-waits", name, true, true, 2});
    all.push_back({name + "/after-the-pause", name, false, false, 1});
    all.push_back({name + "/at-the-second-sleep-for-readiness", name, false, true, 3});
    all.push_back({name + "/at-the-third-attempt", name, false, false, 24});
  }
  return all;
}

long g_points = 0;
bool g_canary = false;

class Passage : public ClientFixture {
 public:
  explicit Passage(const Case& what) : m_case(what) {
    start_services();
    if (g_canary) m_planted.reset(vesk_payload_alloc());
    if (!what.at_start) {
      m_client.initialize();
      subscribe(m_client);
    }
    if (what.bind_is_held) m_vesk.hold_binds(what.service);
  }

  // The client starts, or binds the service again. `step` runs at the sleep of that number, if any, and before the
  // service comes back when that is the same.
  void run(
      int at_sleep = 0, const std::function<void()>& step = [] {}) {
    m_clock.at_sleep(m_case.back_at, [this, same = at_sleep == m_case.back_at, step] {
      if (same) step();
      m_vesk.complete_binds(m_case.service);
      serve(m_case.service);
    });
    if (at_sleep != m_case.back_at) m_clock.at_sleep(at_sleep, step);
    if (!m_case.bind_is_held || !m_case.at_start) m_vesk.kill_service(m_case.service);
    m_case.at_start ? void(m_client.initialize()) : m_vesk.drain();
  }

  Client& m_client = Client::getClient();

 private:
  const Case m_case;
  PayloadPtr m_planted;
};

// One passage with a shutdown() that begins at a point.
void shut_down_at(const Case& what, Meeting meeting, bool at_sleep, int point) {
  begin(what.name + (at_sleep ? ", sleep " : ", use ") + std::to_string(point) + ", meeting " +
        std::to_string(meeting));
  Passage passage(what);
  std::thread stopper;
  std::atomic<bool> reached{false};
  const auto stop = [&](std::string_view operation) {
    reached = true;
    stopper = std::thread([&] { passage.m_client.shutdown(); });
    if (meeting == kInterrupting)
      while (!orvel::service_apis::waiting::interrupted()) std::this_thread::yield();
    // A shutdown waits for what binds, publishes or gets the runtime, so that nothing does so after it.
    static const std::set<std::string_view> waited_for = {"vesk_service_bind", "vesk_binder_servicemanager_get",
                                                          "vesk_service_register", "vesk_get_runtime"};
    if (meeting == kRuntimeShutDown && waited_for.count(operation) == 0)
      while (passage.m_vesk.uses("vesk_shutdown") == 0) std::this_thread::yield();
  };
  if (!at_sleep) passage.m_vesk.at_use(point, stop);
  passage.run(at_sleep ? point : 0, [&] { stop(""); });
  passage.m_client.shutdown();
  if (stopper.joinable()) stopper.join();
  require(reached, "the point is reached");
  require(passage.left(/*forgotten=*/false));
  ++g_points;
}

void shut_down_at_each(const Case& what, long times) {
  int sleeps = 0;
  int uses = 0;
  {
    Passage undisturbed(what);
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
  Runner runner("orvel-shutdown-points", "shutdown() at every point of a start and of a rebind, --count times");
  for (const Case& what : cases()) {
    runner.add(what.name, [&runner, what] { shut_down_at_each(what, runner.count()); });
  }
  if (const auto ended = runner.parse(argc, argv)) return *ended;
  g_canary = runner.canary();
  discard_log();
  return runner.run([] { return std::to_string(g_points) + " shutdowns"; });
}

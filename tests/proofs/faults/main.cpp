// Each use of libvesk and each allocation that the library makes fails in turn, under every public method and while a
// service is bound; or another thread shuts the client down at such a use, or at one of the library's sleeps.
#include <atomic>
#include <cstddef>
#include <functional>
#include <new>
#include <set>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "Allocations.h"
#include "binder/Waiting.h"
#include "support/ClientFixture.h"
#include "support/LogRecorder.h"
#include "support/Runner.h"

namespace {

using namespace orvel::test;  // NOLINT(google-build-using-namespace)

// Their failure is that of the call, or of the registration. A read that fails leaves what a reply that was cut there
// would.
const std::set<std::string_view> kFailTheCall = {"vesk_payload_alloc",
                                                 "vesk_buffer_alloc",
                                                 "vesk_write_i32",
                                                 "vesk_write_i64",
                                                 "vesk_write_f64",
                                                 "vesk_write_utf16_cstring",
                                                 "vesk_write_array_length",
                                                 "vesk_write_endpoint",
                                                 "vesk_payload_set_position",
                                                 "vesk_call",
                                                 "vesk_service_register",
                                                 "operator new"};

// What these cannot let go of stays: there is nothing that a client could do, but go on.
const std::set<std::string_view> kLetGo = {"vesk_handle_is_valid", "vesk_handle_release"};

// A service that is away: from before the start of the client, or from its death on. It comes back, ready to be bound
// or not yet, at a sleep of that number.
struct Absence {
  std::string name;
  std::string service;
  bool at_start;
  bool bind_is_held;
  int back_at;
};

std::vector<Absence> absences() {
  std::vector<Absence> all;
  for (const Service service : {kDelegate, kDirectives, kPackages}) {
    const std::string name = kServices.at(service);
    all.push_back({name + "/start", name, true, false, 2});
    all.push_back({name + "/start-that-waits", name, true, true, 2});
    all.push_back({name + "/after-the-pause", name, false, false, 1});
    all.push_back({name + "/at-the-second-sleep-for-readiness", name, false, true, 3});
    // An attempt that looks the service up without waiting for it sleeps only before the next one.
    all.push_back({name + "/at-the-third-attempt", name, false, false, service == kDirectives ? 3 : 24});
  }
  return all;
}

// What is counted to say when something happens: uses of libvesk, the library's sleeps or its allocations.
enum Point { kUse, kUseAndLater, kSleep, kAllocation, kAllocationOnException };
const char* const kPoints[] = {", use ", ", use and later ", ", sleep ", ", allocation ", ", exception, allocation "};

// Its texts are so long that a string has to allocate.
constexpr char kException[] = "-3 'the-service-refuses-the-call' 1 'its-stack-at-that-time'";

// What happens then: it fails, or another thread calls shutdown() and is so far when the library goes on.
enum Trouble { kFails, kShutdownAnywhere, kInterrupting, kRuntimeShutDown, kTroubles };

long g_troubles = 0;
bool g_canary = false;

class Bench final : public ClientFixture {
 public:
  Bench() {
    m_vesk.keep_quiet();
    start_services();
    if (g_canary) m_planted.reset(vesk_payload_alloc());  // as a method would that forgets its request
  }
  ~Bench() override { m_client.shutdown(); }

  void serve(const std::string& service) override {
    m_vesk.add_service(service, [this](const Transaction& call) {
      const Uncounted of_the_service;
      return Reply{m_refuses ? wire(kException) : good_reply(call.service, call.code), 0};
    });
  }

  // The run loop has begun when it returns.
  void start() {
    m_client.initialize();
    await_run_loop();
  }
  void await_run_loop() {
    while (m_vesk.uses("vesk_run_loop") == 0) std::this_thread::yield();
  }

  // The client starts, or binds the service again. `step` runs at the sleep of that number, if any, and before the
  // service comes back when that is the same. The allocation of the number `failing`, if any, fails.
  void bind(
      const Absence& what, int at_sleep = 0, const std::function<void()>& step = [] {}, long failing = 0) {
    m_clock.at_sleep(what.back_at, [this, &what, same = at_sleep == what.back_at, step] {
      const Uncounted of_the_device;
      if (same) step();
      m_vesk.complete_binds(what.service);
      serve(what.service);
    });
    if (at_sleep != what.back_at) m_clock.at_sleep(at_sleep, step);
    if (what.at_start) {
      if (!what.bind_is_held) m_vesk.kill_service(what.service);
      count_allocations(failing);
      try {
        m_client.initialize();
      } catch (const std::bad_alloc&) {
      }
      m_made = counted_allocations();
    } else {
      m_vesk.post([failing] { count_allocations(failing); });
      m_vesk.kill_service(what.service);
      m_vesk.post([this] { m_made = counted_allocations(); });
      m_vesk.drain();
    }
  }

  // Another thread finds every lock free.
  void expect_unlocked() {
    std::thread([this] { m_client.getDeviceName(); }).join();
  }

  void expect_works(const Method& tried) {
    const std::string result = tried.call(m_client, {});
    require(result == tried.result, std::string(tried.name) + " gives " + result + " afterwards");
  }

  // Nothing fails any more: the next deaths bring everything back, and every method works.
  void expect_recovers(const Absence& what, bool stays) {
    require(messages() == 0, "no request or reply is left");
    m_vesk.repair();
    m_vesk.complete_binds(what.service);
    start_services();
    expect_unlocked();
    // Where the fault has cost a connection for good, a start brings it back; the subscriptions are the caller's.
    if (what.at_start || m_client.getDeviceName().empty() || m_vesk.live().death_references < kServiceCount) {
      m_client.shutdown();
      require(stays ? "" : left(/*forgotten=*/false));
      require(m_client.initialize(), "it starts again");
      subscribe(m_client);
    }
    const std::size_t before = m_vesk.published().size();
    die(kServices[kDelegate]);
    m_vesk.drain();
    require(registrations().size() == kRegistrations, "the next death renews every registration");
    die(kServices[kDirectives]);
    m_vesk.drain();
    require(m_vesk.published().size() == before && before > 0, "the next death publishes the namespace again");
    for (const Method& each : kMethods) expect_works(each);
  }

  Client& m_client = Client::getClient();
  std::atomic<long> m_made{0};  // allocations of the thread that binds, in bind()
  bool m_refuses = false;       // the services answer every call with an exception

 private:
  PayloadPtr m_planted;
};

// The fault happens at the `nth` use or allocation under a method. False when there are fewer.
bool fail(const Method& tried, Point fault, int nth) {
  begin(tried.name + std::string(kPoints[fault]) + std::to_string(nth));
  const bool is_use = fault == kUse || fault == kUseAndLater;
  std::string failed;
  Bench bench;
  bench.start();
  bench.m_refuses = fault == kAllocationOnException;
  bench.m_vesk.at_use(is_use ? nth : 0, [&](std::string_view operation) {
    failed = operation;
    fault == kUseAndLater ? bench.m_vesk.fail_always(operation, 0) : bench.m_vesk.fail_once(operation, 0);
  });
  std::string result = "std::bad_alloc";
  count_allocations(is_use ? 0 : nth);
  try {
    result = tried.call(bench.m_client, {});
  } catch (const std::bad_alloc&) {
  }
  if (counted_allocations() >= nth && !is_use) failed = "operator new";
  bench.m_vesk.at_use(0, {});  // none any more
  bench.m_refuses = false;
  if (failed.empty()) return false;
  ++g_troubles;
  // A launch whose question failed has an empty intent, which is then sent.
  const bool goes_on = tried.name == std::string_view("launchApplicationWithPackageName") && result == tried.result;
  const bool throws = !is_use && result == "std::bad_alloc";
  require(kFailTheCall.count(failed) == 0 || goes_on || throws || result == tried.failure,
          failed + " fails and gives " + result);
  bench.m_vesk.repair();
  bench.expect_unlocked();
  bench.expect_works(tried);
  bench.m_client.shutdown();
  // A network registration leaves its request and its reply behind, on purpose, when another call follows.
  require(bench.left(/*forgotten=*/tried.service == kConnectivity));
  return true;
}

void fail_everywhere(const Method& tried) {
  for (const Point fault : {kUse, kUseAndLater, kAllocation, kAllocationOnException}) {
    for (int nth = 1; fail(tried, fault, nth);) ++nth;
  }
}

void prepare(Bench& bench, const Absence& what) {
  if (!what.at_start) {
    bench.start();
    Bench::subscribe(bench.m_client);
  }
  if (what.bind_is_held) bench.m_vesk.hold_binds(what.service);
}

// Returns whether the library gets to the `nth` of these points.
bool trouble_at(const Absence& what, Trouble trouble, Point point, int nth) {
  begin(what.name + kPoints[point] + std::to_string(nth) + ", trouble " + std::to_string(trouble));
  Bench bench;
  prepare(bench, what);
  std::thread stopper;
  std::atomic<bool> reached{false};
  std::atomic<bool> stays{false};
  const auto step = [&](std::string_view operation) {
    reached = true;
    stays = trouble == kFails && kLetGo.count(operation) != 0;
    if (trouble == kFails) return bench.m_vesk.fail_once(operation, 0);
    stopper = std::thread([&] { bench.m_client.shutdown(); });
    if (trouble == kInterrupting)
      while (!orvel::service_apis::waiting::interrupted()) std::this_thread::yield();
    // A shutdown waits for what binds, publishes or gets the runtime, so that nothing does so after it.
    static const std::set<std::string_view> waited_for = {"vesk_service_bind", "vesk_binder_servicemanager_get",
                                                          "vesk_service_register", "vesk_get_runtime"};
    if (trouble == kRuntimeShutDown && waited_for.count(operation) == 0)
      while (bench.m_vesk.uses("vesk_shutdown") == 0) std::this_thread::yield();
  };
  if (point == kUse) bench.m_vesk.at_use(nth, step);
  bench.bind(
      what, point == kSleep ? nth : 0, [&] { step(""); }, point == kAllocation ? nth : 0);
  if (point == kAllocation) reached = bench.m_made >= nth;
  if (trouble == kFails) bench.expect_recovers(what, stays);
  bench.m_client.shutdown();
  if (stopper.joinable()) stopper.join();
  require(stays ? "" : bench.left(/*forgotten=*/trouble == kFails));
  if (reached) ++g_troubles;
  return reached;
}

void trouble_everywhere(const Absence& what) {
  int sleeps = 0;
  int uses = 0;
  {
    Bench undisturbed;
    prepare(undisturbed, what);
    uses = undisturbed.m_vesk.uses();
    undisturbed.bind(what);
    undisturbed.await_run_loop();
    uses = undisturbed.m_vesk.uses() - uses;
    sleeps = static_cast<int>(undisturbed.m_clock.sleeps().size());
  }
  for (int n = kFails; n < kTroubles; ++n) {
    const auto trouble = static_cast<Trouble>(n);
    for (int use = 1; use <= uses; ++use) require(trouble_at(what, trouble, kUse, use), "the use is reached");
    for (int sleep = 1; sleep <= sleeps && trouble != kFails; ++sleep) {
      require(trouble_at(what, trouble, kSleep, sleep), "the sleep is reached");
    }
  }
  for (int nth = 1; trouble_at(what, kFails, kAllocation, nth);) ++nth;
}

}  // namespace

int main(int argc, char** argv) {
  Runner runner("orvel-faults",
                "Each use of libvesk and each allocation fails in turn, or the client is shut down there");
  for (const Method& each : kMethods) runner.add(each.name, [&each] { fail_everywhere(each); });
  for (const Absence& what : absences()) runner.add("bind/" + what.name, [what] { trouble_everywhere(what); });
  if (const auto ended = runner.parse(argc, argv)) return *ended;
  g_canary = runner.canary();
  discard_log();
  return runner.run([] { return std::to_string(g_troubles) + " faults and shutdowns"; });
}

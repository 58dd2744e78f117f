// All public methods on eight threads while services die and come back; every way in which a process may end. Run under
// ThreadSanitizer, whose reports make it fail too.
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <functional>
#include <future>
#include <iterator>
#include <memory>
#include <mutex>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "support/ClientFixture.h"
#include "support/LogRecorder.h"
#include "support/Notifications.h"
#include "support/Process.h"
#include "support/Runner.h"

// A process may end between the end of a run-loop thread and its join, which ThreadSanitizer takes for a leak.
extern "C" __attribute__((visibility("default"))) const char* tsanDefaultOptions() __asm__("__tsan_default_options");
extern "C" const char* tsanDefaultOptions() {
  return "report_thread_leaks=0";
}

namespace {

using namespace orvel::test;  // NOLINT(google-build-using-namespace)
using Random = std::mt19937_64;
using orvel::service_apis::Subscription;

// Registrations are for ever, and each death renews them all.
constexpr long kCallsPerRound = 5000;
constexpr int kThreads = 8;

std::atomic<long> g_kills{0};
std::atomic<long> g_notifications{0};

// ---- A device that works, breaks and comes back at random ----

class RandomDevice : public FakeServices {
 public:
  // `wrong`: the device's name is a wrong one.
  explicit RandomDevice(std::uint64_t seed, bool wrong = false) : m_wrong(wrong), m_random(seed) { start_services(); }
  ~RandomDevice() override { stop(); }

  // A service that answers well most of the time.
  void serve(const std::string& service) override {
    m_vesk.add_service(service, [this](const Transaction& call) { return reply(call); });
  }

  // Has a thread of its own kill and start services, hold calls and binds, and send notifications, until stop().
  void start_acting() {
    m_acting = true;
    m_actor = std::thread([this] {
      for (; m_acting; std::this_thread::sleep_for(std::chrono::microseconds(200))) act();
    });
  }
  // Ends that and lets everything go that is held.
  void stop() {
    m_acting = false;
    if (m_actor.joinable()) m_actor.join();
    let_go();
  }

 private:
  std::uint64_t draw() {
    const std::lock_guard<std::mutex> lock(m_mutex);
    return m_random();
  }

  void kill(const std::string& service) {
    ++g_kills;
    m_vesk.kill_service(service);
  }

  Reply reply(const Transaction& call) {
    const auto choice = draw() % 256;
    if (choice == 0) return {wire("-1 'no' 0"), 0};
    if (choice == 1) return {{}, -EIO};
    if (choice == 2) kill(call.service);
    if (!call.endpoints.empty()) {
      const std::lock_guard<std::mutex> lock(m_mutex);
      m_subscriptions[m_subscribed++ % m_subscriptions.size()] = call;
    }
    if (m_wrong && call.service == kServices[kDelegate] && call.code == 33) return {wire("0 'wrong'"), 0};
    return {good_reply(call.service, call.code), 0};
  }

  void let_go() {
    for (const char* service : kServices) {
      if (draw() % 2 == 0) m_vesk.expire_calls(service);
      m_vesk.let_calls_go(service);
      m_vesk.complete_binds(service);
    }
  }

  void act() {
    let_go();
    const auto choice = draw() % 32;
    const char* const service = kServices.at(draw() % kServiceCount);
    if (choice < 4) kill(service);
    if (choice >= 4 && choice < 12) start_services();  // what runs goes on as it was
    if (choice == 12) m_vesk.hold_calls(service);
    if (choice == 13) m_vesk.hold_binds(service);
    if (choice == 14) m_vesk.refuse_binds(service, 2);
    for (int n = 0; n < 4 && choice > 14; ++n) notify();
  }

  void notify() {
    const auto choice = draw();
    m_vesk.send("sim_broker_service_N_vesk_endpoint", 1, wire("'a' 'b'"));
    std::unique_lock<std::mutex> lock(m_mutex);
    const Transaction to = m_subscriptions[choice % m_subscriptions.size()];
    lock.unlock();
    if (to.endpoints.empty()) return;
    vesk_endpoint* const endpoint = to.endpoints.front();
    if (to.service == kServices[kConnectivity]) {
      m_vesk.send(endpoint, choice % 2 == 0 ? 1 : 6, {});
    } else if (to.service == kServices[kEvents]) {
      m_vesk.send(endpoint, 1, notification(wire("1 1")));
      if (choice % 4 == 0) m_vesk.release_endpoint(endpoint);
    } else if (to.code == 34) {
      m_vesk.call(endpoint, 1, setting("k", "7"));
    } else {
      // With an extra of every kind, so that each listener finds its own.
      const char extras[] =
          "'com.quarlo.hux.sso.property.devicename' 0 'Hall' 'com.quarlo.speech.EXTRA_CONNECTIVITY' 1 1 "
          "'com.quarlo.velmos.service.timeservice.clock.OLD_TIME_MILLIS' 6 1L 'packageName' 0 'a.b'";
      m_vesk.send(endpoint, 1, broadcast("any", "package:a.b", 4, wire(extras)));
    }
  }

  const bool m_wrong;
  std::mutex m_mutex;  // guards the next three
  Random m_random;
  std::array<Transaction, 64> m_subscriptions;  // the newest, which may have ended since
  std::size_t m_subscribed = 0;

  std::atomic<bool> m_acting{false};
  std::thread m_actor;  // Last: uses the rest.
};

// ---- Public methods on several threads ----

// Calls a public method, chosen at random; a shutdown() is rarer than the rest, so that the client is in use most of
// the time. What it subscribes to calls back into the client, half of the time. Any thread.
void make_call(Random& random) {
  Client& client = Client::getClient();
  const Hear hear = [](const std::string&) {
    thread_local bool t_calls = false;
    Random its(static_cast<std::uint64_t>(++g_notifications));
    if (t_calls || its() % 2 == 0) return;
    t_calls = true;
    make_call(its);
    t_calls = false;
  };
  const std::size_t chosen = random() % (kMethods.size() + 1);
  if (chosen == kMethods.size()) {
    if (random() % 8 == 0) client.shutdown();
    if (random() % 8 != 0) client.initialize();
    return;
  }
  const Method& method = kMethods.at(chosen);
  const std::string result = method.call(client, hear);
  // Refused is false where nothing is asked, too: the connectivity callback may hold the client.
  require(result == method.result || result == method.failure || result == method.refused || result == "false",
          std::string(method.name) + " gives " + result);
}

void call_and_kill(const Runner& runner) {
  Client& client = Client::getClient();
  for (long made = 0; made < runner.count(); made += kCallsPerRound) {
    const std::uint64_t seed = runner.seed() + static_cast<std::uint64_t>(made / kCallsPerRound);
    begin("a round of calls, seed " + std::to_string(seed));
    RandomDevice device(seed, runner.canary());
    client.initialize();
    device.start_acting();
    const long share = (std::min(kCallsPerRound, runner.count() - made) + kThreads - 1) / kThreads;
    std::vector<std::thread> callers;
    for (std::uint64_t n = 0; n < kThreads; ++n) {
      callers.emplace_back([share, random = Random(seed * 1000 + n)]() mutable {
        for (long left = share; left > 0; --left) make_call(random);
      });
    }
    for (std::thread& caller : callers) caller.join();
    device.stop();
    client.shutdown();
    require(client.initialize(), "the client starts again after it all");
    client.shutdown();
    require(device.left(/*forgotten=*/true));
  }
}

// ---- Ends of a process ----

constexpr int kExitStatus = 3;

// The device of a process that ends. It lives as long as the process.
RandomDevice* g_device = nullptr;

// Runs behind the client's destructor.
void expect_stopped() {
  if (g_device->m_vesk.uses("vesk_shutdown") == 0) _exit(kExitStatus + 1);
}

// Starts the client, with a callback whose captured object uses the client when it ends.
void start_client() {
  static Client& client = Client::getClient();
  if (!client.initialize()) std::abort();
  const std::shared_ptr<void> captured(&client, [](void*) { client.shutdown(); });
  client.registerForTimeSync([captured](long long, long long) {});
}

// Uses the client when it is destroyed.
struct LateUser {
  ~LateUser() {
    Client& client = Client::getClient();
    client.getDeviceName();
    client.shutdown();
    client.registerForTimeSync([](long long, long long) {});
  }
};

// Starts the client, runs `step` in a callback, and returns when it has begun.
void in_callback(const std::function<void()>& step) {
  static auto& entered = *new std::promise<void>;
  start_client();
  g_device->m_vesk.post([step] {
    entered.set_value();
    step();
  });
  entered.get_future().wait();
}

template <void (*kExit)(int)>
void exit_in_callback() {
  in_callback([] { kExit(kExitStatus); });
  for (;;) pause();
}

// How a process ends under a running client, which was not created yet.
const struct Exit {
  const char* name;
  void (*end)();
} kExits[] = {
    {"exit-in-a-callback", exit_in_callback<std::exit>},
    {"_exit-in-a-callback", exit_in_callback<_exit>},
    {"quick_exit-in-a-callback", exit_in_callback<std::quick_exit>},
    {"exit-while-a-callback-runs",
     [] {
       in_callback([] {
         for (int n = 0; n < 200; ++n) Client::getClient().getDeviceName();
       });
     }},
    {"exit-in-a-callback-while-main-shuts-down",
     [] {
       in_callback([] {
         while (g_device->m_vesk.uses("vesk_shutdown") == 0) std::this_thread::yield();
         std::exit(kExitStatus);
       });
       Client::getClient().shutdown();
       for (;;) pause();
     }},
    {"exit-while-threads-use-the-client",
     [] {
       static std::atomic<int> begun{0};
       start_client();
       for (std::uint64_t seed = 0; seed < 4; ++seed) {
         std::thread([random = Random(seed)]() mutable {
           for (;; ++begun) make_call(random);
         }).detach();
       }
       while (begun < 100) std::this_thread::yield();
     }},
    {"exit-while-a-start-waits",
     [] {
       g_device->m_vesk.hold_binds(kServices[kMetrics]);
       std::thread([] { Client::getClient().initialize(); }).detach();
       while (g_device->m_vesk.bindings().size() < kMetrics) std::this_thread::yield();
     }},
    {"exit-with-static-subscriptions",
     [] {
       static Subscription ends_after_the_client;
       start_client();
       static Subscription ends_before_the_client = Client::getClient().subscribeTimeSync([](long long, long long) {});
       ends_after_the_client = Client::getClient().subscribeScreenStateChange([](bool) {});
       static const Subscription links = Client::getClient().subscribeLink([](const auto&) {});
     }},
    {"exit-in-the-callback-of-a-static-subscription",
     [] {
       static Subscription own;
       start_client();
       static const Subscription links = Client::getClient().subscribeLink([](const auto&) {});
       own = Client::getClient().subscribeTimeSync([](long long, long long) { std::exit(kExitStatus); });
       g_device->m_vesk.send(g_device->registrations().back().endpoints.front(), 1, broadcast("any", ""));
       for (;;) pause();
     }},
    {"exit-with-static-objects-that-use-the-client",
     [] {
       static const LateUser ends_after_the_client;
       start_client();
       static const LateUser ends_before_the_client;
     }},
};

}  // namespace

int main(int argc, char** argv) {
  Runner runner("orvel-races", "Races of the client library; --count calls on eight threads", 20'000);
  std::size_t exit = std::size(kExits);
  runner.options().add_option("--exit", exit, "be the process that ends in this way")->group("");
  runner.add("calls", [&] { call_and_kill(runner); });
  for (const Exit& each : kExits) {
    runner.add(std::string("ends/") + each.name, [&each] {
      const Result ended = run({"/proc/self/exe", "--exit", std::to_string(&each - kExits)});
      require(ended.status == kExitStatus, "it ends with status " + std::to_string(ended.status) + ": " + ended.error);
    });
  }
  if (const auto ended = runner.parse(argc, argv)) return *ended;
  discard_log();
  if (exit < std::size(kExits)) {
    g_device = new RandomDevice(runner.seed());
    std::atexit(expect_stopped);
    kExits[exit].end();
    std::exit(kExitStatus);
  }
  return runner.run([&] {
    return std::to_string(runner.count()) + " calls, " + std::to_string(g_kills) + " kills, " +
           std::to_string(g_notifications) + " notifications";
  });
}

// Each operation of libvesk, and each allocation, that every public method uses fails in turn.
#include <unistd.h>

#include <CLI/CLI.hpp>

#include <android/log.h>

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <future>
#include <iostream>
#include <new>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "Allocations.h"
#include "Rows.h"
#include "support/Services.h"
#include "support/Vesk.h"
#include "support/VirtualClock.h"

namespace {

using namespace orvel::fuzz;  // NOLINT(google-build-using-namespace)
using namespace orvel::test;  // NOLINT(google-build-using-namespace)
using orvel::service_apis::OrvelDelegateClient;

constexpr const char* kDelegate = kServices[0];
constexpr const char* kDirectives = kServices[3];

Bytes texts(int count) {
  Bytes all;
  for (int n = 1; n <= count; ++n) all.utf16(std::to_string(n));
  return all;
}

Bytes application() {
  Bytes info = Bytes().i32(1).i32(1).append(texts(9)).i32(0).i32(0).i32(0);
  for (int n = 0; n < 10; ++n) info.i32(n);
  info.append(texts(3)).i32(1).i32(1).i32(0).i32(2);
  return info.utf16("n").i32(1).i32(5).utf16("s").i32(0).utf16("text");
}

Bytes answer_to(const Transaction& call) {
  Bytes packages = Bytes().i32(2).utf16("a.b").utf16("c");
  if (call.service == kServices[6]) return packages;
  if (call.service == kServices[4]) {
    Bytes process = Bytes().i32(1).i32(1).utf16("p").i32(1).i32(2).i32(1).utf16("a.b").i32(3).i32(4).i32(100);
    return process.i32(6).i32(7).i32(8).utf16("").i32(9).i32(10).i32(1).i64(11);
  }
  if (call.service != kDelegate) return Bytes().i32(call.code == 3 ? 2 : 1);
  switch (call.code) {
    case 14:
      return Bytes().i32(1).append(texts(10));
    case 15:
      return Bytes().utf16("42");
    case 21:
      return packages;
    case 26:
      return Bytes().i32(1);
    case 53:
      return application();
    case 54:
      return Bytes().i32(1).i32(1).utf16("a.b").i32(1234).utf16("1.2").i64(1).i64(2).i32(0);
    case 59:
      return Bytes().i32(1).i32(1).i32(1).i32(1).i32(1).utf16("a.b").utf16("A").i32(1).i32(2).i32(3).i32(4);
    case 60:
      return Bytes().i32(1).i32(1).utf16("a").append(texts(3)).i32(0).i32(0);
    default:
      return Bytes().utf16("text");
  }
}

char g_case[300];  // for the last words of a program that hangs
int g_failures = 0;
long g_injected = 0;

void begin(const std::string& name) {
  std::snprintf(g_case, sizeof(g_case), "%s", name.c_str());
  alarm(60);
}

void hung(int) {
  static constexpr char kText[] = "HUNG: ";
  for (const char* text : {kText, static_cast<const char*>(g_case), "\n"}) {
    if (write(STDOUT_FILENO, text, std::strlen(text)) < 0) break;
  }
  _exit(1);
}

void expect(bool good, const std::string& what) {
  if (good) return;
  ++g_failures;
  std::cout << "FAILED: " << g_case << ": " << what << "\n";
}

// A device and the client, and how both are put to the test.
class Bench {
 public:
  Bench() {
    m_vesk.keep_quiet();
    m_vesk.be_strict();
    for (const char* name : kServices) serve(name);
  }
  ~Bench() { m_client.shutdown(); }
  Bench(const Bench&) = delete;
  Bench& operator=(const Bench&) = delete;

  void serve(const char* name) {
    m_vesk.add_service(name, [this](const Transaction& call) {
      const Unarmed mine;
      if (call.code == 34 || (call.service == kDelegate && call.code == 28)) ++m_registrations;
      return Reply{Bytes().i32(0).append(answer_to(call)), 0};
    });
  }

  OrvelDelegateClient& client() { return m_client; }
  InprocessVesk& vesk() { return m_vesk; }

  // Nobody holds a lock.
  void expect_unlocked() {
    std::thread([this] {
      m_client.isMaroConnected();
      m_client.getDeviceName();
    }).join();
  }

  // The service dies and comes back; `armed` runs when the pause of 6 s ends.
  void die(const char* name, const std::function<void()>& armed = {}) {
    m_registrations = 0;
    m_clock.at_sleep(1, [this, name, armed] {
      serve(name);
      if (armed) armed();
    });
    m_vesk.kill_service(name);
    m_vesk.post([] { disarm(); });
    m_vesk.drain();
  }

  [[nodiscard]] int registrations() const { return m_registrations; }
  [[nodiscard]] long published() const {
    long count = 0;
    for (const std::string& binding : m_vesk.bindings()) count += binding[0] == '=' ? 1 : 0;
    return count;
  }

  // `forgotten`: requests and replies that are left on purpose.
  void expect_nothing_left(bool forgotten) {
    m_client.shutdown();
    const Live live = m_vesk.live();
    std::ostringstream left;
    left << "left: " << live;
    const bool messages = live.payloads + live.buffers > 0 && !forgotten;
    const int references = live.handle_references + live.endpoint_references + live.death_references;
    expect(!messages && references == 0, left.str());
  }

 private:
  InprocessVesk m_vesk;
  VirtualClock m_clock;
  OrvelDelegateClient& m_client = OrvelDelegateClient::getClient();
  int m_registrations = 0;  // those that the delegate service took since its last death
};

bool contains(const std::vector<std::string>& all, const std::string& one) {
  return std::find(all.begin(), all.end(), one) != all.end();
}

struct Operation {
  const char* name;
  bool ends_call;  // its failure is the call's
};

// Those of vesk_read_* leave what a shorter reply would.
constexpr Operation kCallOperations[] = {{"vesk_payload_alloc", true},
                                         {"vesk_buffer_alloc", true},
                                         {"vesk_write_i32", true},
                                         {"vesk_write_i64", true},
                                         {"vesk_write_f64", true},
                                         {"vesk_write_utf16_cstring", true},
                                         {"vesk_write_array_length", true},
                                         {"vesk_write_endpoint", true},
                                         {"vesk_payload_set_position", true},
                                         {"vesk_call", true},
                                         {"vesk_service_register", true},
                                         {"vesk_reply_done", false},
                                         {"vesk_read_i32", false},
                                         {"vesk_read_i64", false},
                                         {"vesk_read_array_length", false},
                                         {"vesk_read_utf16_string", false}};

// A registration leaves its request and reply behind when another call follows.
bool forgets(const Row& row) {
  return row.name == std::string("registerForNetworkConnectivityChange");
}

void expect_works(Bench& bench, const Row& row) {
  bench.expect_unlocked();
  const std::string again = row.call(bench.client());
  expect(again == row.success, "afterwards " + again + ", not " + row.success);
}

// Each operation of libvesk fails at each of its uses, then from each of them on.
void fail_operations(const Row& row) {
  for (const Operation& operation : kCallOperations) {
    for (const bool always : {false, true}) {
      for (int nth = 1;; ++nth) {
        Bench bench;
        begin(std::string(row.name) + ", " + operation.name + (always ? " always from " : " at ") +
              std::to_string(nth));
        bench.client().initialize();
        const int before = bench.vesk().uses(operation.name);
        always ? bench.vesk().fail_always(operation.name, nth) : bench.vesk().fail_once(operation.name, nth);
        const std::string result = row.call(bench.client());
        if (bench.vesk().uses(operation.name) - before < nth) break;
        ++g_injected;
        const bool cut = contains(row.cut, result);
        if (operation.ends_call) {
          expect(result == row.failure || cut, "gave " + result + ", not " + row.failure);
        } else {
          expect(result == row.success || result == row.failure || cut, "gave " + result);
        }
        bench.vesk().repair();
        expect_works(bench, row);
        bench.expect_nothing_left(forgets(row));
      }
    }
  }
}

// Each allocation of the library fails, on the caller's thread.
void fail_allocations(const Row& row) {
  Bench bench;
  bench.client().initialize();
  row.call(bench.client());
  for (long nth = 1;; ++nth) {
    begin(std::string(row.name) + ", allocation " + std::to_string(nth));
    std::string result = "bad_alloc";
    bool failed = false;
    try {
      arm(nth);
      result = row.call(bench.client());
      disarm();
      failed = allocations() >= nth;
    } catch (const std::bad_alloc&) {
      disarm();
      failed = true;
    }
    if (!failed) break;
    ++g_injected;
    expect(result == "bad_alloc" || result == row.failure || result == row.success, "gave " + result);
    expect_works(bench, row);
  }
  bench.expect_nothing_left(forgets(row));
}

// After whatever became of the faults, the client can be started and everything works.
void expect_starts_again(Bench& bench) {
  bench.vesk().repair();
  bench.expect_unlocked();
  bench.client().shutdown();
  expect(bench.client().initialize(), "does not start again");
  for (const Row& row : kRows) {
    const std::string result = row.call(bench.client());
    expect(result == row.success, std::string(row.name) + " gives " + result + " afterwards");
  }
}

constexpr const char* kBindOperations[] = {
    "vesk_get_runtime",     "vesk_run_loop",       "vesk_service_bind",         "vesk_binder_servicemanager_get",
    "vesk_handle_is_valid", "vesk_handle_acquire", "vesk_handle_link_to_death", "vesk_handle_unlink_to_death",
    "vesk_handle_release",  "vesk_service_unbind"};

void subscribe(OrvelDelegateClient& client) {
  client.registerForSecureSettingIntChange("k", 1, [](int) {});
  client.registerForTimeSync([](long long, long long) {});
  client.registerForScreenStateChange([](bool) {});
  client.registerForDirective("Alerts", {});
}
constexpr int kRegistrations = 4;

// A death after which nothing fails any more must bring everything back.
void expect_rebinds(Bench& bench) {
  bench.vesk().repair();
  const long before = bench.published();
  bench.die(kDelegate);
  expect(bench.registrations() == kRegistrations,
         std::to_string(bench.registrations()) + " registrations after the next death");
  bench.die(kDirectives);
  expect(bench.published() == before + 1, "the namespace is not published again");
}

void fail_starts() {
  for (const char* operation : kBindOperations) {
    for (int nth = 1;; ++nth) {
      Bench bench;
      begin(std::string("initialize, ") + operation + " at " + std::to_string(nth));
      bench.vesk().fail_once(operation, nth);
      bench.client().initialize();
      bench.client().shutdown();
      if (bench.vesk().uses(operation) < nth) break;
      ++g_injected;
      expect_starts_again(bench);
    }
  }
  for (long nth = 1;; ++nth) {
    Bench bench;
    begin("initialize, allocation " + std::to_string(nth));
    bool thrown = false;
    try {
      arm(nth);
      bench.client().initialize();
    } catch (const std::bad_alloc&) {
      thrown = true;
    }
    disarm();
    if (!thrown && allocations() < nth) break;
    ++g_injected;
    if (thrown) {
      Live live = bench.vesk().live();
      live.lookups = 0;  // the handle that could not be linked stays bound
      expect(live == Live{}, "something is left of the start");
    }
    expect_starts_again(bench);
    bench.expect_nothing_left(true);
  }
}

void fail_rebinds() {
  for (const char* service : {kDelegate, kDirectives}) {
    const auto fail = [&](const std::string& name, const std::function<bool(Bench&)>& inject) {
      Bench bench;
      begin("rebind of " + std::string(service) + ", " + name);
      bench.client().initialize();
      subscribe(bench.client());
      if (!inject(bench)) return false;
      ++g_injected;
      bench.expect_unlocked();
      // Where the fault has cost the connection for good, a start brings it back, and the subscriptions are the caller's.
      if (service == kDelegate ? bench.client().getDeviceName().empty() : bench.vesk().live().death_references < 8) {
        expect_starts_again(bench);
        bench.client().shutdown();
        bench.client().initialize();
        subscribe(bench.client());
      }
      expect_rebinds(bench);
      bench.expect_nothing_left(true);
      return true;
    };
    std::vector<std::string> operations(std::begin(kBindOperations), std::end(kBindOperations));
    for (const Operation& operation : kCallOperations) operations.emplace_back(operation.name);
    for (const std::string& operation : operations) {
      // What cannot be let go of stays, and there is nothing that a client could do.
      if (operation == "vesk_get_runtime" || operation == "vesk_run_loop") continue;  // used by starts only
      const bool releases = operation == "vesk_handle_release" || operation == "vesk_service_unbind" ||
                            operation == "vesk_handle_unlink_to_death" || operation == "vesk_handle_is_valid";
      if (releases) continue;
      int nth = 1;
      const auto inject = [&](Bench& bench) {
        const int before = bench.vesk().uses(operation);
        bench.vesk().fail_once(operation, nth);
        bench.die(service);
        return bench.vesk().uses(operation) - before >= nth;
      };
      while (fail(operation + " at " + std::to_string(nth), inject)) ++nth;
    }
    long nth = 1;
    const auto inject = [&](Bench& bench) {
      bench.die(service, [&] { arm(nth); });
      std::promise<long> used;
      bench.vesk().post([&] { used.set_value(allocations()); });
      return used.get_future().get() >= nth;
    };
    while (fail("allocation " + std::to_string(nth), inject)) ++nth;
  }
}

}  // namespace

int main(int argc, char** argv) {
  std::string only;
  unsigned seed = 0;
  unsigned count = 0;
  CLI::App app("Each operation of libvesk, and each allocation, that every public method uses fails in turn");
  app.add_option("--only", only, "a method, or start or rebind");
  app.add_option("--seed", seed, "for uniformity: everything is tried, in the same order");
  app.add_option("--count", count, "how many methods; 0 for all")->capture_default_str();
  CLI11_PARSE(app, argc, argv);
  std::signal(SIGALRM, hung);
  __android_log_set_logger([](const __android_logger_data*, const char*) {});
  {
    // The virtual clock keeps the room for as many sleeps as there have been, and needs none of its own later.
    Bench bench;
    bench.client().initialize();
    subscribe(bench.client());
    for (int death = 0; death < 64; ++death) bench.die(kDelegate);
  }

  unsigned methods = 0;
  for (const Row& row : kRows) {
    if (!only.empty() && only != row.name) continue;
    if (count != 0 && methods == count) break;
    ++methods;
    fail_operations(row);
    fail_allocations(row);
  }
  if (only.empty() || only == "start") fail_starts();
  if (only.empty() || only == "rebind") fail_rebinds();
  alarm(0);
  std::cout << "faults: " << methods << " methods, start and rebind, " << g_injected << " faults, " << g_failures
            << " failed\n";
  return g_failures == 0 ? 0 : 1;
}

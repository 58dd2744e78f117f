// Each use of libvesk, and each allocation, that every public method makes fails in turn.
#include <android/log.h>

#include <algorithm>
#include <future>
#include <iterator>
#include <new>
#include <sstream>
#include <string>
#include <thread>
#include <utility>

#include "Allocations.h"
#include "support/ClientFixture.h"
#include "support/Runner.h"

namespace {

using namespace orvel::fuzz;  // NOLINT(google-build-using-namespace)
using namespace orvel::test;  // NOLINT(google-build-using-namespace)

// Their failure is that of the call, or of the registration.
constexpr const char* kRequestOperations[] = {"vesk_payload_alloc",
                                              "vesk_buffer_alloc",
                                              "vesk_write_i32",
                                              "vesk_write_i64",
                                              "vesk_write_f64",
                                              "vesk_write_utf16_cstring",
                                              "vesk_write_array_length",
                                              "vesk_write_endpoint",
                                              "vesk_payload_set_position",
                                              "vesk_call",
                                              "vesk_service_register"};
// A read that fails leaves what a reply that was cut there would.
constexpr const char* kReplyOperations[] = {"vesk_reply_done", "vesk_read_i32", "vesk_read_i64",
                                            "vesk_read_array_length", "vesk_read_utf16_string"};
constexpr const char* kStartOperations[] = {"vesk_get_runtime", "vesk_run_loop"};
constexpr const char* kBindOperations[] = {"vesk_service_bind", "vesk_binder_servicemanager_get", "vesk_handle_acquire",
                                           "vesk_handle_link_to_death"};
// What cannot be let go of stays: there is nothing that a client could do, but go on.
constexpr const char* kReleaseOperations[] = {"vesk_handle_is_valid", "vesk_handle_unlink_to_death",
                                              "vesk_handle_release", "vesk_service_unbind"};

long g_injected = 0;
bool g_canary = false;

// A client on its device, and how both are put to the test.
class Bench final : public ClientFixture {
 public:
  Bench() {
    m_vesk.keep_quiet();
    start_services();
    if (g_canary) m_planted.reset(vesk_payload_alloc());  // as a method would that forgets its request
  }
  ~Bench() override { m_client.shutdown(); }

  void serve(const std::string& service) override {
    m_vesk.add_service(service, [](const Transaction& call) {
      const Unarmed mine;
      return Reply{good_reply(call.service, call.code), 0};
    });
    if (m_failing != 0) arm(std::exchange(m_failing, 0));
  }

  // The service dies and comes back; the run loop's allocation of that number after the pause, if any, fails.
  void die(const char* service, long failing_allocation = 0) {
    m_failing = failing_allocation;
    ClientFixture::die(service);
    m_vesk.post([] { disarm(); });
    m_vesk.drain();
  }

  std::ptrdiff_t published() const {
    const std::vector<std::string> all = m_vesk.bindings();
    return std::count_if(all.begin(), all.end(), [](const std::string& each) { return each[0] == '='; });
  }

  void expect_unlocked() {
    std::thread([this] {
      m_client.isMaroConnected();
      m_client.getDeviceName();
    }).join();
  }

  void expect_works(const Method& tried) {
    expect_unlocked();
    const std::string result = tried.call(m_client, {});
    require(result == tried.result, std::string(tried.name) + " gives " + result + " afterwards");
  }

  // Whatever became of the faults, the client can be started again, and everything works.
  void expect_starts_again() {
    m_vesk.repair();
    expect_unlocked();
    m_client.shutdown();
    require(m_client.initialize(), "it starts again");
    for (const Method& each : kMethods) expect_works(each);
  }

  // A death after which nothing fails any more brings everything back.
  void expect_rebinds() {
    m_vesk.repair();
    const std::ptrdiff_t before = published();
    die(kServices[kDelegate]);
    require(registrations().size() == kRegistrations, "the next death renews every registration");
    die(kServices[kDirectives]);
    require(published() == before + 1, "the next death publishes the namespace again");
  }

  // `forgotten`: requests and replies may be left, on purpose.
  void expect_nothing_left(bool forgotten) {
    m_client.shutdown();
    Live left = m_vesk.live();
    left.lookups = 0;  // a handle that could not be linked to its death stays bound
    if (forgotten) left.payloads = left.buffers = 0;
    std::ostringstream text;
    text << "nothing is left, not " << left;
    require(left == Live{}, text.str());
  }

  Client& m_client = Client::getClient();

 private:
  PayloadPtr m_planted;
  long m_failing = 0;
};

// A network registration leaves its request and its reply behind when another call follows.
bool forgets(const Method& tried) {
  return tried.service == kConnectivity;
}

// A use of libvesk fails, that one or it and all that follow. False when the method makes fewer uses.
bool fail_use(const Method& tried, const char* operation, bool of_request, int nth, bool always) {
  Bench bench;
  begin(std::string(tried.name) + ", " + operation + (always ? " always from " : " at ") + std::to_string(nth));
  bench.m_client.initialize();
  const int before = bench.m_vesk.uses(operation);
  always ? bench.m_vesk.fail_always(operation, nth) : bench.m_vesk.fail_once(operation, nth);
  const std::string result = tried.call(bench.m_client, {});
  if (bench.m_vesk.uses(operation) - before < nth) return false;
  ++g_injected;
  // A launch whose question failed has an empty intent, which is then sent.
  const bool goes_on = tried.name == std::string("launchApplicationWithPackageName") && result == tried.result;
  require(!of_request || goes_on || result == tried.failure, "it gives " + result + ", not " + tried.failure);
  bench.m_vesk.repair();
  bench.expect_works(tried);
  bench.expect_nothing_left(forgets(tried));
  return true;
}

// An allocation on the caller's thread fails: std::bad_alloc, or the result of a failure. False when there are fewer.
bool fail_allocation(Bench& bench, const Method& tried, long nth) {
  begin(std::string(tried.name) + ", allocation " + std::to_string(nth));
  std::string result = "bad_alloc";
  arm(nth);
  try {
    result = tried.call(bench.m_client, {});
  } catch (const std::bad_alloc&) {
  }
  disarm();
  if (allocations() < nth) return false;
  ++g_injected;
  require(result == "bad_alloc" || result == tried.failure || result == tried.result, "it gives " + result);
  bench.expect_works(tried);
  return true;
}

void fail_method(const Method& tried) {
  const auto fail_uses = [&](const char* operation, bool of_request) {
    for (const bool always : {false, true}) {
      for (int nth = 1; fail_use(tried, operation, of_request, nth, always);) ++nth;
    }
  };
  for (const char* operation : kRequestOperations) fail_uses(operation, true);
  for (const char* operation : kReplyOperations) fail_uses(operation, false);
  Bench bench;
  bench.m_client.initialize();
  tried.call(bench.m_client, {});
  for (long nth = 1; fail_allocation(bench, tried, nth);) ++nth;
  bench.expect_nothing_left(forgets(tried));
}

void fail_starts() {
  const auto fail_at = [](const char* operation, int nth) {
    Bench bench;
    begin(std::string("initialize, ") + operation + " at " + std::to_string(nth));
    bench.m_vesk.fail_once(operation, nth);
    bench.m_client.initialize();
    bench.m_client.shutdown();
    if (bench.m_vesk.uses(operation) < nth) return false;
    ++g_injected;
    bench.expect_starts_again();
    return true;
  };
  const auto fail_each = [&](const auto& operations) {
    for (const char* operation : operations) {
      for (int nth = 1; fail_at(operation, nth);) ++nth;
    }
  };
  fail_each(kStartOperations);
  fail_each(kBindOperations);
  fail_each(kReleaseOperations);
  for (long nth = 1;; ++nth) {
    Bench bench;
    begin("initialize, allocation " + std::to_string(nth));
    arm(nth);
    try {
      bench.m_client.initialize();
      disarm();
    } catch (const std::bad_alloc&) {
      disarm();
      Live left = bench.m_vesk.live();
      left.lookups = 0;  // as in expect_nothing_left()
      require(left == Live{}, "nothing is left of the start");
    }
    if (allocations() < nth) return;
    ++g_injected;
    bench.expect_starts_again();
    bench.expect_nothing_left(true);
  }
}

// One rebind in which `die` lets something fail; false when it fails nothing.
template <typename Die>
bool fail_rebind(Service service, const std::string& what, Die die) {
  Bench bench;
  begin(std::string("rebind of ") + kServices.at(service) + ", " + what);
  bench.m_client.initialize();
  Bench::subscribe(bench.m_client);
  if (!die(bench)) return false;
  ++g_injected;
  bench.expect_unlocked();
  // Where the fault has cost the connection for good, a start brings it back, and the subscriptions are the caller's.
  if (service == kDelegate ? bench.m_client.getDeviceName().empty()
                           : bench.m_vesk.live().death_references < kServiceCount) {
    bench.expect_starts_again();
    bench.m_client.shutdown();
    bench.m_client.initialize();
    Bench::subscribe(bench.m_client);
  }
  bench.expect_rebinds();
  bench.expect_nothing_left(true);
  return true;
}

void fail_rebinds(Service service) {
  const auto fail_each = [&](const auto& operations) {
    for (const char* operation : operations) {
      int nth = 1;
      const auto die = [&](Bench& bench) {
        const int before = bench.m_vesk.uses(operation);
        bench.m_vesk.fail_once(operation, nth);
        bench.die(kServices.at(service));
        return bench.m_vesk.uses(operation) - before >= nth;
      };
      while (fail_rebind(service, std::string(operation) + " at " + std::to_string(nth), die)) ++nth;
    }
  };
  fail_each(kBindOperations);
  fail_each(kRequestOperations);
  fail_each(kReplyOperations);
  long nth = 1;
  const auto die = [&](Bench& bench) {
    bench.die(kServices.at(service), nth);
    std::promise<long> used;
    bench.m_vesk.post([&] { used.set_value(allocations()); });
    return used.get_future().get() >= nth;
  };
  while (fail_rebind(service, "allocation " + std::to_string(nth), die)) ++nth;
}

}  // namespace

int main(int argc, char** argv) {
  Runner runner("orvel-faults",
                "Each use of libvesk, and each allocation, that every public method makes fails in turn");
  for (const Method& each : kMethods) runner.add(each.name, [&each] { fail_method(each); });
  runner.add("initialize", fail_starts);
  for (const Service service : {kDelegate, kDirectives}) {
    runner.add(std::string("rebind/") + kServices.at(service), [service] { fail_rebinds(service); });
  }
  if (const auto ended = runner.parse(argc, argv)) return *ended;
  g_canary = runner.canary();
  __android_log_set_logger([](const __android_logger_data*, const char*) {});
  return runner.run([] { return std::to_string(g_injected) + " faults"; });
}

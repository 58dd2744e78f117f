// Each use of libvesk, and each allocation, that every public method makes fails in turn.
#include <algorithm>
#include <initializer_list>
#include <new>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "Allocations.h"
#include "support/ClientFixture.h"
#include "support/LogRecorder.h"
#include "support/Runner.h"

namespace {

using namespace orvel::fuzz;  // NOLINT(google-build-using-namespace)
using namespace orvel::test;  // NOLINT(google-build-using-namespace)

// When operations of libvesk are used.
enum When { kInStarts, kInBinds, kInReleases, kInRequests, kInReplies };
const std::vector<const char*> kOperations[] = {
    {"vesk_get_runtime", "vesk_run_loop"},
    {"vesk_service_bind", "vesk_binder_servicemanager_get", "vesk_handle_acquire", "vesk_handle_link_to_death"},
    // What cannot be let go of stays: there is nothing that a client could do, but go on.
    {"vesk_handle_is_valid", "vesk_handle_unlink_to_death", "vesk_handle_release", "vesk_service_unbind"},
    // Their failure is that of the call, or of the registration.
    {"vesk_payload_alloc", "vesk_buffer_alloc", "vesk_write_i32", "vesk_write_i64", "vesk_write_f64",
     "vesk_write_utf16_cstring", "vesk_write_array_length", "vesk_write_endpoint", "vesk_payload_set_position",
     "vesk_call", "vesk_service_register"},
    // A read that fails leaves what a reply that was cut there would.
    {"vesk_reply_done", "vesk_read_i32", "vesk_read_i64", "vesk_read_array_length", "vesk_read_utf16_string"}};

// Has `fail(operation, nth)` let each use of these operations fail, until it returns that there are no more.
template <typename Fail>
void fail_each(std::initializer_list<When> when, Fail fail) {
  for (const When moment : when) {
    for (const char* operation : kOperations[moment]) {
      for (int nth = 1; fail(operation, nth);) ++nth;
    }
  }
}

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

  // The service dies and comes back; the run loop's allocation of that number after the pause, if any, fails. How many
  // allocations there were then.
  long die(const char* service, long failing_allocation = 0) {
    long count = 0;
    m_failing = failing_allocation;
    ClientFixture::die(service);
    m_vesk.post([&count] { count = disarm(); });
    m_vesk.drain();
    return count;
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

  // After any fault the client can be started again, and everything works.
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
    require(left(forgotten));
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
bool fail_use(const Method& tried, When when, const char* operation, int nth, bool always) {
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
  require(when == kInReplies || goes_on || result == tried.failure, "it gives " + result + ", not " + tried.failure);
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
  if (disarm() < nth) return false;
  ++g_injected;
  require(result == "bad_alloc" || result == tried.failure || result == tried.result, "it gives " + result);
  bench.expect_works(tried);
  return true;
}

void fail_method(const Method& tried) {
  for (const When when : {kInRequests, kInReplies}) {
    for (const bool always : {false, true}) {
      fail_each({when}, [&](const char* operation, int nth) { return fail_use(tried, when, operation, nth, always); });
    }
  }
  Bench bench;
  bench.m_client.initialize();
  tried.call(bench.m_client, {});
  for (long nth = 1; fail_allocation(bench, tried, nth);) ++nth;
  bench.expect_nothing_left(forgets(tried));
}

void fail_starts() {
  fail_each({kInStarts, kInBinds, kInReleases}, [](const char* operation, int nth) {
    Bench bench;
    begin(std::string("initialize, ") + operation + " at " + std::to_string(nth));
    bench.m_vesk.fail_once(operation, nth);
    bench.m_client.initialize();
    bench.m_client.shutdown();
    if (bench.m_vesk.uses(operation) < nth) return false;
    ++g_injected;
    bench.expect_starts_again();
    return true;
  });
  for (long nth = 1;; ++nth) {
    Bench bench;
    begin("initialize, allocation " + std::to_string(nth));
    arm(nth);
    try {
      bench.m_client.initialize();
    } catch (const std::bad_alloc&) {
      const Unarmed mine;
      require(bench.left(/*forgotten=*/false));
    }
    if (disarm() < nth) return;
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
  fail_each({kInBinds, kInRequests, kInReplies}, [&](const char* operation, int nth) {
    return fail_rebind(service, std::string(operation) + " at " + std::to_string(nth), [&](Bench& bench) {
      const int before = bench.m_vesk.uses(operation);
      bench.m_vesk.fail_once(operation, nth);
      bench.die(kServices.at(service));
      return bench.m_vesk.uses(operation) - before >= nth;
    });
  });
  long nth = 1;
  const auto die = [&](Bench& bench) { return bench.die(kServices.at(service), nth) >= nth; };
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
  discard_log();
  return runner.run([] { return std::to_string(g_injected) + " faults"; });
}

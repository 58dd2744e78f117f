// Throws every input of the tables at the simulated device and at a client, and looks after each whether they are
// alive, serve everybody else as before, and keep nothing.
#include <poll.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <CLI/CLI.hpp>
#include <chrono>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <memory>
#include <thread>

#include "Calls.h"
#include "Inputs.h"
#include "orvel/OrvelDelegateClient.h"
#include "support/Process.h"
#include "support/Runner.h"

namespace orvel::hostile {
namespace {

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;
using test::Limit;

// What a process may have more than before, once everybody has gone: what its allocator keeps.
constexpr long kMostKeptKb = 48 * 1024;
// What one input may make it use for a while: a message that sd-bus takes before it is refused, and copies of it.
constexpr long kMostUsedKb = 400 * 1024;
// Descriptors that a shutdown may leave for the next run of the loop to close; a leak soon exceeds them.
constexpr std::size_t kMostLeftOpen = 2;

// Within which a call to the device ends.
constexpr int kLimitMs = 500;

// A client that keeps the rules, over a connection from before the attack and one made after it.
class Witness {
 public:
  Witness() {
    if (vesk_get_runtime(&m_runtime) != 0) throw Broken("no device");
    m_before = look_up(test::kServices[test::kPower]);
  }
  ~Witness() { vesk_service_unbind(m_runtime, &m_before); }
  Witness(const Witness&) = delete;
  Witness& operator=(const Witness&) = delete;

  void expect_service() {
    ask(m_before, "over a connection from before");
    vesk_handle now = look_up(test::kServices[test::kPower]);
    ask(now, "over a new connection");
    vesk_service_unbind(m_runtime, &now);
  }

 private:
  vesk_handle look_up(const char* name) {
    vesk_handle handle{};
    const int error = vesk_binder_servicemanager_get(m_runtime, name, &handle);
    if (error != 0) throw Broken(std::string("others find no ") + name + ": " + std::to_string(error));
    return handle;
  }

  void ask(vesk_handle handle, const std::string& how) {
    const test::BufferPtr reply(vesk_buffer_alloc());
    const int error = call(m_runtime, handle, 1, request_to(test::kPower), nullptr, reply.get());
    if (error != 0) throw Broken("others are not served " + how + ": " + std::to_string(error));
    if (vesk_read_i32(reply.get()) != 0 || vesk_read_i32(reply.get()) != 1) throw Broken("others get wrong answers");
  }

  void* m_runtime = nullptr;
  vesk_handle m_before{};
};

// A process under attack, and what it held before.
class Victim {
 public:
  Victim(const test::Words& command, const std::string& log) : m_process(command, {}, {log}) {
    m_process.waitForOutput("");
  }

  test::Process& process() { return m_process; }
  void settle() {
    m_descriptors = usage().descriptors;
    m_kept_kb = usage().resident_kb;
  }
  void reset_peak() const { std::ofstream("/proc/" + std::to_string(m_process.pid()) + "/clear_refs") << "5"; }

  void expect_nothing_kept() const {
    const auto limit = Clock::now() + Limit(1000 + 2 * kLimitMs);
    while (usage().descriptors > m_descriptors + kMostLeftOpen && Clock::now() < limit) {
      std::this_thread::sleep_for(Limit(1));
    }
    const test::Usage now = usage();
    if (now.descriptors > m_descriptors + kMostLeftOpen) {
      throw Broken(std::to_string(now.descriptors) + " descriptors, before " + std::to_string(m_descriptors));
    }
    const long used = now.peak_kb - m_kept_kb;
    if (used > kMostUsedKb * ORVEL_MEMORY_FACTOR) throw Broken("it used " + std::to_string(used) + " KiB more");
    const long kept = now.resident_kb - m_kept_kb;
    if (kept > kMostKeptKb * ORVEL_MEMORY_FACTOR) throw Broken("it keeps " + std::to_string(kept) + " KiB");
  }

 private:
  [[nodiscard]] test::Usage usage() const { return test::usageOf(m_process.pid()); }

  test::Process m_process;
  std::size_t m_descriptors = 0;
  long m_kept_kb = 0;
};

class Hostilities {
 public:
  explicit Hostilities(std::uint64_t seed) : m_seed(seed) {
    ::setenv("ORVEL_RUNTIME_DIR", directory().c_str(), 1);
    ::setenv("ORVEL_CALL_TIMEOUT_MS", std::to_string(kLimitMs).c_str(), 1);
  }

  void attack_device(const ClientInput& input) {
    start_device();
    attempt(m_device, [&] {
      Target target(directory(), 2 * kLimitMs, seed_of(input.name));
      input.run(target);
      m_witness->expect_service();
    });
  }

  void attack_client(const ServiceInput& input) {
    start_device();
    if (!m_client) {
      m_listener = take_place_of(test::kServices[test::kDelegate]);
      m_client = std::make_unique<Victim>(test::Words{"/proc/self/exe", "--victim"}, log());
      // The first callback channel gives the event loop a descriptor that it keeps.
      live_once({"", [](Visit& visit) {
                   visit.line.send(test::kBusAnswer);
                   if (const auto channel = visit.wait_for_channel()) visit.serve_well();
                 }});
      m_client->settle();
    }
    attempt(m_client, [&] { live_once(input); });
  }

  // Both must end in peace. To be called when no input is left.
  void finish() {
    m_witness.reset();
    for (Victim* victim : {m_client.get(), m_device.get()}) {
      if (victim == nullptr) continue;
      victim->process().signal(SIGTERM);
      const int status = victim->process().wait(Limit(20 * kLimitMs));
      // A client without orders ends by the signal itself.
      test::require(status == 0 || status == 128 + SIGTERM, "a process ended with status " + std::to_string(status));
    }
  }

 private:
  [[nodiscard]] std::string directory() const { return m_workplace.path() / "device"; }
  [[nodiscard]] std::string log() const { return m_workplace.path() / "log"; }
  void start_device() {
    if (m_device) return;
    m_device = std::make_unique<Victim>(test::Words{"orvel-sim", "run"}, log());
    m_witness = std::make_unique<Witness>();
    m_witness->expect_service();
    m_device->settle();
  }

  // An input does the same alone as among all the others.
  [[nodiscard]] std::uint64_t seed_of(const std::string& name) const { return std::hash<std::string>()(name) ^ m_seed; }

  template <typename Attack>
  static void attempt(std::unique_ptr<Victim>& victim, const Attack& attack) {
    victim->reset_peak();
    try {
      attack();
      victim->expect_nothing_kept();
      if (!victim->process().hasEnded()) return;
      throw Broken("the process has ended with status " + std::to_string(victim->process().wait()));
    } catch (...) {
      victim.reset();  // the next input gets another
      throw;
    }
  }

  // This process's socket under the name of a service.
  [[nodiscard]] vesk::UniqueFd take_place_of(const std::string& service) const {
    vesk::UniqueFd listener(vesk::check_errno(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)));
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    const std::string file = directory() + "/.socket-hostile";
    fs::remove(file);
    file.copy(address.sun_path, sizeof(address.sun_path) - 1);
    vesk::check_errno(::bind(listener.get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)));
    vesk::check_errno(::listen(listener.get(), 64));
    fs::remove(directory() + '/' + service);
    fs::create_symlink(".socket-hostile", directory() + '/' + service);
    return listener;
  }

  // One life of the client, with a hostile service.
  void live_once(const ServiceInput& input) {
    std::atomic<bool> over{false};
    std::atomic<bool> idle{true};
    std::string failure;
    std::thread service([&] {
      while (!over) {
        pollfd ready{m_listener.get(), POLLIN, 0};
        if (::poll(&ready, 1, 5) <= 0) continue;
        idle = false;
        Visit visit(vesk::UniqueFd(::accept4(m_listener.get(), nullptr, nullptr, SOCK_CLOEXEC)), seed_of(input.name),
                    idle);
        try {
          input.run(visit);
        } catch (const Broken& broken) {
          failure = broken.what();
        }
        idle = true;
      }
    });
    std::string result;
    try {
      m_client->process().write("run");
      // A name and two registrations, each of which may have to wait for its limit.
      result = m_client->process().waitForOutput("asked ", Limit(3 * kLimitMs + 1000));
      for (int n = 0; n < 400 && !idle; ++n) std::this_thread::sleep_for(Limit(10));
      m_client->process().write("end");
      m_client->process().waitForOutput("ended", Limit(kLimitMs + 1000));
    } catch (const std::runtime_error& error) {
      failure = error.what();
    }
    over = true;
    service.join();
    if (!failure.empty()) throw Broken(failure);
    // A mutated text may be a text as well.
    const bool is_mutated = input.name.rfind("service/mutated/", 0) == 0;
    if (result != "11 []" && result != "11 [Rogue]" && !is_mutated) throw Broken("the client says " + result);
  }

  const std::uint64_t m_seed;
  test::TemporaryDirectory m_workplace;
  std::unique_ptr<Victim> m_device;
  std::unique_ptr<Witness> m_witness;
  vesk::UniqueFd m_listener;
  std::unique_ptr<Victim> m_client;
};

// The process that is attacked as a client: it starts once for each line "run", and shuts down at the next line.
int live() {
  auto& client = service_apis::OrvelDelegateClient::getClient();
  std::cout << "ready" << std::endl;
  for (std::string line; std::getline(std::cin, line) && line == "run";) {
    const bool initialised = client.initialize();
    const std::string name = client.getDeviceName();
    client.registerForSecureSettingIntChange("volume_alarm", 0, [](int) {});
    client.registerForScreenStateChange([](bool) {});
    std::cout << "asked " << initialised << client.isScreenOn() << " [" << name << ']' << std::endl;
    std::getline(std::cin, line);
    client.shutdown();
    std::cout << "ended" << std::endl;
  }
  return 0;
}

int run(int argc, char** argv) {
  bool is_victim = false;
  test::Runner runner("orvel-hostile",
                      "Hostile clients against the simulated device, and a hostile service against a client", 60);
  runner.options().add_flag("--victim", is_victim)->group("");
  if (const auto status = runner.parse(argc, argv)) return *status;
  std::signal(SIGPIPE, SIG_IGN);
  const rlimit usual{1024, 1024};  // what the device's own limits are made for, whatever this machine allows
  ::setrlimit(RLIMIT_NOFILE, &usual);
  if (is_victim) return live();

  Hostilities hostilities(runner.seed());
  for (const auto& inputs : {service_request_inputs(), client_inputs()}) {
    for (const ClientInput& input : inputs) runner.add(input.name, [&, input] { hostilities.attack_device(input); });
  }
  for (const ServiceInput& input : service_inputs(runner.count())) {
    runner.add(input.name, [&, input] { hostilities.attack_client(input); });
  }
  return runner.run([&] {
    hostilities.finish();
    return "others are served as before";
  });
}

}  // namespace
}  // namespace orvel::hostile

int main(int argc, char** argv) {
  return orvel::hostile::run(argc, argv);
}

// Throws every input at the simulated device or at a client, and looks after each whether they are alive, serve all
// others as before, and keep nothing.
#include <poll.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <memory>
#include <thread>

#include "Inputs.h"
#include "orvel/OrvelDelegateClient.h"
#include "support/Process.h"
#include "support/Runner.h"

namespace orvel::hostile {
namespace {

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;
using test::kServices;
using test::Limit;

// What a process may have more than before, once all others have gone: what its allocator keeps.
constexpr long kMostKeptKb = 48 * 1024;
// What one input may make it use for a while: a message that sd-bus takes before it is refused, and copies of it.
constexpr long kMostUsedKb = 400 * 1024;
// Descriptors that a shutdown may leave for the next run of the loop to close; a leak soon exceeds them.
constexpr std::size_t kMostLeftOpen = 2;

// A process under attack, and what it held before.
class Victim {
 public:
  // It gets a file for its log, because a pipe that this process does not read would stop it.
  Victim(const test::Words& command, const fs::path& log) : m_process(command, {}, {log}) {
    m_process.waitForOutput("");
  }

  test::Process& process() { return m_process; }
  void settle() { m_before = test::usageOf(m_process.pid()); }
  void reset_peak() const { std::ofstream("/proc/" + std::to_string(m_process.pid()) + "/clear_refs") << "5"; }

  void expect_nothing_kept() const {
    const auto limit = Clock::now() + Limit(1000 + 2 * kLimitMs);
    test::Usage now = test::usageOf(m_process.pid());
    while (now.descriptors > m_before.descriptors + kMostLeftOpen) {
      if (Clock::now() > limit) {
        throw Broken(std::to_string(now.descriptors) + " descriptors, before " + std::to_string(m_before.descriptors));
      }
      std::this_thread::sleep_for(Limit(1));
      now = test::usageOf(m_process.pid());
    }
    const long used = now.peak_kb - m_before.resident_kb;
    if (used > kMostUsedKb * ORVEL_MEMORY_FACTOR) throw Broken("it used " + std::to_string(used) + " KiB more");
    const long kept = now.resident_kb - m_before.resident_kb;
    if (kept > kMostKeptKb * ORVEL_MEMORY_FACTOR) throw Broken("it keeps " + std::to_string(kept) + " KiB");
  }

 private:
  test::Process m_process;
  test::Usage m_before;
};

class Hostilities {
 public:
  Hostilities() {
    ::setenv("ORVEL_RUNTIME_DIR", (m_workplace.path() / "device").c_str(), 1);
    ::setenv("ORVEL_CALL_TIMEOUT_MS", std::to_string(kLimitMs).c_str(), 1);
  }

  void run(const Input& input) {
    if (!m_device) start_device();
    if (input.at_device) {
      attempt(m_device, [&] {
        Attack attack;
        input.at_device(attack);
        expect_service();
      });
    } else {
      if (!m_client) start_client();
      attempt(m_client, [&] { live_once(input); });
    }
  }

  // Both must end in peace. To be called when no input is left.
  void finish() {
    m_before.close();
    for (Victim* victim : {m_client.get(), m_device.get()}) {
      if (victim == nullptr) continue;
      victim->process().signal(SIGTERM);
      const int status = victim->process().wait(Limit(20 * kLimitMs));
      // A client without orders ends by the signal itself.
      test::require(status == 0 || status == 128 + SIGTERM, "a process ended with status " + std::to_string(status));
    }
  }

 private:
  void start_device() {
    m_device = std::make_unique<Victim>(test::Words{"orvel-sim", "run"}, m_workplace.path() / "log");
    m_before.close();
    expect_served(m_before.open(kServices[test::kPower]));
    m_device->settle();
  }

  // Over the connection from before the attack, and over another one.
  void expect_service() {
    expect_served(m_before.last(), ++m_serial);
    Attack now;
    expect_served(now.open(kServices[test::kPower]));
  }

  void start_client() {
    take_place_of_delegate();
    m_client = std::make_unique<Victim>(test::Words{"/proc/self/exe", "--victim"}, m_workplace.path() / "log");
    // The first callback channel gives the event loop a descriptor that it keeps.
    live_once({"", nullptr, [](Visit& visit) { visit.serve_well([](Visit&, BusLine&) {}); }, kTaken});
    m_client->settle();
  }

  template <typename Act>
  static void attempt(std::unique_ptr<Victim>& victim, const Act& act) {
    victim->reset_peak();
    try {
      act();
      victim->expect_nothing_kept();
      if (!victim->process().hasEnded()) return;
      throw Broken("the process has ended with status " + std::to_string(victim->process().wait()));
    } catch (...) {
      victim.reset();  // the next input gets another
      throw;
    }
  }

  // This process's socket under the name of the service.
  void take_place_of_delegate() {
    const fs::path folder = m_workplace.path() / "device";
    m_listener.reset(vesk::check_errno(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)));
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    const std::string file = folder / ".socket-hostile";
    fs::remove(file);
    file.copy(address.sun_path, sizeof(address.sun_path) - 1);
    vesk::check_errno(::bind(m_listener.get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)));
    vesk::check_errno(::listen(m_listener.get(), 64));
    fs::remove(folder / kServices[test::kDelegate]);
    fs::create_symlink(".socket-hostile", folder / kServices[test::kDelegate]);
  }

  // One life of the client, with a hostile service.
  void live_once(const Input& input) {
    std::atomic<bool> over{false};
    std::atomic<bool> idle{true};
    std::string failure;
    std::thread service([&] {
      while (!over) {
        pollfd ready{m_listener.get(), POLLIN, 0};
        if (::poll(&ready, 1, 5) <= 0) continue;
        idle = false;
        Visit visit(vesk::UniqueFd(::accept4(m_listener.get(), nullptr, nullptr, SOCK_CLOEXEC)), idle);
        try {
          input.at_client(visit);
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
    // Everything but the name is another service's.
    if (result != (input.outcome == kTaken ? "11 [Rogue]" : "11 []")) throw Broken("the client says " + result);
  }

  test::TemporaryDirectory m_workplace;
  std::unique_ptr<Victim> m_device;
  Attack m_before;
  std::uint32_t m_serial = 2;  // of its newest call
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
                      "Hostile clients against the simulated device, and a hostile service against a client");
  runner.options().add_flag("--victim", is_victim)->group("");
  if (const auto status = runner.parse(argc, argv)) return *status;
  std::signal(SIGPIPE, SIG_IGN);
  const rlimit usual{1024, 1024};  // what the device's own limits are made for, whatever this machine allows
  ::setrlimit(RLIMIT_NOFILE, &usual);
  if (is_victim) return live();

  Inputs inputs;
  add_requests(inputs);
  add_messages(inputs);
  add_channels(inputs);
  // The hostile service takes the place of the device's own.
  std::stable_partition(inputs.begin(), inputs.end(), [](const Input& input) { return input.at_device != nullptr; });
  Hostilities hostilities;
  for (const Input& input : inputs) runner.add(input.name, [&] { hostilities.run(input); });
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

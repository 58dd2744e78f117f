// Throws every input at the simulated device or at a client, and looks after each whether it is alive, and whether the
// device serves all others as before and keeps nothing.
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>
#include <thread>

#include "Inputs.h"
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

class Hostilities {
 public:
  Hostilities() {
    ::setenv("ORVEL_RUNTIME_DIR", directory().c_str(), 1);
    ::setenv("ORVEL_CALL_TIMEOUT_MS", std::to_string(kLimitMs).c_str(), 1);
  }

  void run(const Input& input) {
    if (!m_device) start_device();
    if (!input.at_device) return live_once(input);
    std::ofstream("/proc/" + std::to_string(m_device->pid()) + "/clear_refs") << "5";  // forgets the peak
    try {
      {
        Attack attack;
        attack.page = m_page;
        input.at_device(attack);
        expect_service();
      }
      expect_nothing_kept();
      if (m_device->hasEnded()) throw Broken("the device has ended with " + std::to_string(m_device->wait()));
    } catch (...) {
      m_device.reset();  // the next input gets another
      throw;
    }
  }

  // To be called when no input is left.
  void finish() {
    m_before.close();
    if (!m_device) return;
    m_device->signal(SIGTERM);
    const int status = m_device->wait(Limit(20 * kLimitMs));
    test::require(status == 0, "the device has ended with " + std::to_string(status));
  }

 private:
  [[nodiscard]] fs::path directory() const { return m_workplace.path() / "device"; }
  // Processes get a file for their log, because a pipe that this process does not read would stop them.
  [[nodiscard]] test::ProcessOptions logging() const { return {m_workplace.path() / "log"}; }

  void start_device() {
    m_device = std::make_unique<test::Process>(test::Words{"orvel-sim", "run", "--web"}, test::Words(), logging());
    const std::string page = m_device->waitForOutput("the page is at http://127.0.0.1:");
    const std::size_t path = page.find("/?token=");
    m_page = {static_cast<std::uint16_t>(std::stoi(page)), page.substr(path + sizeof("/?token=") - 1)};
    m_before.close();
    expect_served(m_before.open(kServices[test::kPower]));
    m_usage_before = test::usageOf(m_device->pid());
  }

  // Over the connection from before the attack, and over another one.
  void expect_service() {
    expect_served(m_before.last(), ++m_serial);
    Attack now;
    expect_served(now.open(kServices[test::kPower]));
  }

  void expect_nothing_kept() const {
    const auto limit = Clock::now() + Limit(1000 + 2 * kLimitMs);
    test::Usage now = test::usageOf(m_device->pid());
    while (now.descriptors > m_usage_before.descriptors + kMostLeftOpen) {
      if (Clock::now() > limit) throw Broken(std::to_string(now.descriptors) + " descriptors");
      std::this_thread::sleep_for(Limit(1));
      now = test::usageOf(m_device->pid());
    }
    const long used = now.peak_kb - m_usage_before.resident_kb;
    if (used > kMostUsedKb * ORVEL_MEMORY_FACTOR) throw Broken("it used " + std::to_string(used) + " KiB more");
    const long kept = now.resident_kb - m_usage_before.resident_kb;
    if (kept > kMostKeptKb * ORVEL_MEMORY_FACTOR) throw Broken("it keeps " + std::to_string(kept) + " KiB");
  }

  // This process's socket under the name of the service.
  void take_place_of_delegate() {
    m_listener.reset(vesk::check_errno(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)));
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    const std::string file = directory() / ".socket-hostile";
    file.copy(address.sun_path, sizeof(address.sun_path) - 1);
    vesk::check_errno(::bind(m_listener.get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)));
    vesk::check_errno(::listen(m_listener.get(), 64));
    fs::remove(directory() / kServices[test::kDelegate]);
    fs::create_symlink(".socket-hostile", directory() / kServices[test::kDelegate]);
  }

  // One life of a client, with a hostile service.
  void live_once(const Input& input) {
    if (!m_listener) take_place_of_delegate();
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
    try {
      test::Process client({"orvel-e2e-client"}, {}, logging());
      client.waitForOutput("ready\n");
      const auto ask = [&client](const std::string& method) {
        client.write("ask " + method);
        // A second longer than two calls, which some methods make.
        const std::string answer = client.waitForOutput("answer '", Limit(2 * kLimitMs + 1000));
        return answer.substr(0, answer.find('\''));
      };
      const std::string name = ask("getDeviceName");
      if (name != (input.outcome == kTaken ? "Rogue" : "")) failure = "the client has heard " + name;
      ask("registerForSecureSettingIntChange");
      ask("registerForScreenStateChange");
      if (ask("isScreenOn") != "true") failure = "the client is not served by others";
      for (int n = 0; n < 400 && !idle; ++n) std::this_thread::sleep_for(Limit(10));
      client.closeInput();
      const int status = client.wait(Limit(kLimitMs + 1000));
      if (status != 0) failure = "the client has ended with " + std::to_string(status);
    } catch (const std::runtime_error& error) {
      failure = error.what();
    }
    over = true;
    service.join();
    if (!failure.empty()) throw Broken(failure);
  }

  test::TemporaryDirectory m_workplace;
  Page m_page;
  std::unique_ptr<test::Process> m_device;
  test::Usage m_usage_before;
  Attack m_before;
  std::uint32_t m_serial = 2;  // of its newest call
  vesk::UniqueFd m_listener;   // in place of the delegate service; it cannot come back then
};

}  // namespace
}  // namespace orvel::hostile

int main(int argc, char** argv) {
  namespace hostile = orvel::hostile;
  orvel::test::Runner runner("orvel-hostile",
                             "Hostile clients against the simulated device, and a hostile service against clients");
  if (const auto status = runner.parse(argc, argv)) return *status;
  std::signal(SIGPIPE, SIG_IGN);
  hostile::Inputs inputs;
  hostile::add_requests(inputs);
  hostile::add_messages(inputs);
  hostile::add_channels(inputs);
  hostile::add_pages(inputs);
  // The hostile service takes the place of the device's own.
  const auto is_first = [](const hostile::Input& input) { return input.at_device != nullptr; };
  std::stable_partition(inputs.begin(), inputs.end(), is_first);
  hostile::Hostilities hostilities;
  for (const hostile::Input& input : inputs) runner.add(input.name, [&] { hostilities.run(input); });
  return runner.run([&] {
    hostilities.finish();
    return "others are served as before";
  });
}

// orvel-hostile: throws every input of its tables at the simulated device and at a client, and looks after each whether they are
// alive and well, serve everybody else, and keep nothing.
#include <fcntl.h>
#include <poll.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <iostream>
#include <map>
#include <memory>
#include <thread>

#include "Inputs.h"
#include "Process.h"
#include "vesk/vesk.h"
#include "vesk/vesk_service.h"

namespace orvel::hostile {
namespace {

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

// What a process may have more than before, once everybody has gone: what its allocator keeps.
constexpr long kMostKeptKb = 48 * 1024;
// What one input may make it use for a while: a message that sd-bus takes before it is refused, and copies of it.
constexpr long kMostUsedKb = 400 * 1024;

// Descriptors that a shutdown may leave for the next run of the loop to close; a leak soon exceeds them.
constexpr std::size_t kMostLeftOpen = 2;

struct Options {
  std::uint64_t seed = 1;
  int count = 60;
  std::vector<std::string> only;
  bool list = false;
  bool valgrind = false;
  std::string flood;  // the kind that this process is to make
  std::string keep_log;
};

// A directory for one device and everybody's complaints.
class Workplace {
 public:
  Workplace() {
    if (::mkdtemp(m_path.data()) == nullptr) vesk::check(-errno);
  }
  ~Workplace() {
    std::error_code ignored;
    fs::remove_all(m_path, ignored);
  }
  Workplace(const Workplace&) = delete;
  Workplace& operator=(const Workplace&) = delete;

  [[nodiscard]] std::string runtime() const { return m_path + "/device"; }
  [[nodiscard]] std::string log() const { return m_path + "/log"; }

 private:
  std::string m_path = "/tmp/orvel-hostile-XXXXXX";
};

struct PayloadFree {
  void operator()(vesk_payload* payload) const { vesk_payload_free(payload); }
};
struct BufferFree {
  void operator()(vesk_buffer* buffer) const { vesk_buffer_free(buffer); }
};

// Somebody who keeps the rules, over a connection from before the attack and one made after it.
class Witness {
 public:
  Witness() {
    if (vesk_get_runtime(&m_runtime) != 0) throw std::runtime_error("no device");
    m_before = look_up(kPower.name);
  }
  ~Witness() { vesk_service_unbind(m_runtime, &m_before); }
  Witness(const Witness&) = delete;
  Witness& operator=(const Witness&) = delete;

  void expect_service() {
    ask(m_before, "over a connection from before");
    vesk_handle now = look_up(kPower.name);
    ask(now, "over a new connection");
    vesk_service_unbind(m_runtime, &now);
  }

  void change_setting(const std::string& key, const std::string& value) {
    vesk_handle control = look_up("orvel-sim-control");
    const std::unique_ptr<vesk_payload, PayloadFree> request(vesk_payload_alloc());
    const std::unique_ptr<vesk_buffer, BufferFree> reply(vesk_buffer_alloc());
    const std::string order =
        R"({"order":"change","change":{"path":"/delegate/settings/)" + key + R"(","value":")" + value + R"("}})";
    vesk_write_utf16_cstring(request.get(), order.c_str());
    const int error = vesk_call(m_runtime, &control, 0, request.get(), reply.get());
    vesk_service_unbind(m_runtime, &control);
    if (error != 0) throw Broken("the device takes no orders: " + std::to_string(error));
  }

 private:
  vesk_handle look_up(const char* name) {
    vesk_handle handle{};
    if (const int error = vesk_binder_servicemanager_get(m_runtime, name, &handle); error != 0) {
      throw Broken(std::string("nobody is let in to ") + name + ": " + std::to_string(error));
    }
    return handle;
  }

  void ask(vesk_handle handle, const char* how) {
    const std::unique_ptr<vesk_payload, PayloadFree> request(vesk_payload_alloc());
    const std::unique_ptr<vesk_buffer, BufferFree> reply(vesk_buffer_alloc());
    for (const std::int32_t word : {0, -1, 0x53595354}) vesk_write_i32(request.get(), word);
    vesk_write_utf16_cstring(request.get(), kPower.descriptor);
    const int error = vesk_call(m_runtime, &handle, 1, request.get(), reply.get());
    if (error != 0 || vesk_read_i32(reply.get()) != 0 || vesk_read_i32(reply.get()) != 1) {
      throw Broken(std::string("others are not served ") + how + ": " + std::to_string(error));
    }
  }

  void* m_runtime = nullptr;
  vesk_handle m_before{};
};

class Hostilities {
 public:
  explicit Hostilities(const Options& options) : m_options(options), m_limit_ms(options.valgrind ? 20'000 : 500) {
    ::setenv("ORVEL_RUNTIME_DIR", m_workplace.runtime().c_str(), 1);
    ::setenv("ORVEL_CALL_TIMEOUT_MS", std::to_string(m_limit_ms).c_str(), 1);
    m_device = std::make_unique<Process>(wrapped({ORVEL_SIM, "run"}), Environment{}, m_workplace.log());
    if (m_device->read_line(10 * m_limit_ms).empty()) throw std::runtime_error("the device does not start");
    m_witness = std::make_unique<Witness>();
  }

  void attack_device(const std::vector<ClientInput>& inputs) {
    m_witness->expect_service();
    std::size_t descriptors = m_device->descriptors();
    const long kept = m_device->resident_kb();
    for (const ClientInput& input : inputs) {
      descriptors += input.lost_descriptors;
      m_lost_descriptors += input.lost_descriptors;
      Target target(m_workplace.runtime(), 2 * m_limit_ms, seed_of(input.name));
      attempt(input.name, *m_device, descriptors, kept, [&] {
        target.run_flood = [&](const std::string& kind) { flood(kind); };
        target.change_setting = [&](const std::string& key, const std::string& value) {
          m_witness->change_setting(key, value);
        };
        input.run(target);
        m_witness->expect_service();
        target.close();
      });
    }
    m_kept_kb = m_device->resident_kb() - kept;
  }

  void attack_client(const std::vector<ServiceInput>& inputs) {
    Process client(wrapped({ORVEL_HOSTILE_VICTIM}), Environment{}, m_workplace.log());
    const vesk::UniqueFd listener = take_place_of(kDelegate);
    // The first callback channel gives the event loop a descriptor that it keeps.
    const ServiceInput good{"service/good", [](Visit& visit) {
                              visit.line.send(kAnswer);
                              if (const auto channel = visit.wait_for_channel()) visit.serve_well();
                            }};
    live_once(client, good, listener.get());
    std::size_t descriptors = client.descriptors();
    const long kept = client.resident_kb();
    for (const ServiceInput& input : inputs) {
      descriptors += input.lost_descriptors;
      m_lost_descriptors += input.lost_descriptors;
      attempt(input.name, client, descriptors, kept, [&] { live_once(client, input, listener.get()); });
    }
    m_client_kept_kb = client.resident_kb() - kept;
    finish("the client", client);
  }

  void finish_device() {
    m_witness.reset();
    finish("the device", *m_device);
  }

  // The summary line; the exit status.
  int report() const {
    if (!m_options.keep_log.empty()) {
      fs::copy_file(m_workplace.log(), m_options.keep_log, fs::copy_options::overwrite_existing);
    }
    std::cout << "orvel-hostile: seed " << m_options.seed << ", " << m_inputs << " inputs, " << m_failures
              << " failed; slowest " << m_slowest.first << " ms (" << m_slowest.second << ")";
    if (!m_options.valgrind) {
      std::cout << "; device +" << m_kept_kb << " KiB, client +" << m_client_kept_kb << " KiB, peak +" << m_peak.first
                << " KiB (" << m_peak.second << ")";
    }
    if (m_lost_descriptors != 0) std::cout << "; sd-bus forgot " << m_lost_descriptors << " descriptors, as is known";
    std::cout << (m_failures == 0 ? ": ok" : ": FAILED") << std::endl;
    return m_failures == 0 ? 0 : 1;
  }

 private:
  using Environment = std::vector<std::pair<std::string, std::string>>;

  [[nodiscard]] std::vector<std::string> wrapped(std::vector<std::string> command) const {
    if (m_options.valgrind) {
      const std::vector<std::string> wrap = {"valgrind",
                                             "-q",
                                             "--error-exitcode=99",
                                             "--leak-check=full",
                                             "--errors-for-leak-kinds=definite",
                                             std::string("--suppressions=") + ORVEL_VALGRIND_SUPPRESSIONS};
      command.insert(command.begin(), wrap.begin(), wrap.end());
    }
    return command;
  }

  // An input does the same alone as among all the others.
  [[nodiscard]] std::uint64_t seed_of(const std::string& name) const {
    return std::hash<std::string>()(name) ^ m_options.seed;
  }

  void fail(const std::string& name, const std::string& what) {
    ++m_failures;
    std::cout << "FAILED " << name << ": " << what << " (--seed " << m_options.seed << " --count " << m_options.count
              << " --only " << name << ")" << std::endl;
  }

  template <typename Attack>
  void attempt(const std::string& name, Process& victim, std::size_t& descriptors, long kept, const Attack& attack) {
    ++m_inputs;
    if (!victim.is_alive()) throw std::runtime_error("nobody is left to attack");
    victim.reset_peak();
    const auto start = Clock::now();
    try {
      attack();
      const auto took = std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - start).count();
      m_slowest = std::max(m_slowest, {took, name});
      expect_nothing_kept(victim, descriptors, kept, name);
    } catch (const std::exception& error) {
      fail(name, error.what());
      if (&victim == m_device.get() && victim.is_alive()) m_witness = std::make_unique<Witness>();
      descriptors = victim.descriptors();  // the next ones are not to blame
    }
    if (!victim.is_alive()) {
      fail(name, "the process has ended with status " + std::to_string(victim.terminate(0)));
      throw std::runtime_error("the process under attack is gone");
    }
  }

  void expect_nothing_kept(Process& victim, std::size_t descriptors, long kept, const std::string& name) {
    const auto limit = Clock::now() + std::chrono::milliseconds(1000 + 2 * m_limit_ms);
    while (victim.descriptors() > descriptors + kMostLeftOpen && Clock::now() < limit)
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
    if (const std::size_t now = victim.descriptors(); now > descriptors + kMostLeftOpen) {
      throw Broken(std::to_string(now) + " descriptors, before " + std::to_string(descriptors));
    }
    if (m_options.valgrind) return;
    const long used = victim.peak_kb() - kept;
    m_peak = std::max(m_peak, {used, name});
    if (used > kMostUsedKb * ORVEL_MEMORY_FACTOR) throw Broken("it used " + std::to_string(used) + " KiB more");
    if (const long now = victim.resident_kb() - kept; now > kMostKeptKb * ORVEL_MEMORY_FACTOR) {
      throw Broken("it keeps " + std::to_string(now) + " KiB");
    }
  }

  void flood(const std::string& kind) {
    Process other({"/proc/self/exe", "--flood", kind}, Environment{}, m_workplace.log());
    if (other.read_line(10 * m_limit_ms) != "flooded") throw std::runtime_error("the flood does not start");
    m_witness->expect_service();
  }

  // This process's socket under the name of a service.
  [[nodiscard]] vesk::UniqueFd take_place_of(const ServiceName& service) const {
    vesk::UniqueFd listener(vesk::check_errno(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)));
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    (m_workplace.runtime() + "/.socket-hostile").copy(address.sun_path, sizeof(address.sun_path) - 1);
    vesk::check_errno(::bind(listener.get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)));
    vesk::check_errno(::listen(listener.get(), 64));
    const std::string name = m_workplace.runtime() + '/' + service.name;
    fs::remove(name);
    fs::create_symlink(".socket-hostile", name);
    return listener;
  }

  // One life of the client, with a hostile service.
  void live_once(Process& client, const ServiceInput& input, int listener) {
    std::atomic<bool> over{false};
    std::atomic<Visit*> visiting{nullptr};
    std::string failure;
    std::thread service([&] {
      while (!over) {
        pollfd ready{listener, POLLIN, 0};
        if (::poll(&ready, 1, 5) <= 0) continue;
        Visit visit(vesk::UniqueFd(::accept4(listener, nullptr, nullptr, SOCK_CLOEXEC)), seed_of(input.name));
        visiting = &visit;
        try {
          input.run(visit);
        } catch (const Broken& broken) {
          failure = broken.what();
        }
        while (m_visit_in_use.test_and_set()) std::this_thread::yield();
        visiting = nullptr;
        m_visit_in_use.clear();
      }
    });
    const auto is_idle = [&] {
      while (m_visit_in_use.test_and_set()) std::this_thread::yield();
      const Visit* visit = visiting;
      const bool idle = visit == nullptr || visit->waits;
      m_visit_in_use.clear();
      return idle;
    };
    struct Join {
      ~Join() { end(); }
      void end() {
        over = true;
        if (service.joinable()) service.join();
      }
      std::atomic<bool>& over;
      std::thread& service;
    } visits{over, service};
    client.write_line("run");
    // A name and two registrations, each of which may have to wait for its limit.
    const std::string asked = client.read_line(3 * m_limit_ms + 1000);
    for (int n = 0; n < 400 && !is_idle(); ++n) std::this_thread::sleep_for(std::chrono::milliseconds(10));
    client.write_line("end");
    const std::string ended = client.read_line(m_limit_ms + 1000);
    visits.end();
    if (asked.empty()) throw Broken("the client hangs in a call");
    if (ended.empty()) throw Broken("the client hangs in its shutdown");
    if (asked != "asked 11 []" && asked != "asked 11 [Rogue]") throw Broken("the client says " + asked);
    if (!failure.empty()) throw Broken(failure);
  }

  void finish(const char* who, Process& process) {
    const int status = process.terminate(20 * m_limit_ms);
    // A client without orders ends by the signal itself.
    if (status != 0 && status != 128 + SIGTERM) fail(who, "ended with status " + std::to_string(status));
  }

  const Options& m_options;
  const int m_limit_ms;
  Workplace m_workplace;
  std::unique_ptr<Process> m_device;
  std::unique_ptr<Witness> m_witness;
  std::atomic_flag m_visit_in_use = ATOMIC_FLAG_INIT;
  int m_inputs = 0;
  int m_failures = 0;
  std::size_t m_lost_descriptors = 0;
  long m_kept_kb = 0;
  long m_client_kept_kb = 0;
  std::pair<long, std::string> m_peak;
  std::pair<long, std::string> m_slowest;
};

// What another process does: more connections than one may have.
int flood(const std::string& kind) {
  Target target(std::getenv("ORVEL_RUNTIME_DIR"), 1000, 0);
  for (int n = 0; n < 300; ++n) {
    Line& line = target.connect();
    if (kind != "silent") line.send(kHello);
    if (kind == "open" || kind == "calling") line.send(open_of(kPower).bytes());
    if (kind == "calling") line.send(call_of(kPower, 2, 1, request_to(kPower).bytes()).bytes());
  }
  std::cout << "flooded" << std::endl;
  std::cin.get();  // until it is killed
  return 0;
}

template <typename Input>
std::vector<Input> chosen(std::vector<Input> inputs, const std::vector<std::string>& only) {
  const auto is_left_out = [&](const Input& input) {
    return !only.empty() && std::none_of(only.begin(), only.end(), [&](const std::string& part) {
      return input.name == part || (part.back() == '/' && input.name.compare(0, part.size(), part) == 0);
    });
  };
  inputs.erase(std::remove_if(inputs.begin(), inputs.end(), is_left_out), inputs.end());
  return inputs;
}

int run(const Options& options) {
  std::signal(SIGPIPE, SIG_IGN);
  const rlimit usual{1024, 1024};  // what the device's own limits are made for, whatever this machine allows
  ::setrlimit(RLIMIT_NOFILE, &usual);
  if (!options.flood.empty()) return flood(options.flood);

  std::vector<ClientInput> to_device = chosen(service_request_inputs(), options.only);
  const std::vector<ClientInput> client = chosen(client_inputs(options.count), options.only);
  to_device.insert(to_device.end(), client.begin(), client.end());
  if (options.valgrind) {
    // It gives away descriptors that it then denies to have, and sd-bus ends the process.
    const auto unfit = [](const ClientInput& input) { return input.name == "client/descriptors/until-none-are-left"; };
    to_device.erase(std::remove_if(to_device.begin(), to_device.end(), unfit), to_device.end());
  }
  const std::vector<ServiceInput> to_client = chosen(service_inputs(options.count), options.only);
  if (options.list) {
    for (const auto& input : to_device) std::cout << input.name << '\n';
    for (const auto& input : to_client) std::cout << input.name << '\n';
    return 0;
  }
  if (to_device.empty() && to_client.empty()) throw std::runtime_error("no input has such a name; --list shows them");
  Hostilities hostilities(options);
  try {
    hostilities.attack_device(to_device);
    if (!to_client.empty()) hostilities.attack_client(to_client);
    hostilities.finish_device();
  } catch (const std::exception& error) {
    std::cout << "FAILED: " << error.what() << std::endl;
    hostilities.report();
    return 1;
  }
  return hostilities.report();
}

}  // namespace
}  // namespace orvel::hostile

int main(int argc, char** argv) {
  orvel::hostile::Options options;
  CLI::App app("Hostile clients against the simulated device, and a hostile service against a client");
  app.add_option("--seed", options.seed, "of the inputs that are made by chance")->capture_default_str();
  app.add_option("--count", options.count, "how many of those, in each direction")->capture_default_str();
  app.add_option("--only", options.only, "the inputs of this name, or all under a name that ends in a slash");
  app.add_flag("--list", options.list, "show the names of the inputs");
  app.add_flag("--valgrind", options.valgrind, "run the attacked processes under valgrind");
  app.add_option("--log", options.keep_log, "where to leave what the attacked processes wrote to standard error");
  app.add_option("--flood", options.flood)->group("");
  CLI11_PARSE(app, argc, argv);
  try {
    return orvel::hostile::run(options);
  } catch (const std::exception& error) {
    std::cerr << "orvel-hostile: " << error.what() << std::endl;
    return 2;
  }
}

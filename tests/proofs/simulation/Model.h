// What a caller of the client is promised, as a plain sequential account of one run.
#pragma once

#include <array>
#include <cstddef>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "Program.h"
#include "Reader.h"

namespace orvel::fuzz {

// What was not as promised. `at` is the event up to which the trace agrees.
struct Mismatch {
  std::size_t at;
  std::string expected;
};

// Goes through a trace: takes over what the run decided, and says in advance all that the client does.
class Model {
 public:
  explicit Model(const Trace& trace) : m_trace(trace) {}

  // Throws Mismatch.
  void check();

  // What the client has done with names by the end: as InprocessVesk::bindings().
  [[nodiscard]] const std::vector<std::string>& bindings() const { return m_bindings; }
  // How many requests, and replies, were left allocated on purpose.
  [[nodiscard]] int forgotten() const { return m_forgotten; }
  // Handles that came when nobody waited for them any more, and which nobody unbinds.
  [[nodiscard]] int late_handles() const { return m_late_handles; }
  [[nodiscard]] bool maro_connected() const { return m_maro; }

 private:
  // What an endpoint makes of a message: 0, or 1 when it does not serve such calls.
  using Listener = std::function<int(Reader& message, unsigned code, bool two_way)>;
  struct Connection {
    int service;
    bool dead = false;
    bool closed = false;
    bool linked = false;
  };
  // One vesk_service_bind and who waits for it.
  struct Wait {
    bool open = true;
    int connection = -1;
  };
  struct ServiceState {
    bool running = false;
    bool held = false;
    int refusals = 0;
    std::vector<std::size_t> pending;  // waits
    int connection = -1;               // of the client's; -1 while it is not bound
  };
  // An endpoint as a service holds it.
  struct Transfer {
    int connection = -1;
    bool held = false;
    Listener listener;
  };
  struct Process {
    std::vector<std::string> packages;
    int importance = 0;
    bool focused = false;
  };
  struct Subscription {
    unsigned code;
    test::Bytes arguments;
    Listener listener;
  };

  // ---- The trace ----
  const Event& next(const std::string& expected);
  const Event& take(Kind kind, const std::string& expected);
  void error(const std::string& line);
  void nested_until(Kind end);
  void apply(const Event& event);

  // ---- Services, connections, the run loop ----
  static const char* name(int service) { return kServices.at(static_cast<std::size_t>(service)); }
  ServiceState& state(int service) { return m_services.at(static_cast<std::size_t>(service)); }
  int connect(int service);
  void answer_binds(int service);
  void die(int connection);
  void shut_runtime_down();
  void drain();
  bool sleep(int seconds);
  int look_up(int service);
  bool bind(int service);
  void died(int connection);
  bool publish(const std::string& nspace, const Listener& listener);
  int deliver(const Event& sent);

  // ---- Calls ----
  std::string call(const Call& call);
  bool send(const Call& call, unsigned code, const Intent& intent, const test::Bytes& further = {});
  std::string meta_data(const Call& call, const std::function<std::string(const Entries&)>& value);
  std::string version(const Call& call, bool as_code);
  std::string setting(const Call& call);
  std::string directed_id();
  bool partial_wake_lock();
  bool send_event(const Call& call);
  bool register_directive(const Call& call);
  void record_metric(const Call& call);
  std::optional<std::vector<Process>> processes(const std::string& method);
  std::string foreground();
  std::string process_state(const Call& call);
  std::string receivers(const Call& call);
  bool initialize();
  void stopped();
  void destroy_proxies();
  bool ready(const std::string& method);
  std::optional<Reader> transact(int service, unsigned code, const test::Bytes& arguments = {},
                                 const Listener& listener = {});
  std::string text(unsigned code, const test::Bytes& arguments = {});
  bool asks(const std::string& method, const std::string& argument, const char* what);
  bool subscribe(Subscription subscription);
  bool hear(const std::string& action, const test::Bytes& lists, std::function<void(const Intent&)> listener);
  bool hear_state(const char* action_true, const char* action_false, int callback);
  bool make(const Subscription& subscription);
  void tell(int callback, const std::string& arguments);

  const Trace& m_trace;
  std::size_t m_at = 0;

  std::array<ServiceState, kServiceCount> m_services;
  std::vector<Connection> m_connections;
  std::vector<Wait> m_waits;
  std::deque<std::function<void()>> m_steps;  // of the run loop
  std::vector<Transfer> m_transfers;
  std::map<std::string, Listener> m_published;
  std::set<std::string> m_taken;
  std::vector<std::string> m_bindings;
  bool m_shut_down = false;
  bool m_interrupted = false;
  bool m_runtime_broken = false;
  long m_now = 0;

  bool m_initialized = false;
  bool m_maro = true;
  bool m_on_loop = false;
  bool m_in_maro_callback = false;
  bool m_threw = false;  // the callback of the message in progress
  std::vector<Subscription> m_settings;
  std::vector<Subscription> m_broadcasts;
  std::vector<std::pair<std::string, Listener>> m_directives;
  Listener m_network;
  bool m_unfinished_network_call = false;
  int m_forgotten = 0;
  int m_late_handles = 0;
};

}  // namespace orvel::fuzz

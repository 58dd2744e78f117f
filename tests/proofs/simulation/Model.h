// What a caller of the client is promised, as a plain sequential account of one run.
#pragma once

#include <array>
#include <cstddef>
#include <deque>
#include <functional>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "Trace.h"
#include "support/Services.h"

namespace orvel::test::simulation {

// What was not as promised. `at` is the event up to which the trace agrees.
struct Mismatch {
  std::size_t at;
  std::string expected;
};

// Goes through a trace: takes over what the run decided, and says in advance all that the client does.
class Model {
 public:
  // `pause` is how long a client waits after a death before it binds again, in seconds.
  Model(const Trace& trace, int pause) : m_trace(trace), m_pause(pause) {}

  // Throws Mismatch.
  void check();

  // What the client has done with names by the end: as InprocessVesk::bindings().
  [[nodiscard]] const std::vector<std::string>& bindings() const { return m_bindings; }
  // How many requests, and replies, were left allocated on purpose.
  [[nodiscard]] int forgotten() const { return m_forgotten; }
  // Handles that came after the wait for them had ended, and that the client leaves bound.
  [[nodiscard]] int late_handles() const { return m_late_handles; }
  [[nodiscard]] bool maro_connected() const { return m_maro; }

 private:
  struct Connection {
    int service;
    bool dead = false;
    bool closed = false;
    bool linked = false;
  };
  // One vesk_service_bind that the client waits for.
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
    int callback = -1;
  };
  // A registration that the client makes again after a death.
  struct Subscription {
    RequestOf request;
    int callback;
  };

  // ---- The trace ----
  const Event& next(const std::string& expected);
  void expect(const Event& wanted);
  const Event& nested_until(Kind end);
  void apply(const Event& event);
  void apply_send(const Event& event);

  // ---- Services, connections, the run loop ----
  static const char* name(int service) { return kServices.at(static_cast<std::size_t>(service)); }
  ServiceState& state(int service) { return m_services.at(static_cast<std::size_t>(service)); }
  Connection& connection(int number) { return m_connections.at(static_cast<std::size_t>(number)); }
  int connect(int service);
  void answer_binds(int service);
  void die(int number);
  void shut_runtime_down();
  void drain();
  bool sleep(int seconds);
  int look_up(int service);
  bool bind(int service);
  void died(int number);
  bool publish(const std::string& nspace, int callback);
  int deliver(const Event& sent);

  // ---- Calls ----
  std::string call(int row, int callback);
  std::string make_requests(int row, int callback);
  bool transact(const RequestOf& request, int callback, bool any_arguments = false);
  bool initialize();
  void stopped();
  void destroy_proxies();
  bool register_directive(const std::string& nspace, int callback);
  void use_network(int row, int callback);

  const Trace& m_trace;
  const int m_pause;
  std::size_t m_at = 0;

  std::array<ServiceState, kServiceCount> m_services;
  std::vector<Connection> m_connections;
  std::vector<Wait> m_waits;
  std::deque<std::function<void()>> m_steps;  // of the run loop
  std::vector<Transfer> m_transfers;
  std::map<std::string, int> m_published;  // callbacks
  std::set<std::string> m_taken;
  std::vector<std::string> m_bindings;
  bool m_shut_down = false;
  bool m_interrupted = false;
  long m_now = 0;

  bool m_initialized = false;
  bool m_maro = true;
  bool m_on_loop = false;
  bool m_in_maro_callback = false;
  std::vector<Subscription> m_settings;
  std::vector<Subscription> m_broadcasts;
  std::vector<std::pair<std::string, int>> m_directives;
  std::optional<int> m_network;  // the callback
  bool m_unfinished_network_call = false;
  int m_forgotten = 0;
  int m_late_handles = 0;
};

}  // namespace orvel::test::simulation

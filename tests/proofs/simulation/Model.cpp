#include <algorithm>
#include <cstddef>
#include <deque>
#include <functional>
#include <map>
#include <optional>
#include <stdexcept>
#include <string_view>
#include <tuple>
#include <utility>
#include <vector>

#include "Trace.h"

namespace orvel::test::simulation {
namespace {

struct Connection {
  int service = 0;
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
  std::vector<std::size_t> pending;  // waits
  int connection = -1;               // of the client's; -1 while it is not bound
};

// An endpoint as a service holds it.
struct Transfer {
  int connection = -1;
  bool held = false;
  int callback = -1;
};

// A registration that the client makes again after a death, and its callback.
using Subscription = std::pair<RequestOf, int>;

class Model {
 public:
  Model(const Trace& trace, int pause, bool maro) : m_trace(trace), m_pause(pause), m_maro(maro) {}

  std::string run() {
    while (m_at < m_trace.size()) apply(next());
    return describe_end(m_bindings, m_left, 0, m_maro);
  }

 private:
  // ---- The trace ----

  // About the event that comes next.
  [[noreturn]] void fail(const std::string& expected) const {
    const std::string seen = m_at < m_trace.size() ? describe(m_trace[m_at]) : "the end";
    throw std::runtime_error("\n" + describe(m_trace, m_at) + "  expected: " + expected + "\n  seen:     " + seen);
  }

  const Event& next() {
    if (m_at == m_trace.size()) fail("more");
    return m_trace[m_at++];
  }

  void expect(const Event& wanted) {
    if (m_at == m_trace.size() || !fits(m_trace[m_at], wanted)) fail(describe(wanted));
    ++m_at;
  }

  // The bytes that were seen may go on where those that are wanted end.
  static bool fits(const Event& seen, const Event& wanted) {
    const auto facts = [](const Event& event) { return std::tie(event.kind, event.a, event.b, event.text); };
    const std::size_t size = wanted.bytes.size();
    return facts(seen) == facts(wanted) && seen.bytes.size() >= size && Bytes(seen.bytes.data(), size) == wanted.bytes;
  }

  // Gives the event that ended it.
  const Event& nested_until(Kind end) {
    while (true) {
      const Event& event = next();
      if (event.kind == end) return event;
      apply(event);
    }
  }

  void apply(const Event& event) {
    ServiceState& it = m_services[event.a];  // of those that are about one
    switch (event.kind) {
      case Kind::kStart:
        it.running = true;
        return answer_binds(event.a);
      case Kind::kKill:
        it.running = false;
        for (auto& [number, each] : m_connections) {
          if (each.service == event.a && !each.dead && !each.closed) die(number);
        }
        return;
      case Kind::kHold:
        it.held = true;
        return;
      case Kind::kComplete:
        it.held = false;
        return answer_binds(event.a);
      case Kind::kSend:
        m_steps.emplace_back([this, &event] { deliver(event); });
        return;
      case Kind::kCall:
        return expect({Kind::kReturn, 0, 0, call(event.a, event.b)});
      case Kind::kDrain:
        drain();
        nested_until(Kind::kDrained);
        return;
      default:
        --m_at;
        fail("nothing of the client's");
    }
  }

  // ---- Services, connections, the run loop ----

  int connect(int service) {
    const int number = static_cast<int>(m_connections.size());
    m_connections[number] = {service};
    m_bindings.push_back(std::string("+") + name_of(service));
    return number;
  }

  void answer_binds(int service) {
    ServiceState& it = m_services[service];
    if (!it.running || it.held) return;
    for (const std::size_t number : std::exchange(it.pending, {})) {
      const int connected = connect(service);
      Wait& wait = m_waits[number];
      const bool in_time = wait.open && wait.connection < 0;
      if (in_time) wait.connection = connected;
      if (!in_time) ++m_left.lookups;  // the client leaves it bound
    }
  }

  void die(int number) {
    m_connections.at(number).dead = true;
    if (m_connections.at(number).linked) m_steps.emplace_back([this, number] { died(number); });
  }

  void drain() {
    m_on_loop = true;
    while (!m_steps.empty() && !m_shut_down) {
      const auto step = std::move(m_steps.front());
      m_steps.pop_front();
      step();
    }
    m_on_loop = false;
  }

  void sleep(int seconds) {
    expect({Kind::kSleep, seconds});
    nested_until(Kind::kAwake);
    m_now += seconds;
  }

  // Gives a connection, or -1.
  int look_up(int service) {
    ServiceState& it = m_services[service];
    if (service == kDirectives) return it.running ? connect(service) : -1;  // asked at Android's service manager
    const std::size_t wait = m_waits.size();
    m_waits.emplace_back();
    it.pending.push_back(wait);
    answer_binds(service);
    for (int poll = 0; poll < 10 && m_waits[wait].connection < 0; ++poll) sleep(2);
    m_waits[wait].open = false;
    return m_waits[wait].connection;
  }

  bool bind(int service) {
    const long deadline = m_now + 300;
    for (int delay = 2; m_now < deadline; delay = std::min(2 * delay, 60)) {
      const int found = look_up(service);
      if (found >= 0) {
        m_services[service].connection = found;
        m_connections.at(found).linked = true;
        if (m_connections.at(found).dead) die(found);
        return true;
      }
      sleep(delay);
    }
    return false;
  }

  void died(int number) {
    if (m_connections.at(number).closed) return;
    m_connections.at(number).closed = true;
    const int service = m_connections.at(number).service;
    m_services[service].connection = -1;
    sleep(m_pause);
    if (!bind(service)) return;
    if (service == kDelegate) {
      for (const auto& [request, callback] : m_settings) transact(request, callback);
      for (const auto& [request, callback] : m_broadcasts) transact(request, callback);
    }
    if (service == kDirectives) {
      for (const auto& [nspace, callback] : m_directives) publish(nspace, callback);
    }
  }

  void publish(const std::string& nspace, int callback) {
    m_published[published_name(nspace)] = callback;
    m_bindings.push_back("=" + published_name(nspace));
  }

  void deliver(const Event& sent) {
    int callback = -1;
    if (sent.a < 0) {
      const auto found = m_published.find(sent.text);
      if (found != m_published.end()) callback = found->second;
    } else {
      const Transfer& transfer = m_transfers.at(static_cast<std::size_t>(sent.a));
      if (transfer.held && !m_connections.at(transfer.connection).closed) callback = transfer.callback;
    }
    if (callback < 0) return;
    const Notice& notice = notice_at(sent.b);
    const bool is_maro = notice.to.method->name == std::string_view("registerForMaroConnectivityChange");
    if (is_maro) m_maro = notice.told == std::string_view("true");
    m_in_maro_callback = is_maro;
    expect({Kind::kCallback, callback, 0, notice.told});
    nested_until(Kind::kCallbackEnd);
    m_in_maro_callback = false;
  }

  // ---- Calls ----

  std::string call(int row, int callback) {
    const Method& method = method_at(row);
    const std::string_view name = method.name;
    if (name == "initialize") return initialize();
    if (name == "shutdown") {
      if (!m_on_loop && m_initialized) shut_down();
      return "true";
    }
    if (name == "isMaroConnected") return m_maro && !m_in_maro_callback ? "true" : "false";
    if (m_in_maro_callback || !m_initialized) return method.refused;
    if (method.service == kDirectives) {
      const std::size_t behind = methods().size() - static_cast<std::size_t>(row);
      register_directive(kNamespaces.at(kNamespaces.size() - behind), callback);
      return method.result;
    }
    if (m_services[method.service].connection < 0) return method.refused;
    if (method.service != kConnectivity) return make_requests(method, callback);
    use_network(method, callback);
    return method.result;
  }

  std::string make_requests(const Method& method, int callback) {
    bool good = true;
    for (const Request& request : method.requests) {
      if (request.code == 0) break;
      const RequestOf made{&method, &request};
      const bool answered = transact(made, callback);
      if (answered && method.renewed) (request.code == 34 ? m_settings : m_broadcasts).emplace_back(made, callback);
      good = good && answered;
    }
    return good ? method.result : method.failure;
  }

  // Whether the service answers.
  bool transact(const RequestOf& made, int callback) {
    const int service = made.method->service;
    const int number = m_services[service].connection;
    if (number < 0 || m_shut_down || m_connections.at(number).dead) return false;

    const bool has_endpoint = made.method->renewed || service == kEvents || service == kConnectivity;
    expect(
        {Kind::kRequest, service, static_cast<int>(made.request->code), has_endpoint ? "endpoint" : "", made.head()});
    const std::size_t transfer = m_transfers.size();
    if (has_endpoint) m_transfers.push_back({number, true, callback});

    const int reply = nested_until(Kind::kReply).a;
    const bool lost = m_shut_down || m_connections.at(number).dead || reply < 0;
    if (lost && has_endpoint) m_transfers[transfer].held = false;
    return !lost && reply == 0;
  }

  std::string initialize() {
    if (m_in_maro_callback) return "false";
    if (m_initialized) return "true";
    m_shut_down = false;
    for (int service = 0; service < kServiceCount; ++service) bind(service);
    m_initialized = true;
    return "true";
  }

  void shut_down() {
    m_initialized = false;
    m_shut_down = true;
    for (auto& [service, each] : m_services) each.pending.clear();
    m_published.clear();
    for (const int service :
         {kPower, kDelegate, kEvents, kDirectives, kActivities, kMetrics, kPackages, kConnectivity}) {
      const int number = std::exchange(m_services[service].connection, -1);
      if (number < 0) continue;
      m_connections.at(number).closed = true;
      m_bindings.push_back(std::string("-") + name_of(service));
    }
    m_settings.clear();
    m_broadcasts.clear();
    m_directives.clear();
    m_network.reset();
    m_unfinished_network_call = false;
  }

  void register_directive(const std::string& nspace, int callback) {
    const auto is_it = [&](const auto& known) { return known.first == nspace; };
    if (std::any_of(m_directives.begin(), m_directives.end(), is_it)) return;
    publish(nspace, callback);
    m_directives.emplace_back(nspace, callback);
  }

  // The reply of a registration is kept until the next call, which leaves it and its request behind, on purpose.
  void use_network(const Method& method, int callback) {
    const bool registers = method.requests.front().code == 4;
    if (!registers && !m_network) return;
    if (registers) m_network = callback;
    if (std::exchange(m_unfinished_network_call, registers)) m_left.payloads = ++m_left.buffers;
    transact({&method, &method.requests.front()}, *m_network);
  }

  const Trace& m_trace;
  const int m_pause;
  std::size_t m_at = 0;

  std::map<int, ServiceState> m_services;
  std::map<int, Connection> m_connections;
  std::vector<Wait> m_waits;
  std::deque<std::function<void()>> m_steps;  // of the run loop
  std::vector<Transfer> m_transfers;
  std::map<std::string, int> m_published;  // callbacks
  std::vector<std::string> m_bindings;
  Live m_left;
  bool m_shut_down = false;
  long m_now = 0;

  bool m_initialized = false;
  bool m_maro;
  bool m_on_loop = false;
  bool m_in_maro_callback = false;
  std::vector<Subscription> m_settings;
  std::vector<Subscription> m_broadcasts;
  std::vector<std::pair<std::string, int>> m_directives;
  std::optional<int> m_network;  // the callback
  bool m_unfinished_network_call = false;
};

}  // namespace

std::string model_end(const Trace& trace, int pause, bool maro) {
  return Model(trace, pause, maro).run();
}

}  // namespace orvel::test::simulation

#include "Model.h"

#include <algorithm>
#include <cerrno>
#include <utility>

namespace orvel::test::simulation {

// ---- The trace ----

void Model::check() {
  while (m_at < m_trace.size()) apply(next("a decision"));
}

const Event& Model::next(const std::string& expected) {
  if (m_at == m_trace.size()) throw Mismatch{m_at, expected};
  return m_trace[m_at++];
}

void Model::expect(const Event& wanted) {
  const std::string expected = describe(wanted);
  const std::size_t at = m_at;
  const Event& seen = next(expected);
  if (!seen.is_like(wanted) || !(seen.bytes == wanted.bytes)) throw Mismatch{at, expected};
}

// Gives the event that ended it.
const Event& Model::nested_until(Kind end) {
  while (true) {
    const Event& event = next("the end of what happens meanwhile");
    if (event.kind == end) return event;
    apply(event);
  }
}

void Model::apply(const Event& event) {
  switch (event.kind) {
    case Kind::kStart:
      state(event.a).running = true;
      return answer_binds(event.a);
    case Kind::kKill:
      state(event.a).running = false;
      for (int n = 0; n < static_cast<int>(m_connections.size()); ++n) {
        const Connection& each = connection(n);
        if (each.service == event.a && !each.dead && !each.closed) die(n);
      }
      return;
    case Kind::kRefuse:
      state(event.a).refusals = event.b;
      return;
    case Kind::kHold:
      state(event.a).held = true;
      return;
    case Kind::kComplete:
      state(event.a).held = false;
      return answer_binds(event.a);
    case Kind::kTakeName:
      m_taken.insert(event.text);
      return;
    case Kind::kSend:
      return apply_send(event);
    case Kind::kCall:
      return expect({Kind::kReturn, 0, 0, call(event.a, event.b)});
    case Kind::kStop:
      m_interrupted = true;
      return shut_runtime_down();
    case Kind::kStopped:
      return stopped();
    case Kind::kDrain:
      drain();
      nested_until(Kind::kDrained);
      return;
    default:
      throw Mismatch{m_at - 1, "nothing of the client's"};
  }
}

void Model::apply_send(const Event& event) {
  const auto result = std::make_shared<int>(0);
  m_steps.emplace_back([this, &event, result] { *result = deliver(event); });
  if (event.flag) m_steps.emplace_back([this, result] { expect({Kind::kAnswer, *result}); });
}

// ---- Services, connections, the run loop ----

int Model::connect(int service) {
  m_connections.push_back({service});
  m_bindings.push_back(std::string("+") + name(service));
  return static_cast<int>(m_connections.size()) - 1;
}

void Model::answer_binds(int service) {
  ServiceState& it = state(service);
  if (!it.running || it.held) return;
  for (const std::size_t number : std::exchange(it.pending, {})) {
    const int connected = connect(service);
    Wait& wait = m_waits[number];
    const bool in_time = wait.open && wait.connection < 0;
    if (in_time) wait.connection = connected;
    if (!in_time) ++m_late_handles;
  }
}

void Model::die(int number) {
  connection(number).dead = true;
  if (connection(number).linked) m_steps.emplace_back([this, number] { died(number); });
}

void Model::shut_runtime_down() {
  m_shut_down = true;
  for (ServiceState& each : m_services) each.pending.clear();
  m_published.clear();
}

void Model::drain() {
  m_on_loop = true;
  while (!m_steps.empty() && !m_shut_down) {
    const auto step = std::move(m_steps.front());
    m_steps.pop_front();
    step();
  }
  m_on_loop = false;
}

// False when the wait is interrupted before it begins.
bool Model::sleep(int seconds) {
  if (m_interrupted) return false;
  expect({Kind::kSleep, seconds});
  nested_until(Kind::kAwake);
  m_now += seconds;
  return true;
}

// Gives a connection, or -1.
int Model::look_up(int service) {
  if (m_interrupted) return -1;
  ServiceState& it = state(service);
  const bool is_android = service == kDirectives;
  if (it.refusals > 0) {
    --it.refusals;
    return -1;
  }
  if (is_android) return it.running ? connect(service) : -1;
  const std::size_t wait = m_waits.size();
  m_waits.emplace_back();
  it.pending.push_back(wait);
  answer_binds(service);
  for (int poll = 0; poll < 10 && m_waits[wait].connection < 0 && sleep(2); ++poll) {
  }
  m_waits[wait].open = false;
  return m_waits[wait].connection;
}

bool Model::bind(int service) {
  const long deadline = m_now + 300;
  for (int delay = 2; m_now < deadline; delay = std::min(2 * delay, 60)) {
    const int found = look_up(service);
    if (found >= 0) {
      state(service).connection = found;
      connection(found).linked = true;
      if (connection(found).dead) die(found);
      return true;
    }
    if (!sleep(delay)) return false;
  }
  return false;
}

void Model::died(int number) {
  if (connection(number).closed) return;
  connection(number).closed = true;
  const int service = connection(number).service;
  state(service).connection = -1;
  if (!sleep(m_pause) || !bind(service)) return;
  if (service == kDelegate) {
    for (const Subscription& each : m_settings) transact(each.request, each.callback);
    for (const Subscription& each : m_broadcasts) transact(each.request, each.callback);
  }
  if (service == kDirectives) {
    for (const auto& [nspace, callback] : m_directives) publish(nspace, callback);
  }
}

bool Model::publish(const std::string& nspace, int callback) {
  const std::string published = published_name(nspace);
  if (m_interrupted || m_taken.count(published) != 0) return false;
  m_published[published] = callback;
  m_bindings.push_back("=" + published);
  return true;
}

// What the endpoint makes of a message: 0, 1 when it does not serve such calls, or an error.
int Model::deliver(const Event& sent) {
  int callback = -1;
  if (sent.a < 0) {
    const auto found = m_published.find(sent.text);
    if (found != m_published.end()) callback = found->second;
  } else {
    const Transfer& transfer = m_transfers.at(static_cast<std::size_t>(sent.a));
    if (transfer.held && !connection(transfer.connection).closed) callback = transfer.callback;
  }
  const Notice& notice = notices().at(static_cast<std::size_t>(sent.b));
  if (callback < 0) return -EPIPE;
  if (sent.flag != notice.two_way) return 1;
  if (notice.told == nullptr) return 0;
  static const int maro = row_of("registerForMaroConnectivityChange");
  if (notice.to.row == maro) m_maro = notice.told == std::string("true");
  m_in_maro_callback = notice.to.row == maro;
  expect({Kind::kCallback, callback, 0, notice.told});
  const bool threw = nested_until(Kind::kCallbackEnd).flag;
  m_in_maro_callback = false;
  return threw ? -EIO : 0;
}

// ---- Calls ----

std::string Model::call(int row, int callback) {
  static const int first_directive = row_of("registerForDirective");
  const Method& method = method_at(row);
  const std::string name = method.name;
  if (name == "initialize") return initialize() ? "true" : "false";
  if (name == "shutdown") {
    if (!m_on_loop) stopped();
    return "";
  }
  if (name == "isMaroConnected") return m_maro && !m_in_maro_callback ? "true" : "false";
  if (name == "isNetworkConnected") return "false";
  if (m_in_maro_callback || !m_initialized) return method.refused;
  if (method.service == kDirectives) {
    const std::string nspace = kNamespaces.at(static_cast<std::size_t>(row - first_directive));
    return register_directive(nspace, callback) ? "true" : "false";
  }
  if (state(method.service).connection < 0) return method.refused;
  if (method.service != kConnectivity) return make_requests(row, callback);
  use_network(row, callback);
  return method.result;
}

std::string Model::make_requests(int row, int callback) {
  const Method& method = method_at(row);
  const bool is_launch = method.name == std::string("launchApplicationWithPackageName");
  const bool is_lock = method.name == std::string("acquirePartialWakeLock");
  bool good = true;
  for (int place = 0; place < 2 && method.requests.at(static_cast<std::size_t>(place)).code != 0; ++place) {
    // Launches what it has been given, which is an empty intent after a failure.
    const bool answered = transact({row, place}, callback, is_launch && !good);
    if (answered && method.renewed) {
      const bool is_setting = method.requests.front().code == 34;
      (is_setting ? m_settings : m_broadcasts).push_back({{row, place}, callback});
    }
    good = answered && (good || is_launch);
    if (!good && is_lock) break;  // the service may be too old for the second request
  }
  return good ? method.result : method.failure;
}

// Whether the service answers. With `any_arguments` only the code is known.
bool Model::transact(const RequestOf& made, int callback, bool any_arguments) {
  const Method& method = method_at(made.row);
  const int service = method.service;
  const unsigned code = method.requests.at(static_cast<std::size_t>(made.place)).code;
  const int number = state(service).connection;
  if (number < 0 || m_shut_down || connection(number).dead) return false;

  const bool has_endpoint = method.renewed || service == kEvents || service == kConnectivity;
  const Event wanted{Kind::kRequest, service, static_cast<int>(code), {}, head_of(made), has_endpoint};
  const std::size_t at = m_at;
  const Event& seen = next(describe(wanted));
  const std::size_t size = wanted.bytes.size();
  const bool same_arguments =
      any_arguments || (seen.bytes.size() >= size && Bytes(seen.bytes.data(), size) == wanted.bytes);
  if (!seen.is_like(wanted) || !same_arguments) throw Mismatch{at, describe(wanted)};
  const std::size_t transfer = m_transfers.size();
  if (has_endpoint) m_transfers.push_back({number, true, callback});

  const int reply = nested_until(Kind::kReply).a;
  const bool lost = m_shut_down || connection(number).dead || reply < 0;
  if (lost && has_endpoint) m_transfers[transfer].held = false;
  return !lost && reply == 0;
}

bool Model::initialize() {
  if (m_in_maro_callback) return false;
  if (m_initialized) return true;
  m_shut_down = false;
  for (int service = 0; service < kServiceCount; ++service) {
    bind(service);
    if (!m_interrupted) continue;
    shut_runtime_down();
    destroy_proxies();
    return false;
  }
  m_initialized = true;
  return true;
}

void Model::stopped() {
  m_interrupted = false;
  if (!m_initialized) return;
  shut_runtime_down();
  destroy_proxies();
  m_initialized = false;
}

void Model::destroy_proxies() {
  for (const int service : {kPower, kDelegate, kEvents, kDirectives, kActivities, kMetrics, kPackages, kConnectivity}) {
    const int number = std::exchange(state(service).connection, -1);
    if (number < 0) continue;
    connection(number).closed = true;
    m_bindings.push_back(std::string("-") + name(service));
  }
  m_settings.clear();
  m_broadcasts.clear();
  m_directives.clear();
  m_network.reset();
  m_unfinished_network_call = false;
}

bool Model::register_directive(const std::string& nspace, int callback) {
  const auto is_it = [&](const auto& known) { return known.first == nspace; };
  if (std::any_of(m_directives.begin(), m_directives.end(), is_it)) return true;
  if (!publish(nspace, callback)) return false;
  m_directives.emplace_back(nspace, callback);
  return true;
}

// The reply of a registration is kept until the next call, which forgets it.
void Model::use_network(int row, int callback) {
  const bool registers = method_at(row).name == std::string("registerForNetworkConnectivityChange");
  if (!registers && !m_network) return;
  if (registers) m_network = callback;
  if (std::exchange(m_unfinished_network_call, registers)) ++m_forgotten;
  transact({row, 0}, *m_network);
}

}  // namespace orvel::test::simulation

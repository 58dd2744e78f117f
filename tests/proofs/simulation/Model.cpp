#include "Model.h"

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <limits>

namespace orvel::fuzz {
namespace {

using test::Bytes;

constexpr std::array<const char*, kServiceCount> kDescriptors = {
    "com.quarlo.orveldelegate.IDelegateService",
    "com.quarlo.orveldelegate.powermanager.IPowerManagerService",
    "com.quarlo.orveldelegate.orvelsim.IOrvelSimEventClient",
    "",
    "com.quarlo.orveldelegate.activitymanager.IActivityManager",
    "com.quarlo.orveldelegate.services.ITarselMetric",
    "com.quarlo.orveldelegate.packagemanager.IOrvelPackageManager",
    "com.quarlo.orveldelegate.androidconnectivitymanager.IAndroidConnectivityManager"};

Bytes or_null(const std::string& text) {
  return text.empty() ? Bytes().null() : Bytes().utf16(text);
}

// Behind the mark that something is there and its length, which counts itself.
Bytes measured(const Bytes& contents) {
  return Bytes().i32(1).i32(static_cast<int>(contents.size()) + 4).append(contents);
}

Bytes bytes_of(const Entries& extras) {
  Bytes all = Bytes().i32(static_cast<int>(extras.numbers.size() + extras.longs.size() + extras.texts.size()));
  for (const auto& [key, number] : extras.numbers) all.utf16(key).i32(1).i32(number);
  for (const auto& [key, number] : extras.longs) all.utf16(key).i32(6).i64(number);
  for (const auto& [key, text] : extras.texts) all.utf16(key).i32(0).utf16(text);
  return Bytes().i32(static_cast<int>(all.size())).append(all);
}

Bytes bytes_of(const Intent& intent) {
  Bytes all = Bytes().utf16(intent.action);
  for (const std::string& text : {intent.data, intent.text3, intent.package}) all.append(or_null(text));
  const bool good = !intent.component.first.empty() && !intent.component.second.empty();
  all.i32(good ? 1 : 0);
  if (good) all.utf16(intent.component.first).utf16(intent.component.second);
  const bool has_extras = intent.extras.numbers.size() + intent.extras.texts.size() > 0;
  all.i32(has_extras ? 1 : 0);
  if (has_extras) all.append(bytes_of(intent.extras));
  all.i32(static_cast<int>(intent.categories.size()));
  for (const std::string& category : intent.categories) all.utf16(category);
  return measured(all.i32(intent.flags));
}

// What a caller gives to the intent methods.
Intent intent_of(const Call& call) {
  Intent intent;
  intent.action = call.texts[0];
  intent.data = call.texts[1];
  intent.package = call.texts[2];
  intent.component = {call.texts[1], call.texts[2]};
  if (call.number % 2 != 0) intent.extras.numbers["n"] = call.number;
  if (call.number % 3 == 0) intent.extras.longs["l"] = call.flags;
  if (call.number > 5) intent.categories = {call.texts[0], "c"};
  intent.flags = call.number;
  return intent;
}

// The number that a setting's value begins with, as text; otherwise what is thrown.
std::string number_in(const std::string& value, int default_value) {
  if (value.empty()) return std::to_string(default_value);
  std::size_t at = 0;
  while (at < value.size() && value[at] == ' ') ++at;
  const bool negative = at < value.size() && value[at] == '-';
  if (negative) ++at;
  if (at == value.size() || std::isdigit(static_cast<unsigned char>(value[at])) == 0) return "throws invalid_argument";
  long long number = 0;
  for (; at < value.size() && std::isdigit(static_cast<unsigned char>(value[at])) != 0; ++at) {
    number = number * 10 + (value[at] - '0');
  }
  if (negative) number = -number;
  if (number > std::numeric_limits<int>::max() || number < std::numeric_limits<int>::min())
    return "throws out_of_range";
  return std::to_string(number);
}

bool throws(const std::string& number) {
  return number.rfind("throws", 0) == 0;
}

// The package that a broadcast is about.
std::string package_of(const Intent& broadcast) {
  const std::string prefix = "package:";
  if (const std::size_t at = broadcast.data.find(prefix); at != std::string::npos) {
    const std::string rest = broadcast.data.substr(at + prefix.size());
    return rest.substr(0, rest.find('\n'));
  }
  const std::string extra = value_or(broadcast.extras.texts, "packageName", std::string());
  return extra.empty() ? broadcast.data : extra;
}

}  // namespace

// ---- The trace ----

void Model::check() {
  while (m_at < m_trace.events.size()) apply(next("a decision"));
}

const Event& Model::next(const std::string& expected) {
  while (m_at < m_trace.events.size() && m_trace.events[m_at].kind == Kind::kLine) ++m_at;
  if (m_at == m_trace.events.size()) throw Mismatch{m_at, expected};
  return m_trace.events[m_at++];
}

const Event& Model::take(Kind kind, const std::string& expected) {
  const Event& event = next(expected);
  if (event.kind != kind) throw Mismatch{m_at - 1, expected};
  return event;
}

void Model::error(const std::string& line) {
  if (take(Kind::kError, "ERROR " + line).text != line) throw Mismatch{m_at - 1, "ERROR " + line};
}

void Model::nested_until(Kind end) {
  while (true) {
    const Event& event = next("the end of what happens meanwhile");
    if (event.kind == end) return;
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
      for (std::size_t n = 0; n < m_connections.size(); ++n) {
        const Connection& each = m_connections[n];
        if (each.service == event.a && !each.dead && !each.closed) die(static_cast<int>(n));
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
    case Kind::kBreakRuntime:
      m_runtime_broken = true;
      return;
    case Kind::kSend: {
      const auto result = std::make_shared<int>(0);
      m_steps.emplace_back([this, &event, result] { *result = deliver(event); });
      if (!event.two_way) return;
      m_steps.emplace_back([this, result] {
        const std::string expected = "ANSWER " + std::to_string(*result);
        const Event& answer = take(Kind::kAnswer, expected);
        if (answer.a != *result || answer.bytes.size() != 0) throw Mismatch{m_at - 1, expected};
      });
      return;
    }
    case Kind::kCall: {
      const std::string expected = call(m_trace.calls.at(static_cast<std::size_t>(event.a)));
      if (take(Kind::kReturn, "RETURN " + expected).text != expected) throw Mismatch{m_at - 1, "RETURN " + expected};
      return;
    }
    case Kind::kStop:
      m_interrupted = true;
      shut_runtime_down();
      return;
    case Kind::kStopped:
      return stopped();
    case Kind::kDrain:
      drain();
      return nested_until(Kind::kDrained);
    default:
      throw Mismatch{m_at - 1, "nothing of the client's"};
  }
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
  std::vector<int> connections;
  const std::vector<std::size_t> pending = std::exchange(it.pending, {});
  for (std::size_t n = 0; n < pending.size(); ++n) connections.push_back(connect(service));
  for (std::size_t n = 0; n < pending.size(); ++n) {
    Wait& wait = m_waits[pending[n]];
    if (wait.open && wait.connection < 0) {
      wait.connection = connections[n];
    } else {
      ++m_late_handles;
    }
  }
}

void Model::die(int connection) {
  Connection& it = m_connections[static_cast<std::size_t>(connection)];
  it.dead = true;
  if (it.linked) m_steps.emplace_back([this, connection] { died(connection); });
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

bool Model::sleep(int seconds) {
  if (m_interrupted) return false;
  const std::string expected = "SLEEP " + std::to_string(seconds);
  if (take(Kind::kSleep, expected).a != seconds) throw Mismatch{m_at - 1, expected};
  nested_until(Kind::kAwake);
  m_now += seconds;
  return true;
}

int Model::look_up(int service) {
  if (m_interrupted) return -1;
  ServiceState& it = state(service);
  const bool android = service == kDirectives;
  int failure = 0;
  if (it.refusals > 0) {
    --it.refusals;
    failure = -ECONNREFUSED;
  } else if (android && !it.running) {
    failure = -ENOENT;
  }
  if (failure != 0) {
    error(std::string(android ? "bind_to_android_service" : "bind_to_orvel_service") + ":Failed to bind to " +
          name(service) + " with error " + std::to_string(failure));
    return -1;
  }
  if (android) return connect(service);
  const std::size_t wait = m_waits.size();
  m_waits.emplace_back();
  it.pending.push_back(wait);
  answer_binds(service);
  bool awake = true;
  for (int poll = 0; poll < 10 && awake && m_waits[wait].connection < 0; ++poll) awake = sleep(2);
  m_waits[wait].open = false;
  if (m_waits[wait].connection < 0 && awake)
    error(std::string("bind_to_orvel_service:Bound service ") + name(service) + " is not ready after timeout");
  return m_waits[wait].connection;
}

bool Model::bind(int service) {
  const long deadline = m_now + 300;
  int delay = 2;
  while (m_now < deadline) {
    const int connection = look_up(service);
    if (connection >= 0) {
      state(service).connection = connection;
      Connection& it = m_connections[static_cast<std::size_t>(connection)];
      it.linked = true;
      if (it.dead) die(connection);
      return true;
    }
    if (m_interrupted) return false;
    error(std::string("bind_to_service:Failed to connect to service (") + name(service) + "), retrying in " +
          std::to_string(delay) + "s (" + std::to_string(deadline - m_now) + "s remaining)");
    if (!sleep(delay)) return false;
    delay = std::min(2 * delay, 60);
  }
  error(std::string("bind_to_service:Giving up connecting to service (") + name(service) + ") after 300s timeout");
  return false;
}

void Model::died(int connection) {
  Connection& it = m_connections[static_cast<std::size_t>(connection)];
  if (it.closed) return;
  it.closed = true;
  const int service = it.service;
  state(service).connection = -1;
  const std::string named = std::string("Service (") + name(service) + ")";
  error("on_binder_died:" + named + " has died, re-establishing binder connection");
  if (!sleep(6) || !bind(service)) {
    return error(std::string("on_binder_died:Failed to reconnect to service (") + name(service) +
                 "), death callback completed");
  }
  if (service == kDelegate) {
    for (const Subscription& each : m_settings) make(each);
    for (const Subscription& each : m_broadcasts) make(each);
  }
  if (service == kDirectives) {
    for (const auto& [nspace, listener] : m_directives) publish(nspace, listener);
  }
}

bool Model::publish(const std::string& nspace, const Listener& listener) {
  const std::string published = "sim_broker_service_" + nspace + "_vesk_endpoint";
  if (m_interrupted || m_taken.count(published) != 0) {
    error("registerForDirectiveInternal:vesk service register failed. nspace=" + nspace +
          ", err=" + std::to_string(m_interrupted ? -ESHUTDOWN : -EADDRINUSE));
    return false;
  }
  m_published[published] = listener;
  m_bindings.push_back("=" + published);
  return true;
}

int Model::deliver(const Event& sent) {
  Listener listener;
  if (sent.a < 0) {
    listener = value_or(m_published, sent.text, Listener());
  } else {
    const Transfer& transfer = m_transfers.at(static_cast<std::size_t>(sent.a));
    if (transfer.held && !m_connections[static_cast<std::size_t>(transfer.connection)].closed)
      listener = transfer.listener;
  }
  if (!listener) return -EPIPE;
  m_threw = false;
  Reader message(sent.bytes);
  const int result = listener(message, static_cast<unsigned>(sent.b), sent.two_way);
  return m_threw ? -EIO : result;
}

// ---- Calls ----

bool Model::initialize() {
  if (m_in_maro_callback) {
    error("initialize:Called from the connectivity callback");
    return false;
  }
  if (m_initialized) return true;
  if (m_runtime_broken) {
    m_runtime_broken = false;
    error("initialize:Failed to get VESK runtime, error=" + std::to_string(-EIO));
    return false;
  }
  m_shut_down = false;
  for (int service = 0; service < kServiceCount; ++service) {
    bind(service);
    if (!m_interrupted) continue;
    shut_runtime_down();
    destroy_proxies();
    error("initialize:Interrupted by shutdown");
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
    const int connection = std::exchange(state(service).connection, -1);
    if (connection < 0) continue;
    m_connections[static_cast<std::size_t>(connection)].closed = true;
    m_bindings.push_back(std::string("-") + name(service));
  }
  m_settings.clear();
  m_broadcasts.clear();
  m_directives.clear();
  m_network = nullptr;
  m_unfinished_network_call = false;
}

bool Model::ready(const std::string& method) {
  if (m_in_maro_callback) {
    error(method + ":Called from the connectivity callback");
    return false;
  }
  if (!m_initialized) error(method + ":Client is not initialized");
  return m_initialized;
}

std::optional<Reader> Model::transact(int service, unsigned code, const Bytes& arguments, const Listener& listener) {
  const int connection = state(service).connection;
  if (connection < 0) return std::nullopt;
  const auto failed = [this](int reason) {
    error("call:VESK call failed with error " + std::to_string(reason));
    return Reader();
  };
  const auto is_dead = [&] { return m_connections[static_cast<std::size_t>(connection)].dead; };
  if (m_shut_down) return failed(-ESHUTDOWN);
  if (is_dead()) return failed(-EPIPE);

  const Bytes expected = Bytes()
                             .i32(0)
                             .i32(-1)
                             .i32(0x53595354)
                             .utf16(kDescriptors.at(static_cast<std::size_t>(service)))
                             .append(arguments);
  Event wanted{Kind::kRequest, service, static_cast<int>(code), {}, expected};
  const Event& request = take(Kind::kRequest, describe(wanted, m_trace));
  const bool begins =
      request.bytes.size() >= expected.size() && Bytes(request.bytes.data(), expected.size()) == expected;
  const bool whole = listener != nullptr || request.bytes.size() == expected.size();
  if (request.a != service || request.b != static_cast<int>(code) || !begins || !whole ||
      (request.transfer >= 0) != (listener != nullptr))
    throw Mismatch{m_at - 1, describe(wanted, m_trace) + (listener ? " and an endpoint" : "")};
  if (listener) m_transfers.push_back({connection, true, listener});

  nested_until(Kind::kReply);
  const Event& reply = m_trace.events[m_at - 1];
  const int result = m_shut_down ? -ESHUTDOWN : is_dead() ? -EPIPE : reply.a;
  if (result != 0) {
    if (listener) m_transfers.at(static_cast<std::size_t>(request.transfer)).held = false;
    return failed(result);
  }
  Reader reader(reply.bytes);
  const int exception = reader.i32();
  if (exception == 0) return reader;
  error("exceptionOccurred:Received error: " + std::to_string(exception) + " [" + reader.text() + "]");
  if (reader.i32() >= 1) error("exceptionOccurred:Stack Trace: " + reader.text());
  error("call:Exception occurred in VESK call");
  return Reader();
}

std::string Model::text(unsigned code, const Bytes& arguments) {
  auto reply = transact(kDelegate, code, arguments);
  return reply ? reply->text() : std::string();
}

bool Model::make(const Subscription& subscription) {
  const auto reply = transact(kDelegate, subscription.code, subscription.arguments, subscription.listener);
  return reply && !reply->null();
}

bool Model::subscribe(Subscription subscription) {
  if (!make(subscription)) return false;
  (subscription.code == 34 ? m_settings : m_broadcasts).push_back(std::move(subscription));
  return true;
}

bool Model::hear(const std::string& action, const Bytes& lists, std::function<void(const Intent&)> listener) {
  if (action.empty()) {
    error("registerForBroadcastWithDataTypeOrScheme:Intent is null or empty");
    return false;
  }
  return subscribe(
      {28, Bytes().utf16(action).append(lists), [hear = std::move(listener)](Reader& message, unsigned, bool two_way) {
         if (two_way) return 1;
         message.skip(3);
         message.text();
         hear(Intent(message));
         return 0;
       }});
}

bool Model::hear_state(const char* action_true, const char* action_false, int callback) {
  const Bytes no_lists = Bytes().i32(0).i32(0);
  const bool first = hear(action_true, no_lists, [=](const Intent&) { tell(callback, shown(true)); });
  const bool second = hear(action_false, no_lists, [=](const Intent&) { tell(callback, shown(false)); });
  return first && second;
}

void Model::tell(int callback, const std::string& arguments) {
  if (callback == kNoCallback) {
    m_threw = true;
    return;
  }
  const std::string expected = "CALLBACK " + std::to_string(callback) + " (" + arguments + ")";
  const Event& event = take(Kind::kCallback, expected);
  if (event.a != callback || event.text != arguments) throw Mismatch{m_at - 1, expected};
  nested_until(Kind::kCallbackEnd);
  m_threw = m_trace.events[m_at - 1].a != 0;
}

bool Model::asks(const std::string& method, const std::string& argument, const char* what) {
  if (argument.empty()) error(method + ":" + what + " is null or empty");
  return !argument.empty();
}

std::string Model::directed_id() {
  const std::string id = text(32);
  return id == "<unknown>" ? "" : id;
}

std::string Model::setting(const Call& call) {
  std::string value;
  if (asks("getSecureSetting", call.texts[0], "Setting key")) value = text(15, Bytes().utf16(call.texts[0]));
  return number_in(value, call.number);
}

bool Model::partial_wake_lock() {
  auto version = transact(kPower, 3);
  if (!version) error("getVersion:Invalid binder handle");
  const int number = version ? version->i32() : 0;
  if (number < 2) {
    error("acquirePartialWakeLock:wakeUpDeviceCustom() is not available in interface version " +
          std::to_string(number));
    return false;
  }
  const auto reply = transact(kPower, 4, Bytes().i32(1).i64(500));
  return reply && !reply->null();
}

bool Model::send(const Call& call, unsigned code, const Intent& intent, const Bytes& further) {
  const std::string method = name_of(call.method);
  if (call.null && call.method != k_broadcastIntentWithIntKey) {
    error(method + ":intent is null");
    return false;
  }
  if (!ready(method)) return false;
  const auto reply = transact(kDelegate, code, bytes_of(intent).append(further));
  return reply && !reply->null();
}

std::string Model::meta_data(const Call& call, const std::function<std::string(const Entries&)>& value) {
  const std::string& package = call.texts[0];
  if (!ready("getApplicationInfoMetaData")) return value({});
  std::optional<Reader> reply;
  if (asks("getApplicationInfo", package, "Package name"))
    reply = transact(kDelegate, 53, Bytes().utf16(package).i64(call.flags));
  if (!reply || !reply->mark() || !reply->mark()) {
    error("getApplicationInfoMetaData:Failed to get application info for package: " + package + ", key: x");
    return value({});
  }
  for (int n = 0; n < 9; ++n) reply->text();
  for (int n = 0; n < 3; ++n) reply->texts();
  reply->skip(10);
  for (int n = 0; n < 3; ++n) reply->text();
  reply->skip(1);
  if (!reply->mark()) return value({});
  reply->skip(1);
  return value(Entries(*reply, std::min(reply->i32(), 30), false));
}

std::string Model::version(const Call& call, bool as_code) {
  const std::string method = name_of(call.method);
  if (!ready(method)) return {};
  std::optional<Reader> reply;
  if (asks("getPackageInfo", call.texts[0], "Package name"))
    reply = transact(kDelegate, 54, Bytes().utf16(call.texts[0]).i64(call.flags));
  if (!reply || !reply->mark() || !reply->mark()) {
    error(method + ":Failed to get package info for package: " + call.texts[0]);
    return {};
  }
  reply->text();
  const int code = reply->i32();
  return as_code ? std::to_string(code) : reply->text();
}

std::string Model::receivers(const Call& call) {
  const std::string method = name_of(call.method);
  const std::string& action = call.texts[0];
  std::vector<std::string> names;
  if (!ready(method)) return shown(names);
  bool known = false;
  if (state(kDelegate).connection >= 0 && action.empty()) {
    error("queryBroadcastReceivers:Intent is empty");
  } else if (auto reply = transact(kDelegate, 59, Bytes().utf16(action).i64(call.flags))) {
    int count = reply->i32();
    known = !reply->null();
    while (known && count > 0) {
      if (reply->mark() && reply->mark() && reply->mark() && reply->mark()) {
        const std::string package = reply->text();
        reply->text();
        reply->skip(4);
        if (!package.empty()) names.push_back(package);
        --count;
      } else {
        known = !reply->failed();
      }
    }
    if (!known) error("queryBroadcastReceivers:Failed to read OrvelResolveInfoArray from reply");
  }
  if (known) return shown(names);
  error(method + ":Failed to query broadcast receivers for intent: " + action);
  return shown(std::vector<std::string>());
}

auto Model::processes(const std::string& method) -> std::optional<std::vector<Process>> {
  std::vector<Process> all;
  auto reply = transact(kActivities, 2);
  bool known = reply && !reply->null();
  for (int count = known ? reply->i32() : 0; known && count > 0;) {
    if (!reply->mark()) {
      known = !reply->failed();
      continue;
    }
    Process process;
    reply->text();
    reply->skip(2);
    process.packages = reply->texts();
    reply->skip(2);
    process.importance = reply->i32();
    reply->skip(3);
    if (!reply->text().empty()) reply->text();
    reply->skip(2);
    process.focused = reply->i32() != 0;
    reply->i64();
    all.push_back(process);
    --count;
  }
  if (known) return all;
  if (reply) error("getRunningAppProcessesInfo:Failed to read RunningAppProcessInfoArray from reply");
  error(method + ":Failed to get running app processes");
  return std::nullopt;
}

std::string Model::foreground() {
  std::set<std::string> packages;
  if (!ready("getForegroundPackages")) return "false []";
  const auto all = processes("getForegroundPackages");
  if (!all) return "false []";
  for (const Process& process : *all) {
    if (process.importance == 100) packages.insert(process.packages.begin(), process.packages.end());
  }
  return "true " + shown(std::vector<std::string>(packages.begin(), packages.end()));
}

std::string Model::process_state(const Call& call) {
  const auto text = [](bool known, bool found, int importance, bool focused) {
    return shown(known) + " " + shown(found) + " " + std::to_string(importance) + " " + shown(focused);
  };
  if (!ready("getAppProcessState")) return text(false, true, 77, true);
  const auto all = processes("getAppProcessState");
  if (!all) return text(false, true, 77, true);
  for (const Process& process : *all) {
    for (const std::string& package : process.packages) {
      if (package == call.texts[0]) return text(true, true, process.importance, process.focused);
    }
  }
  return text(true, false, -1, false);
}

bool Model::send_event(const Call& call) {
  if (!ready("sendEvent")) return false;
  if (state(kEvents).connection < 0) {
    error("sendEvent:m_binder.good() = false");
    return false;
  }
  const auto& [first, second, third] = call.texts;
  Bytes metadata;
  for (const std::string& text :
       {first, second, third, std::string(), std::string("5"), std::string(), std::string("7")})
    metadata.append(or_null(text));
  metadata.i32(call.number % 2);
  auto reply =
      transact(kEvents, 2, measured(metadata).append(or_null(second)),
               [this, id = call.callback](Reader& message, unsigned, bool two_way) {
                 static constexpr std::array<const char*, 7> kResults = {
                     "SUCCESS", "SUCCESS_NO_CONTENT", "MARO_DISCONNECTED", "INTERNAL_ERROR",
                     "TIMEOUT", "INVALID_EVENT",      "UNKNOWN_ERROR"};
                 if (two_way) return 1;
                 message.skip(3);
                 message.text();
                 int result = 6;
                 if (message.i32() != 0) result = message.i32();
                 if (message.failed() || result < 0 || result > 6) result = 6;
                 const bool final = result == 0 || result == 1 || result == 5;
                 tell(id, shown(std::string(kResults.at(static_cast<std::size_t>(result)))) + ", " + shown(!final));
                 return 0;
               });
  return reply->i32() == 1;
}

bool Model::register_directive(const Call& call) {
  const std::string& nspace = call.texts[0];
  if (!ready("registerForDirective")) return false;
  if (nspace.empty()) {
    error("registerForDirective:Invalid parameter(s)");
    return false;
  }
  for (const auto& [known, listener] : m_directives) {
    if (known != nspace) continue;
    error("registerForDirective:namespace is already registered. nspace=" + nspace);
    return true;
  }
  const Listener listener = [this, id = call.callback](Reader& message, unsigned, bool two_way) {
    if (two_way) return 1;
    std::vector<std::string> texts(7);
    for (const std::size_t n : {0U, 1U, 3U, 2U, 4U, 5U, 6U}) texts[n] = message.text();
    tell(id, shown(texts));
    return 0;
  };
  if (!publish(nspace, listener)) return false;
  m_directives.emplace_back(nspace, listener);
  return true;
}

void Model::record_metric(const Call& call) {
  if (call.null) return error("recordTarselMetricEvent:event is null");
  if (!ready("recordTarselMetricEvent")) return;
  const int number = call.number;
  if (number == 7) {
    if (state(kMetrics).connection >= 0) error("call:Serialize payload failed with error " + std::to_string(-EINVAL));
    return;
  }
  Bytes event = Bytes().utf16(call.texts[0]).utf16(call.texts[1]);
  const int fields = (number == 4 ? 1 : 0) + (number % 3 == 0 ? 1 : 0) + (number % 2 != 0 ? 1 : 0);
  event.i32(fields == 0 ? -1 : fields);
  if (number == 4) event.utf16("_DeviceType").i32(5).i32(7);
  if (number % 3 == 0) event.utf16("long").i32(1).i64(call.flags);
  if (number % 2 != 0) event.utf16("text").i32(0).utf16(call.texts[2]);
  transact(kMetrics, 2, measured(event));
}

std::string Model::call(const Call& call) {
  const auto& [first, second, third] = call.texts;
  const std::string method = name_of(call.method);
  const int id = call.callback;
  const Bytes no_lists = Bytes().i32(0).i32(0);
  const auto replied = [](const std::optional<Reader>& reply) { return reply && !reply->null(); };
  switch (call.method) {
    case k_initialize:
      return shown(initialize());
    case k_shutdown:
      if (m_on_loop) {
        error("shutdown:Called from a callback");
      } else {
        stopped();
      }
      return "";
    case k_isMaroConnected:
    case k_isNetworkConnected:
      if (m_in_maro_callback) error(method + ":Called from the connectivity callback");
      return shown(call.method == k_isMaroConnected && m_maro && !m_in_maro_callback);
    case k_getDeviceName:
      return shown(ready(method) ? text(33) : "");
    case k_getDeviceSerialNumber:
      return shown(ready(method) ? text(42) : "");
    case k_getCountryOfResidence:
      return shown(ready(method) ? text(18) : "");
    case k_getPreferredMarketPlace:
      return shown(ready(method) ? text(17) : "");
    case k_getCustomerDirectedID:
      return shown(ready(method) ? directed_id() : "");
    case k_isDeviceRegistered:
      return shown(ready("getCustomerDirectedID") && !directed_id().empty());
    case k_getDeviceType: {
      if (!ready(method)) return shown(std::string());
      auto info = transact(kDelegate, 14);
      if (!info || !info->mark()) return shown(std::string());
      for (int n = 0; n < 3; ++n) info->text();
      return shown(info->text());
    }
    case k_getSecureSettingInt:
      return ready(method) ? setting(call) : std::to_string(call.number);
    case k_isScreenOn: {
      if (!ready(method)) return shown(false);
      auto answer = transact(kPower, 1);
      if (!answer) error("isInteractive:Invalid binder handle");
      return shown(answer && answer->i32() != 0);
    }
    case k_acquirePartialWakeLock:
      return shown(ready(method) && partial_wake_lock());
    case k_acquireFullWakeLock: {
      if (!ready(method)) return shown(false);
      const auto answer = transact(kPower, 2);
      if (!answer) error("wakeUpDevice:Invalid binder handle");
      return shown(replied(answer));
    }
    case k_registerForDeviceNameChange:
      return shown(ready(method) && hear("com.quarlo.hux.sso.action.QuarloAccountPropertyService.property.changed",
                                         no_lists, [this, id](const Intent& broadcast) {
                                           const std::string name =
                                               value_or(broadcast.extras.texts,
                                                        "com.quarlo.hux.sso.property.devicename", std::string());
                                           if (!name.empty()) tell(id, shown(name));
                                         }));
    case k_registerForDeviceRegistrationChange:
      return shown(ready(method) && hear_state("com.quarlo.hux.sso.action.account.added",
                                               "com.quarlo.hux.sso.action.account.removed", id));
    case k_registerForScreenStateChange:
      return shown(ready(method) &&
                   hear_state("android.intent.action.SCREEN_ON", "android.intent.action.SCREEN_OFF", id));
    case k_registerForMaroConnectivityChange:
      return shown(ready(method) &&
                   hear("com.quarlo.speech.CONNECTIVITY_ACTION", no_lists, [this, id](const Intent& broadcast) {
                     m_maro = value_or(broadcast.extras.numbers, "com.quarlo.speech.EXTRA_CONNECTIVITY", 0) != 0;
                     m_in_maro_callback = true;
                     tell(id, shown(m_maro));
                     m_in_maro_callback = false;
                   }));
    case k_registerForPackageAction:
      return shown(ready(method) && hear(first, Bytes().i32(1).utf16(second).i32(2).utf16(third).utf16("s"),
                                         [this, id](const Intent& broadcast) {
                                           tell(id, shown(broadcast.action) + ", " + shown(package_of(broadcast)));
                                         }));
    case k_registerForTimeSync:
      return shown(ready(method) && hear("com.quarlo.velmos.service.timeservice.clock.TIME_SYNC", no_lists,
                                         [this, id](const Intent& broadcast) {
                                           const std::string clock = "com.quarlo.velmos.service.timeservice.clock.";
                                           const auto& longs = broadcast.extras.longs;
                                           tell(id,
                                                std::to_string(value_or(longs, clock + "OLD_TIME_MILLIS", 0LL)) + ", " +
                                                    std::to_string(value_or(longs, clock + "NEW_TIME_MILLIS", 0LL)));
                                         }));
    case k_registerForSecureSettingIntChange: {
      if (!ready(method) || !asks("registerForSecureSettings", first, "Setting key")) return shown(false);
      return shown(subscribe(
          {34, Bytes().utf16(first), [this, id, otherwise = call.number](Reader& message, unsigned, bool two_way) {
             if (!two_way) return 1;
             message.skip(3);
             for (int n = 0; n < 2; ++n) message.text();
             const std::string number = number_in(message.text(), otherwise);
             m_threw = throws(number);
             if (!m_threw) tell(id, number);
             return 0;
           }}));
    }
    case k_registerForNetworkConnectivityChange: {
      if (!ready(method) || state(kConnectivity).connection < 0) return shown(false);
      m_network = [this, id](Reader&, unsigned code, bool two_way) {
        if (two_way) return 1;
        if (code == 1 || code == 6) tell(id, shown(code == 1));
        return 0;
      };
      if (std::exchange(m_unfinished_network_call, true)) ++m_forgotten;
      transact(kConnectivity, 4, {}, m_network);
      return shown(true);
    }
    case k_unregisterForNetworkConnectivityChange: {
      if (!ready(method) || state(kConnectivity).connection < 0) return shown(false);
      if (!m_network) return shown(true);
      if (std::exchange(m_unfinished_network_call, false)) ++m_forgotten;
      transact(kConnectivity, 5, {}, m_network);
      return shown(true);
    }
    case k_broadcastIntentWithIntKey: {
      Intent intent;
      intent.action = first;
      intent.component = {second, third};
      intent.extras.numbers["key"] = call.number;
      return shown(send(call, 27, intent));
    }
    case k_broadcastIntent:
      return shown(send(call, 27, intent_of(call)));
    case k_broadcastIntentWithPermission:
      return shown(send(call, 38, intent_of(call), Bytes().utf16(second)));
    case k_startActivity:
      return shown(send(call, 37, intent_of(call)));
    case k_startForegroundService:
      return shown(send(call, 30, intent_of(call)));
    case k_startService:
      return shown(send(call, 29, intent_of(call)));
    case k_launchApplicationWithPackageName: {
      if (!ready(method)) return shown(false);
      std::optional<Reader> reply;
      if (state(kDelegate).connection >= 0 && first.empty()) {
        error("getLaunchIntentForPackage:Package name is empty");
      } else {
        reply = transact(kDelegate, 60, Bytes().utf16(first));
      }
      if (!reply) {
        error(method + ":Failed to get launch intent for package: " + first);
        return shown(false);
      }
      return shown(replied(transact(kDelegate, 37, bytes_of(Intent(*reply)))));
    }
    case k_getApplicationInfoMetaDataInt:
      return meta_data(call,
                       [&](const Entries& data) { return std::to_string(value_or(data.numbers, "x", call.number)); });
    case k_getApplicationInfoMetaDataText:
      return meta_data(call, [&](const Entries& data) { return shown(value_or(data.texts, "x", call.texts[1])); });
    case k_getPackageVersionCode:
      return shown(version(call, true));
    case k_getPackageVersionName:
      return shown(version(call, false));
    case k_getRawResourceAsString:
      if (!ready(method) || !asks(method, first, "Package name")) return shown(std::string());
      return shown(text(55, Bytes().utf16(first).i32(call.number)));
    case k_hasSystemFeature: {
      if (!ready(method) || !asks("checkSystemFeature", first, "Feature name")) return shown(false);
      auto answer = transact(kDelegate, 26, Bytes().utf16(first));
      return shown(answer && answer->i32() != 0);
    }
    case k_getPackageNamesForUid: {
      if (!ready(method)) return shown(std::vector<std::string>());
      auto answer = transact(kDelegate, 21, Bytes().i32(call.number));
      return shown(answer ? answer->texts() : std::vector<std::string>());
    }
    case k_getBroadcastReceiverPackageNames:
      return receivers(call);
    case k_getInstalledPackageNames: {
      if (!ready(method)) return "false []";
      auto answer = transact(kPackages, 2);
      if (answer) return "true " + shown(answer->texts());
      error(method + ":Failed to get installed packages");
      return "false []";
    }
    case k_getForegroundPackages:
      return foreground();
    case k_getAppProcessState:
      return process_state(call);
    case k_sendEvent:
      return shown(send_event(call));
    case k_registerForDirective:
      return shown(register_directive(call));
    case k_recordTarselMetricEvent:
      record_metric(call);
      return "";
    case kMethodCount:
      break;
  }
  return {};
}

}  // namespace orvel::fuzz

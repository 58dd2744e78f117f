#include "vesk/inprocess/InprocessVesk.h"

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <deque>
#include <iterator>
#include <limits>
#include <map>
#include <memory>
#include <mutex>
#include <ostream>
#include <set>
#include <thread>
#include <tuple>
#include <utility>

#include "vesk/inprocess/Messages.h"

namespace vesk::inprocess {
namespace {

std::atomic<int> g_payloads{0};
std::atomic<int> g_buffers{0};
std::atomic<int> g_endpoint_references{0};
std::atomic<int> g_death_references{0};
std::atomic<bool> g_quiet{false};
std::atomic<bool> g_strict{false};
int g_runtime;  // its address is the runtime

thread_local bool t_inside = false;
thread_local bool t_on_run_loop = false;

struct Inside {
  explicit Inside(bool now) { t_inside = now; }
  ~Inside() { t_inside = before; }
  const bool before = t_inside;
};

void require(bool kept, const char* operation, const char* rule) {
  if (kept || !g_strict) return;
  std::fprintf(stderr, "InprocessVesk: %s: %s\n", operation, rule);
  std::abort();
}

// What a callback throws ends here and is an error, as with the host runtime; `thrown` gets its text.
template <typename Callback>
int call_out(const char* what, Callback callback, std::optional<std::string>* thrown = nullptr) {
  const Inside outside(false);
  std::string text;
  try {
    return callback();
  } catch (const std::exception& exception) {
    text = exception.what();
  } catch (...) {
    text = "not a std::exception";
  }
  if (!g_quiet) std::fprintf(stderr, "InprocessVesk: %s threw: %s\n", what, text.c_str());
  if (thrown != nullptr) *thrown = text;
  return -EIO;
}

// One link to a death, from death_acquire to death_release. Never destroyed under the lock.
struct Link {
  explicit Link(vesk_death_callback* linked) : callback(linked) {
    ++g_death_references;
    call_out("death_acquire", [this] { return callback->death_acquire(callback), 0; });
  }
  ~Link() {
    call_out("death_release", [this] { return callback->death_release(callback), 0; });
    --g_death_references;
  }
  Link(const Link&) = delete;
  Link& operator=(const Link&) = delete;

  vesk_death_callback* const callback;
};
using Links = std::vector<std::shared_ptr<Link>>;

// What one handle names.
struct Connection {
  std::string service;
  int lookups = 1;   // what vesk_service_unbind drops
  int acquired = 0;  // what vesk_handle_release drops
  int calls_held = 0;
  int death = 0;         // the error that calls fail with since the service died; 0 while it lives
  bool noticed = false;  // someone has heard of the death
  bool linked = false;   // to its death, at any time
  Links links;
  EndpointRefs exports;
};

struct Service {
  bool running = false;
  Handler handler;
  int refusals = 0;
  int refusal_error = 0;
  bool binds_held = false;
  bool binds_repeated = false;
  bool calls_held = false;
  unsigned held_code = kAnyCode;
  int expiries = 0;  // how often the held calls ran into the call limit
};

struct PendingBind {
  std::string name;
  vesk_service_bind_callback callback;
  void* context;
};

struct Failure {
  std::string operation;
  int first, last;  // uses, counted from the start of the test
  int error;
};

// Moves what `chosen` picks out of `all`, so that it can be dropped without the lock.
template <typename Item, typename Choice>
std::vector<Item> take_if(std::vector<Item>& all, Choice chosen) {
  const auto first = std::stable_partition(all.begin(), all.end(), [&](const Item& item) { return !chosen(item); });
  std::vector<Item> taken(std::make_move_iterator(first), std::make_move_iterator(all.end()));
  all.erase(first, all.end());
  return taken;
}

vesk_handle handle_of(std::uint32_t id) {
  return {{id, 1}};
}

}  // namespace

HeldEndpoint::HeldEndpoint(vesk_endpoint* held) : endpoint(held) {
  ++g_endpoint_references;
  call_out("endpoint_acquire", [this] { return endpoint->fn->endpoint_acquire(&g_runtime, endpoint); });
}

HeldEndpoint::~HeldEndpoint() {
  call_out("endpoint_release", [this] { return endpoint->fn->endpoint_release(&g_runtime, endpoint); });
  --g_endpoint_references;
}

struct InprocessVesk::State {
  using Lock = std::unique_lock<std::mutex>;

  std::mutex mutex;  // guards everything below; never held while anything outside this file runs
  std::condition_variable changed;
  std::atomic<Device*> device{nullptr};  // told of what changes under the lock

  std::map<std::string, Service> services;
  std::map<std::string, EndpointRef> published;
  std::vector<PendingBind> pending_binds;
  std::multiset<std::thread::id> bind_callbacks;    // threads that run one
  std::map<std::uint32_t, Connection> connections;  // by the first word of the handle
  std::uint32_t last_connection = 0;                // never starts over: values of handles are not used again

  bool shut_down = false;
  int shutdowns = 0;
  bool loop_entered = false;
  std::thread::id loop_thread;              // while it runs a step
  std::deque<std::function<void()>> steps;  // of the run loop
  long steps_queued = 0;
  long steps_done = 0;
  bool loop_held = false;
  long steps_allowed = 0;          // of a held loop
  std::uint32_t calling_back = 0;  // the connection whose endpoint the current step calls

  std::vector<Transaction> transactions;
  std::vector<std::string> bindings;
  std::map<std::string, int, std::less<>> uses;
  int all_uses = 0;
  int step_at_use = 0;
  std::function<void(std::string_view)> use_step;
  std::vector<Failure> failures;
  bool null_runtime = false;

  // Counts a use; the error that it must fail with, else 0.
  int enter(const char* operation) {
    Lock lock(mutex);
    const int use = ++uses[operation];
    if (++all_uses == step_at_use) {
      const auto step = std::exchange(use_step, nullptr);
      lock.unlock();
      step(operation);
      lock.lock();
    }
    for (const Failure& failure : failures) {
      if (failure.operation == operation && use >= failure.first && use <= failure.last) return failure.error;
    }
    return 0;
  }

  void plan_failure(std::string_view operation, int nth, bool always, int error) {
    const Lock lock(mutex);
    const int first = uses[std::string(operation)] + nth;
    failures.push_back({std::string(operation), first, always ? std::numeric_limits<int>::max() : first, error});
  }

  Connection* find(const vesk_handle* handle) {
    if (handle == nullptr || handle->words[1] != 1) return nullptr;
    const auto found = connections.find(handle->words[0]);
    return found == connections.end() ? nullptr : &found->second;
  }

  // ---- Run loop ----

  void queue_step(std::function<void()> step) {
    steps.push_back(std::move(step));
    ++steps_queued;
    changed.notify_all();
    tell_work();
  }

  // Work that waits for a loop counts too: the thread that will enter it may be on its way.
  void tell_work() {
    const bool has_work = !shut_down && (!steps.empty() || loop_thread != std::thread::id());
    if (device != nullptr) device.load()->loop_has_work(has_work);
  }

  bool may_step() const { return !steps.empty() && (!loop_held || steps_done < steps_allowed); }

  void run_step(Lock& lock) {
    std::function<void()> step = std::move(steps.front());
    steps.pop_front();
    loop_thread = std::this_thread::get_id();
    if (device != nullptr) device.load()->step_begins();
    lock.unlock();
    t_on_run_loop = true;
    step();
    step = {};  // what it holds is released without the lock, and before anyone is told that it is done
    t_on_run_loop = false;
    lock.lock();
    loop_thread = {};
    calling_back = 0;
    ++steps_done;
    changed.notify_all();
    tell_work();
  }

  // ---- Binding and handles ----

  vesk_handle connect(const std::string& name) {
    connections[++last_connection].service = name;
    bindings.push_back("+" + name);
    if (device != nullptr) device.load()->looked_up(name, true);
    return handle_of(last_connection);
  }

  // The error that a lookup of `name` fails with now.
  int refusal(const std::string& name) {
    Service& service = services[name];
    if (service.refusals == 0) return 0;
    --service.refusals;
    return service.refusal_error;
  }

  // Calls back the binds that wait for `name`, if there is nothing left to wait for. Unlocks.
  void answer_binds(Lock& lock, const std::string& name) {
    const Service& service = services[name];
    if (!service.running || service.binds_held) return;
    auto binds = take_if(pending_binds, [&name](const PendingBind& bind) { return bind.name == name; });
    if (service.binds_repeated) binds.insert(binds.end(), binds.begin(), binds.end());
    std::vector<vesk_handle> handles;
    std::generate_n(std::back_inserter(handles), binds.size(), [&] { return connect(name); });
    const auto running = bind_callbacks.insert(std::this_thread::get_id());
    lock.unlock();
    for (std::size_t n = 0; n < binds.size(); ++n) {
      const PendingBind& bind = binds[n];
      call_out("a bind callback", [&] { return bind.callback(&g_runtime, bind.context, name.c_str(), handles[n]), 0; });
    }
    lock.lock();
    bind_callbacks.erase(running);
    changed.notify_all();
    lock.unlock();
  }

  // Without references the connection ends, and with it what was exported over it. Unlocks.
  void close_if_unused(Lock& lock, std::uint32_t id) {
    const auto found = connections.find(id);
    if (found == connections.end() || found->second.lookups + found->second.acquired > 0) return lock.unlock();
    Connection closed = std::move(found->second);
    connections.erase(found);
    if (device != nullptr) device.load()->closed(id);
    changed.notify_all();
    if (loop_thread != std::this_thread::get_id()) {
      // The callback in progress keeps its endpoint; what is released here must be released when this returns.
      changed.wait(lock, [this, id] { return calling_back != id; });
    }
    lock.unlock();
  }

  // ---- Deaths ----

  // Calls fail from now on; the notices come after everything sent before.
  void die(std::uint32_t id, int error) {
    Connection& connection = connections.at(id);
    connection.death = error;
    for (const auto& link : connection.links) queue_notice(id, link);
    queue_step([this, id] { end(id); });
    changed.notify_all();
  }

  void queue_notice(std::uint32_t id, const std::weak_ptr<Link>& linked) {
    queue_step([this, id, linked] {
      std::shared_ptr<Link> link;
      Lock lock(mutex);
      link = linked.lock();
      const auto found = connections.find(id);
      if (link == nullptr || found == connections.end()) return;
      if (take_if(found->second.links, [&](const auto& other) { return other == link; }).empty()) return;
      found->second.noticed = true;
      lock.unlock();
      vesk_handle handle = handle_of(id);
      call_out("on_death", [&] { return link->callback->on_death(&g_runtime, link->callback, &handle), 0; });
    });
  }

  // After the notices: releases what was exported. Nobody unbinds a dead handle, so the lookup's reference ends by
  // itself, but not while someone may still be between the lookup and its link.
  void end(std::uint32_t id) {
    EndpointRefs released;
    Lock lock(mutex);
    const auto found = connections.find(id);
    if (found == connections.end()) return;
    released.swap(found->second.exports);
    if (device != nullptr) device.load()->closed(id);
    if (found->second.noticed || found->second.acquired > 0) found->second.lookups = 0;
    close_if_unused(lock, id);
  }

  // ---- Messages ----

  // The client's call, from the message to the answer; `refused` is the error that it fails with anyway.
  Reply call(const vesk_handle* handle, Transaction& transaction, const EndpointRefs& endpoints, int refused) {
    Lock lock(mutex);
    Connection* connection = find(handle);
    if (connection != nullptr) transaction.service = connection->service, transaction.connection = handle->words[0];
    if (refused != 0) return {{}, refused};
    if (connection == nullptr) return {{}, -EINVAL};
    if (shut_down) return {{}, -ESHUTDOWN};
    if (connection->death != 0) return {{}, connection->death};
    const int started_at = shutdowns;
    connection->exports.insert(connection->exports.end(), endpoints.begin(), endpoints.end());

    // Why the call cannot go on; its connection may be gone by now.
    const auto broken = [&] {
      if (shutdowns != started_at) return -ESHUTDOWN;
      connection = find(handle);
      return connection == nullptr ? -EPIPE : connection->death;
    };
    Service& service = services[transaction.service];
    ++connection->calls_held;
    changed.notify_all();
    const auto is_held = [&] {
      return service.calls_held && (service.held_code == kAnyCode || service.held_code == transaction.code);
    };
    const int expiries = service.expiries;
    const auto is_late = [&] { return service.expiries != expiries; };
    changed.wait(lock, [&] { return !is_held() || is_late() || broken() != 0; });
    if ((connection = find(handle)) != nullptr) --connection->calls_held;

    Reply reply{{}, broken()};
    if (reply.result == 0 && is_late()) reply.result = -ETIMEDOUT;
    if (reply.result == 0 && service.handler) {
      const Handler handler = service.handler;
      lock.unlock();
      const int thrown = call_out("a handler", [&] { return reply = handler(transaction), 0; });
      lock.lock();
      if (const int error = thrown != 0 ? thrown : broken()) reply = {{}, error};
    }
    connection = find(handle);
    if (reply.result != 0 && connection != nullptr) {
      take_if(connection->exports, [&](const EndpointRef& held) {
        return std::find(endpoints.begin(), endpoints.end(), held) != endpoints.end();
      });
    }
    return reply;
  }

  // A service's message to an endpoint of the client; `reply` is null for a one-way message, `ended` may be empty.
  void deliver(const Target& target, unsigned code, const Bytes& message,
               const std::shared_ptr<std::promise<Reply>>& reply, const std::function<void(const Reply&)>& ended) {
    const Lock lock(mutex);
    queue_step([this, target, code, message, reply, ended] {
      const EndpointRef held = find_endpoint(target);
      Reply answer{{}, -EPIPE};
      if (held != nullptr) {
        vesk_endpoint* endpoint = held->endpoint;
        vesk_identity caller;
        vesk_buffer request;
        request.parcel.assign(message.data(), message.size());
        vesk_payload payload;
        const auto call = [&] {
          const vesk_endpoint_fn& fn = *endpoint->fn;
          return reply == nullptr ? fn.endpoint_call_oneway(&g_runtime, endpoint, code, &caller, &request)
                                  : fn.endpoint_call(&g_runtime, endpoint, code, &caller, &request, &payload);
        };
        answer.result = call_out("an endpoint", call, &answer.thrown);
        if (answer.result == 0) answer.bytes = bytes_of(&payload);
      }
      if (reply != nullptr) reply->set_value(answer);
      if (ended) ended(answer);
    });
  }

  EndpointRef find_endpoint(const Target& target) {
    const auto transfer = target.transfer.lock();  // dropped after the lock
    const Lock lock(mutex);
    if (target.endpoint == nullptr && !target.by_transfer) {
      const auto found = published.find(target.name);
      return found == published.end() ? nullptr : found->second;
    }
    for (const auto& [id, connection] : connections) {
      for (const EndpointRef& held : connection.exports) {
        if (target.by_transfer ? held != transfer : held->endpoint != target.endpoint) continue;
        calling_back = id;
        return held;
      }
    }
    return nullptr;
  }
};

namespace {

// Never destroyed: exit handlers and static objects of the code under test still use libvesk.
InprocessVesk::State& state() {
  static auto* const the_state = new InprocessVesk::State;
  return *the_state;
}

}  // namespace

// ---- What tests script and see ----

InprocessVesk::InprocessVesk() : m_state(state()), m_payloads_before(g_payloads), m_buffers_before(g_buffers) {
  reset();
}
InprocessVesk::~InprocessVesk() {
  reset();
}

// Everything that holds a reference or a script leaves under the lock and is destroyed after it.
void InprocessVesk::reset() {
  decltype(m_state.services) services;
  decltype(m_state.published) published;
  decltype(m_state.connections) connections;
  decltype(m_state.steps) steps;
  const State::Lock lock(m_state.mutex);
  services.swap(m_state.services);
  published.swap(m_state.published);
  connections.swap(m_state.connections);
  steps.swap(m_state.steps);
  m_state.steps_done = m_state.steps_queued;
  m_state.pending_binds.clear();
  m_state.transactions.clear();
  m_state.bindings.clear();
  m_state.uses.clear();
  m_state.all_uses = m_state.step_at_use = 0;
  m_state.failures.clear();
  m_state.shut_down = m_state.null_runtime = m_state.loop_held = g_quiet = g_strict = false;
  m_state.device = nullptr;
}

void InprocessVesk::add_service(const std::string& name, Handler handler) {
  State::Lock lock(m_state.mutex);
  Service& service = m_state.services[name];
  service.running = true;
  service.handler = std::move(handler);
  m_state.answer_binds(lock, name);
}

void InprocessVesk::kill_service(const std::string& name) {
  const State::Lock lock(m_state.mutex);
  m_state.services[name].running = false;
  for (const auto& [id, connection] : m_state.connections) {
    if (connection.service == name && connection.death == 0) m_state.die(id, -EPIPE);
  }
}

void InprocessVesk::refuse_binds(const std::string& name, int count, int error) {
  const State::Lock lock(m_state.mutex);
  m_state.services[name].refusals = count;
  m_state.services[name].refusal_error = error;
}

void InprocessVesk::hold_binds(const std::string& name) {
  const State::Lock lock(m_state.mutex);
  m_state.services[name].binds_held = true;
}

void InprocessVesk::complete_binds(const std::string& name) {
  State::Lock lock(m_state.mutex);
  m_state.services[name].binds_held = false;
  m_state.answer_binds(lock, name);
}

void InprocessVesk::repeat_binds(const std::string& name) {
  const State::Lock lock(m_state.mutex);
  m_state.services[name].binds_repeated = true;
}

void InprocessVesk::hold_calls(const std::string& name, unsigned code) {
  const State::Lock lock(m_state.mutex);
  m_state.services[name].calls_held = true;
  m_state.services[name].held_code = code;
}

void InprocessVesk::let_calls_go(const std::string& name) {
  const State::Lock lock(m_state.mutex);
  m_state.services[name].calls_held = false;
  m_state.changed.notify_all();
}

void InprocessVesk::expire_calls(const std::string& name) {
  const State::Lock lock(m_state.mutex);
  ++m_state.services[name].expiries;
  m_state.changed.notify_all();
}

void InprocessVesk::close_connection(const Transaction& call, int error) {
  const State::Lock lock(m_state.mutex);
  const auto found = m_state.connections.find(call.connection);
  if (found != m_state.connections.end() && found->second.death == 0) m_state.die(call.connection, error);
}

void InprocessVesk::wait_for_held_calls(const std::string& name, int count) {
  State::Lock lock(m_state.mutex);
  m_state.changed.wait(lock, [&] {
    int held = 0;
    for (const auto& [id, connection] : m_state.connections) {
      if (connection.service == name) held += connection.calls_held;
    }
    return held >= count;
  });
}

void InprocessVesk::send(const Target& target, unsigned code, const Bytes& message,
                         std::function<void(const Reply&)> ended) {
  m_state.deliver(target, code, message, nullptr, ended);
}

std::future<Reply> InprocessVesk::call(const Target& target, unsigned code, const Bytes& message) {
  const auto reply = std::make_shared<std::promise<Reply>>();
  m_state.deliver(target, code, message, reply, {});
  return reply->get_future();
}

void InprocessVesk::release_endpoint(const vesk_endpoint* endpoint) {
  EndpointRefs released;
  const State::Lock lock(m_state.mutex);
  for (auto& [id, connection] : m_state.connections) {
    const auto given_back = [endpoint](const EndpointRef& held) { return held->endpoint == endpoint; };
    for (EndpointRef& held : take_if(connection.exports, given_back)) released.push_back(std::move(held));
  }
}

void InprocessVesk::release_transfer(const std::weak_ptr<const void>& transfer) {
  EndpointRefs released;
  const auto held = transfer.lock();
  const State::Lock lock(m_state.mutex);
  for (auto& [id, connection] : m_state.connections) {
    for (EndpointRef& each : take_if(connection.exports, [&](const EndpointRef& other) { return other == held; })) {
      released.push_back(std::move(each));
    }
  }
}

std::vector<std::string> InprocessVesk::published() const {
  std::vector<std::string> names;
  const State::Lock lock(m_state.mutex);
  for (const auto& [name, held] : m_state.published) names.push_back(name);
  return names;
}

bool InprocessVesk::on_run_loop() {
  return t_on_run_loop;
}

void InprocessVesk::attach(Device* device) {
  const State::Lock lock(m_state.mutex);
  m_state.device = device;
}

void InprocessVesk::post(std::function<void()> step) {
  const State::Lock lock(m_state.mutex);
  m_state.queue_step(std::move(step));
}

void InprocessVesk::drain() {
  State::Lock lock(m_state.mutex);
  do {
    const long target = m_state.steps_allowed = m_state.steps_queued;
    m_state.changed.notify_all();
    m_state.changed.wait(lock, [&] { return m_state.steps_done >= target || m_state.shut_down; });
  } while (m_state.loop_held && !m_state.steps.empty() && !m_state.shut_down);
  m_state.steps_allowed = 0;
}

void InprocessVesk::hold_run_loop() {
  const State::Lock lock(m_state.mutex);
  m_state.loop_held = true;
}

void InprocessVesk::wait_for_shutdown() {
  State::Lock lock(m_state.mutex);
  m_state.changed.wait(lock, [&] { return m_state.shut_down; });
}

void InprocessVesk::repair() {
  const State::Lock lock(m_state.mutex);
  m_state.failures.clear();
}

bool InprocessVesk::inside() {
  return t_inside;
}

void InprocessVesk::keep_quiet() {
  g_quiet = true;
}

void InprocessVesk::be_strict() {
  g_strict = true;
}

void InprocessVesk::run_pending() {
  State::Lock lock(m_state.mutex);
  while (!m_state.steps.empty() && !m_state.shut_down) m_state.run_step(lock);
}

void InprocessVesk::fail_once(std::string_view operation, int nth, int error) {
  m_state.plan_failure(operation, nth, false, error);
}

void InprocessVesk::fail_always(std::string_view operation, int nth, int error) {
  m_state.plan_failure(operation, nth, true, error);
}

void InprocessVesk::at_use(int nth, std::function<void(std::string_view)> step) {
  const State::Lock lock(m_state.mutex);
  m_state.step_at_use = m_state.all_uses + nth;
  m_state.use_step = std::move(step);
}

void InprocessVesk::give_null_runtime() {
  const State::Lock lock(m_state.mutex);
  m_state.null_runtime = true;
}

std::vector<Transaction> InprocessVesk::transactions() const {
  const State::Lock lock(m_state.mutex);
  return m_state.transactions;
}

std::vector<Transaction> InprocessVesk::transactions(const std::string& service) const {
  std::vector<Transaction> calls = transactions();
  return take_if(calls, [&service](const Transaction& call) { return call.service == service; });
}

std::vector<std::string> InprocessVesk::bindings() const {
  const State::Lock lock(m_state.mutex);
  return m_state.bindings;
}

int InprocessVesk::uses(std::string_view operation) const {
  const State::Lock lock(m_state.mutex);
  const auto found = m_state.uses.find(operation);
  return found == m_state.uses.end() ? 0 : found->second;
}

int InprocessVesk::uses() const {
  const State::Lock lock(m_state.mutex);
  return m_state.all_uses;
}

Live InprocessVesk::live() const {
  Live live{
      g_payloads - m_payloads_before, g_buffers - m_buffers_before, 0, 0, g_endpoint_references, g_death_references};
  const State::Lock lock(m_state.mutex);
  for (const auto& [id, connection] : m_state.connections) {
    live.lookups += connection.lookups;
    live.handle_references += connection.acquired;
  }
  return live;
}

std::ostream& operator<<(std::ostream& out, const Live& live) {
  return out << live.payloads << " payloads, " << live.buffers << " buffers, " << live.lookups << " lookups, "
             << live.handle_references << " handle references, " << live.endpoint_references << " endpoint references, "
             << live.death_references << " death references";
}

bool operator==(const Live& a, const Live& b) {
  const auto counts = [](const Live& live) {
    return std::tie(live.payloads, live.buffers, live.lookups, live.handle_references, live.endpoint_references,
                    live.death_references);
  };
  return counts(a) == counts(b);
}

}  // namespace vesk::inprocess

// ---- vesk.h ----

using namespace vesk::inprocess;
using State = InprocessVesk::State;

namespace {

// The device whose runtime that is, and which then is who asks; else null.
Device* device_of(void* runtime) {
  Device* device = state().device;
  return device != nullptr && runtime == device ? device : nullptr;
}

// What a shutdown has ended must not be asked for any more. Under the lock.
void require_running(const State& self, const char* operation) {
  require(!self.shut_down, operation, "after a shutdown");
}

// The shared shape of the functions: one more use, which fails when that is planned.
template <typename Body>
int use(const char* operation, Body body) {
  const Inside inside(true);
  const int planned = state().enter(operation);
  return planned != 0 ? planned : body(state());
}

// The same for what needs a handle that names something. `body` runs under the lock and may unlock.
template <typename Body>
int use_handle(const char* operation, const vesk_handle* handle, Body body) {
  require(handle != nullptr, operation, "a null handle");
  return use(operation, [&](State& self) {
    State::Lock lock(self.mutex);
    const bool was_one = handle->words[1] == 1 && handle->words[0] <= self.last_connection;
    require(was_one || operation == std::string_view("vesk_handle_is_valid"), operation, "never was a handle");
    Connection* connection = self.find(handle);
    if (connection == nullptr) return -EINVAL;
    body(self, *connection, lock);
    return 0;
  });
}

template <typename Message>
Message* allocate(const char* operation, std::atomic<int>& count) {
  const Inside inside(true);
  if (state().enter(operation) != 0) return nullptr;
  ++count;
  return new Message;
}

// A planned failure of a read or a write leaves the sticky error, as a real one does.
template <typename Message>
bool usable(Message* message, const char* operation) {
  const int planned = state().enter(operation);
  require(message != nullptr, operation, "a null message");
  if (message == nullptr) return false;
  if (planned != 0) message->parcel.fail(planned);
  return planned == 0;
}

template <typename Write>
int write(vesk_payload* payload, const char* operation, Write write_value) {
  const Inside inside(true);
  if (usable(payload, operation)) return write_value(payload->parcel);
  return payload == nullptr ? -EINVAL : payload->parcel.error();
}

}  // namespace

int vesk_get_runtime(void** runtime) {
  return use(__func__, [&](State& self) {
    const State::Lock lock(self.mutex);
    self.shut_down = false;
    self.tell_work();
    *runtime = self.null_runtime ? nullptr : &g_runtime;
    return 0;
  });
}

int vesk_run_loop(void*) {
  return use(__func__, [](State& self) {
    State::Lock lock(self.mutex);
    if (self.loop_entered) return -EBUSY;
    self.loop_entered = true;
    const auto stopped = [&self, entered_at = self.shutdowns] {
      return self.shut_down || self.shutdowns != entered_at;
    };
    while (!stopped()) {
      self.changed.wait(lock, [&] { return stopped() || self.may_step(); });
      if (!stopped()) self.run_step(lock);
    }
    self.loop_entered = false;
    return 0;
  });
}

int vesk_shutdown(void*) {
  return use(__func__, [](State& self) {
    decltype(self.published) withdrawn;  // dropped after the lock
    State::Lock lock(self.mutex);
    require_running(self, "vesk_shutdown");
    self.shut_down = true;
    ++self.shutdowns;
    self.pending_binds.clear();
    withdrawn.swap(self.published);
    self.tell_work();
    if (self.device != nullptr) self.device.load()->shut_down();
    self.changed.notify_all();
    if (self.bind_callbacks.count(std::this_thread::get_id()) == 0) {
      self.changed.wait(lock, [&] { return self.bind_callbacks.empty(); });
    }
    return 0;
  });
}

int vesk_service_bind(void*, const char* name, vesk_service_bind_callback callback, void* context) {
  require(name != nullptr && callback != nullptr, __func__, "a null name or callback");
  return use(__func__, [&](State& self) {
    State::Lock lock(self.mutex);
    require_running(self, "vesk_service_bind");
    if (const int refused = self.refusal(name)) return refused;
    self.pending_binds.push_back({name, callback, context});
    if (self.device != nullptr) self.device.load()->looked_up(name, false);  // until it is answered
    self.answer_binds(lock, name);
    return 0;
  });
}

int vesk_service_unbind(void* runtime, vesk_handle* handle) {
  if (Device* device = device_of(runtime)) return device->forget(*handle);
  return use_handle(__func__, handle, [&](State& self, Connection& connection, State::Lock& lock) {
    require(connection.linked, "vesk_service_unbind", "of what was not linked to its death");
    connection.lookups = 0;
    self.bindings.push_back("-" + connection.service);
    self.close_if_unused(lock, handle->words[0]);
  });
}

int vesk_binder_servicemanager_get(void* runtime, const char* name, vesk_handle* out) {
  if (Device* device = device_of(runtime)) return device->find(name, out);
  return use(__func__, [&](State& self) {
    const State::Lock lock(self.mutex);
    require_running(self, "vesk_binder_servicemanager_get");
    if (const int refused = self.refusal(name)) return refused;
    if (!self.services[name].running) {
      if (self.device != nullptr) self.device.load()->looked_up(name, false);
      return -ENOENT;
    }
    *out = self.connect(name);
    return 0;
  });
}

int vesk_service_register(void* runtime, const char* name, vesk_endpoint* endpoint) {
  if (Device* device = device_of(runtime)) return device->serve(name, endpoint);
  return use(__func__, [&](State& self) {
    require(name != nullptr && endpoint != nullptr, "vesk_service_register", "a null name or endpoint");
    auto held = std::make_shared<HeldEndpoint>(endpoint);  // before the lock; what it replaces is dropped after it
    const State::Lock lock(self.mutex);
    require_running(self, "vesk_service_register");
    if (self.services[name].running) return -EADDRINUSE;
    self.published[name].swap(held);
    self.bindings.push_back(std::string("=") + name);
    return 0;
  });
}

int vesk_handle_is_valid(void*, const vesk_handle* handle) {
  return use_handle(__func__, handle, [](State&, Connection&, State::Lock&) {}) == 0 ? 1 : 0;
}

int vesk_handle_acquire(void*, vesk_handle* handle) {
  return use_handle(__func__, handle, [](State&, Connection& connection, State::Lock&) { ++connection.acquired; });
}

int vesk_handle_release(void*, vesk_handle* handle) {
  return use_handle(__func__, handle, [&](State& self, Connection& connection, State::Lock& lock) {
    --(connection.acquired > 0 ? connection.acquired : connection.lookups);
    if (connection.death != 0) connection.lookups = 0;
    self.close_if_unused(lock, handle->words[0]);
  });
}

vesk_handle vesk_invalid_handle() {
  return {{0, 0}};
}

int vesk_handle_link_to_death(void* runtime, vesk_handle* handle, vesk_death_callback* callback) {
  if (Device* device = device_of(runtime)) return device->watch(*handle, callback);
  require(callback != nullptr, __func__, "a null callback");
  const Inside inside(true);
  const auto made = std::make_shared<Link>(callback);  // dropped after the lock where the handle is not valid
  return use_handle(__func__, handle, [&](State& self, Connection& connection, State::Lock&) {
    connection.links.push_back(made);
    connection.linked = true;
    if (connection.death == 0) return;
    self.queue_notice(handle->words[0], made);
    self.queue_step([&self, id = handle->words[0]] { self.end(id); });
  });
}

int vesk_handle_unlink_to_death(void* runtime, vesk_handle* handle, vesk_death_callback* callback) {
  if (Device* device = device_of(runtime)) return device->watch(*handle, nullptr);
  Links unlinked;  // dropped after the lock
  return use_handle(__func__, handle, [&](State&, Connection& connection, State::Lock&) {
    unlinked = take_if(connection.links, [callback](const auto& link) { return link->callback == callback; });
  });
}

vesk_payload* vesk_payload_alloc() {
  return allocate<vesk_payload>(__func__, g_payloads);
}

void vesk_payload_free(vesk_payload* payload) {
  require(payload != nullptr, __func__, "a null message");
  if (payload != nullptr) --g_payloads;
  delete payload;
}

int vesk_payload_last_error(vesk_payload* payload) {
  require(payload != nullptr, __func__, "a null message");
  return payload == nullptr ? -EINVAL : payload->parcel.error();
}

unsigned int vesk_payload_get_position(vesk_payload* payload) {
  require(payload != nullptr, __func__, "a null message");
  return payload == nullptr ? 0 : static_cast<unsigned int>(payload->parcel.position());
}

int vesk_payload_set_position(vesk_payload* payload, unsigned int position) {
  return write(payload, __func__, [position](vesk::Parcel& parcel) { return parcel.set_position(position); });
}

vesk_buffer* vesk_buffer_alloc() {
  return allocate<vesk_buffer>(__func__, g_buffers);
}

void vesk_buffer_free(vesk_buffer* buffer) {
  require(buffer != nullptr, __func__, "a null message");
  if (buffer != nullptr) --g_buffers;
  delete buffer;
}

int vesk_buffer_last_error(vesk_buffer* buffer) {
  require(buffer != nullptr, __func__, "a null message");
  return buffer == nullptr ? -EINVAL : buffer->parcel.error();
}

int vesk_call(void*, vesk_handle* handle, unsigned int code, vesk_payload* request, vesk_buffer* reply) {
  const Inside inside(true);
  const int planned = state().enter(__func__);
  require(handle != nullptr && request != nullptr && reply != nullptr, __func__, "a null handle or message");
  if (request == nullptr || reply == nullptr) return -EINVAL;
  const EndpointRefs endpoints = std::exchange(request->endpoints, {});
  const auto& bytes = request->parcel.bytes();
  Transaction transaction{"", code, {bytes.data(), bytes.size()}, {}, 0, {endpoints.begin(), endpoints.end()}, 0};
  for (const EndpointRef& held : endpoints) transaction.endpoints.push_back(held->endpoint);
  const int refused = planned != 0 ? planned : request->parcel.error();
  const Reply answer = state().call(handle, transaction, endpoints, refused);
  reply->parcel.assign(answer.bytes.data(), answer.bytes.size());
  transaction.result = answer.result;
  const State::Lock lock(state().mutex);
  state().transactions.push_back(std::move(transaction));
  return answer.result;
}

int vesk_reply_done(void*, vesk_buffer* reply) {
  return use(__func__, [&](State&) {
    if (reply != nullptr) reply->parcel = {};  // so that a late use of what was in it shows
    return 0;
  });
}

int vesk_write_i32(vesk_payload* payload, int32_t value) {
  return write(payload, __func__, [value](vesk::Parcel& parcel) { return parcel.write_i32(value); });
}

int vesk_write_i64(vesk_payload* payload, int64_t value) {
  return write(payload, __func__, [value](vesk::Parcel& parcel) { return parcel.write_i64(value); });
}

int vesk_write_f64(vesk_payload* payload, double value) {
  return write(payload, __func__, [value](vesk::Parcel& parcel) { return parcel.write_f64(value); });
}

int vesk_write_utf16_cstring(vesk_payload* payload, const char* utf8) {
  require(utf8 != nullptr, __func__, "a null text");
  return write(payload, __func__, [utf8](vesk::Parcel& parcel) {
    return utf8 == nullptr ? parcel.fail(-EINVAL) : parcel.write_utf16(utf8);
  });
}

int vesk_write_array_length(vesk_payload* payload, int32_t length) {
  return write(payload, __func__, [length](vesk::Parcel& parcel) { return parcel.write_i32(length); });
}

int vesk_write_endpoint(vesk_payload* payload, vesk_endpoint* endpoint) {
  require(endpoint != nullptr, __func__, "a null endpoint");
  return write(payload, __func__, [&](vesk::Parcel& parcel) {
    if (endpoint == nullptr) return parcel.fail(-EINVAL);
    const int error = parcel.write_endpoint_mark(static_cast<std::uint32_t>(payload->endpoints.size()));
    if (error == 0) payload->endpoints.push_back(std::make_shared<HeldEndpoint>(endpoint));
    return error;
  });
}

int32_t vesk_read_i32(vesk_buffer* buffer) {
  return usable(buffer, __func__) ? buffer->parcel.read_i32() : 0;
}
int64_t vesk_read_i64(vesk_buffer* buffer) {
  return usable(buffer, __func__) ? buffer->parcel.read_i64() : 0;
}
double vesk_read_f64(vesk_buffer* buffer) {
  return usable(buffer, __func__) ? buffer->parcel.read_f64() : 0;
}
int32_t vesk_read_array_length(vesk_buffer* buffer) {
  return usable(buffer, __func__) ? buffer->parcel.read_i32() : 0;
}

const uint16_t* vesk_read_utf16_string(vesk_buffer* buffer, unsigned int* length) {
  unsigned int ignored = 0;
  if (length == nullptr) length = &ignored;
  *length = 0;
  return usable(buffer, __func__) ? buffer->parcel.read_utf16(length) : nullptr;
}

// ---- Of vesk_service.h: messages as bytes ----

const void* vesk_payload_data(const vesk_payload* payload, size_t* size) {
  *size = payload == nullptr ? 0 : payload->parcel.bytes().size();
  return payload == nullptr ? nullptr : payload->parcel.bytes().data();
}

int vesk_payload_truncate(vesk_payload* payload, size_t size) {
  return payload == nullptr ? -EINVAL : payload->parcel.truncate(size);
}

int vesk_buffer_assign(vesk_buffer* buffer, const void* data, size_t size) {
  if (buffer == nullptr) return -EINVAL;
  buffer->parcel.assign(data, size);
  return 0;
}

size_t vesk_buffer_remaining(const vesk_buffer* buffer) {
  return buffer == nullptr ? 0 : buffer->parcel.remaining();
}

#include "support/FakeVesk.h"

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <cstdio>
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

#include "Parcel.h"

struct vesk_identity {};

namespace orvel::test {
namespace {

std::atomic<int> g_payloads{0};
std::atomic<int> g_buffers{0};
std::atomic<int> g_endpoint_references{0};
std::atomic<int> g_death_references{0};
int g_runtime;  // its address is the runtime

// What a callback throws ends here and is an error, as with the host runtime.
template <typename Callback>
int call_out(const char* what, Callback callback) {
  try {
    return callback();
  } catch (const std::exception& thrown) {
    std::fprintf(stderr, "FakeVesk: %s threw: %s\n", what, thrown.what());
  } catch (...) {
    std::fprintf(stderr, "FakeVesk: %s threw\n", what);
  }
  return -EIO;
}

// One reference to an endpoint, from endpoint_acquire to endpoint_release. Copies of the shared pointer are no
// references of their own: a callback in progress keeps one so that the release waits for its end. Never destroyed
// under the lock.
struct HeldEndpoint {
  explicit HeldEndpoint(vesk_endpoint* held) : endpoint(held) {
    ++g_endpoint_references;
    call_out("endpoint_acquire", [this] { return endpoint->fn->endpoint_acquire(&g_runtime, endpoint); });
  }
  ~HeldEndpoint() {
    call_out("endpoint_release", [this] { return endpoint->fn->endpoint_release(&g_runtime, endpoint); });
    --g_endpoint_references;
  }
  HeldEndpoint(const HeldEndpoint&) = delete;
  HeldEndpoint& operator=(const HeldEndpoint&) = delete;

  vesk_endpoint* const endpoint;
};
using EndpointRef = std::shared_ptr<HeldEndpoint>;
using EndpointRefs = std::vector<EndpointRef>;

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
  Links links;
  EndpointRefs exports;
};
using Connections = std::map<std::uint32_t, Connection>;

struct Service {
  bool running = false;
  Handler handler;
  int refusals = 0;
  int refusal_error = 0;
  bool binds_held = false;
  bool calls_held = false;
  unsigned held_code = kAnyCode;
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

vesk_handle handle_of(std::uint32_t id) {
  return {{id, 1}};
}

}  // namespace
}  // namespace orvel::test

struct vesk_payload {
  vesk::Parcel parcel;
  orvel::test::EndpointRefs endpoints;
};

struct vesk_buffer {
  vesk::Parcel parcel;
};

namespace orvel::test {

struct FakeVesk::State {
  using Lock = std::unique_lock<std::mutex>;

  mutable std::mutex mutex;  // guards everything below; never held while anything outside this file runs
  std::condition_variable changed;

  std::map<std::string, Service> services;
  std::map<std::string, EndpointRef> published;
  std::vector<PendingBind> pending_binds;
  std::multiset<std::thread::id> bind_callbacks;  // threads that run one
  Connections connections;
  std::uint32_t last_connection = 0;  // never starts over: values of handles are not used again

  bool shut_down = false;
  int shutdowns = 0;
  bool loop_entered = false;
  std::thread::id loop_thread;              // while it runs a step
  std::deque<std::function<void()>> steps;  // of the run loop
  long steps_queued = 0;
  long steps_done = 0;
  std::uint32_t calling_back = 0;  // the connection whose endpoint the current step calls

  std::vector<Transaction> transactions;
  std::map<std::string, int, std::less<>> uses;
  std::vector<Failure> failures;
  bool null_runtime = false;

  // Counts a use; the error that it must fail with, else 0.
  int enter(const char* operation) {
    const Lock lock(mutex);
    const int use = ++uses[operation];
    for (const Failure& failure : failures) {
      if (failure.operation == operation && use >= failure.first && use <= failure.last) return failure.error;
    }
    return 0;
  }

  void plan_failure(std::string_view operation, int nth, bool always, int error) {
    const Lock lock(mutex);
    const auto used = uses.find(operation);
    const int first = (used == uses.end() ? 0 : used->second) + nth;
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
  }

  void run_step(Lock& lock) {
    std::function<void()> step = std::move(steps.front());
    steps.pop_front();
    loop_thread = std::this_thread::get_id();
    lock.unlock();
    step();
    step = {};  // what it holds is released without the lock, and before anyone is told that it is done
    lock.lock();
    loop_thread = {};
    calling_back = 0;
    ++steps_done;
    changed.notify_all();
  }

  int run_loop() {
    Lock lock(mutex);
    if (loop_entered) return -EBUSY;
    loop_entered = true;
    const int entered_at = shutdowns;
    while (!shut_down && shutdowns == entered_at) {
      if (steps.empty()) {
        changed.wait(lock);
      } else {
        run_step(lock);
      }
    }
    loop_entered = false;
    return 0;
  }

  // Without the thread: the steps that are there, on this one.
  void run_pending() {
    Lock lock(mutex);
    while (!steps.empty() && !shut_down) run_step(lock);
  }

  void drain() {
    Lock lock(mutex);
    const long target = steps_queued;
    changed.wait(lock, [this, target] { return steps_done >= target || shut_down; });
  }

  int shutdown() {
    decltype(published) withdrawn;
    Lock lock(mutex);
    shut_down = true;
    ++shutdowns;
    pending_binds.clear();
    withdrawn.swap(published);
    changed.notify_all();
    if (bind_callbacks.count(std::this_thread::get_id()) == 0) {
      changed.wait(lock, [this] { return bind_callbacks.empty(); });
    }
    return 0;
  }

  void* start() {
    const Lock lock(mutex);
    shut_down = false;
    return null_runtime ? nullptr : &g_runtime;
  }

  // ---- Binding and handles ----

  vesk_handle connect(const std::string& name) {
    connections[++last_connection].service = name;
    return handle_of(last_connection);
  }

  // The error that a lookup of `name` fails with now.
  int refusal(const std::string& name) {
    Service& service = services[name];
    if (service.refusals == 0) return 0;
    --service.refusals;
    return service.refusal_error;
  }

  int bind(const char* name, vesk_service_bind_callback callback, void* context) {
    Lock lock(mutex);
    if (const int error = refusal(name)) return error;
    pending_binds.push_back({name, callback, context});
    answer_binds(lock, name);
    return 0;
  }

  int get(const char* name, vesk_handle* out) {
    const Lock lock(mutex);
    if (const int error = refusal(name)) return error;
    if (!services[name].running) return -ENOENT;
    *out = connect(name);
    return 0;
  }

  int publish(const char* name, vesk_endpoint* endpoint) {
    auto held = std::make_shared<HeldEndpoint>(endpoint);  // before the lock; what it replaces is released after it
    const Lock lock(mutex);
    if (services[name].running) return -EADDRINUSE;
    published[name].swap(held);
    return 0;
  }

  // Calls back the binds that wait for `name`, if there is nothing left to wait for. Unlocks.
  void answer_binds(Lock& lock, const std::string& name) {
    const Service& service = services[name];
    if (!service.running || service.binds_held) return;
    const auto others = std::stable_partition(pending_binds.begin(), pending_binds.end(),
                                              [&name](const PendingBind& bind) { return bind.name != name; });
    std::vector<std::pair<PendingBind, vesk_handle>> answers;
    std::for_each(others, pending_binds.end(),
                  [&](const PendingBind& bind) { answers.emplace_back(bind, connect(name)); });
    pending_binds.erase(others, pending_binds.end());
    const auto running = bind_callbacks.insert(std::this_thread::get_id());
    lock.unlock();
    for (const auto& [bind, handle] : answers) {
      call_out("a bind callback", [&, &bind = bind, &handle = handle] {
        return bind.callback(&g_runtime, bind.context, bind.name.c_str(), handle), 0;
      });
    }
    lock.lock();
    bind_callbacks.erase(running);
    changed.notify_all();
    lock.unlock();
  }

  bool is_valid(const vesk_handle* handle) {
    const Lock lock(mutex);
    return find(handle) != nullptr;
  }

  int acquire(const vesk_handle* handle) {
    const Lock lock(mutex);
    Connection* connection = find(handle);
    if (connection == nullptr) return -EINVAL;
    ++connection->acquired;
    return 0;
  }

  int release(const vesk_handle* handle) {
    Lock lock(mutex);
    Connection* connection = find(handle);
    if (connection == nullptr) return -EINVAL;
    --(connection->acquired > 0 ? connection->acquired : connection->lookups);
    if (connection->death != 0) connection->lookups = 0;
    close_if_unused(lock, handle->words[0]);
    return 0;
  }

  int unbind(const vesk_handle* handle) {
    Lock lock(mutex);
    Connection* connection = find(handle);
    if (connection == nullptr) return -EINVAL;
    connection->lookups = 0;
    close_if_unused(lock, handle->words[0]);
    return 0;
  }

  // Without references the connection ends, and with it what was exported over it. Unlocks.
  void close_if_unused(Lock& lock, std::uint32_t id) {
    const auto found = connections.find(id);
    if (found == connections.end() || found->second.lookups + found->second.acquired > 0) return lock.unlock();
    Connection closed = std::move(found->second);
    connections.erase(found);
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
      Links& links = found->second.links;
      const auto position = std::find(links.begin(), links.end(), link);
      if (position == links.end()) return;
      links.erase(position);
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
    if (found->second.noticed || found->second.acquired > 0) found->second.lookups = 0;
    close_if_unused(lock, id);
  }

  int link(const vesk_handle* handle, vesk_death_callback* callback) {
    const auto made =
        std::make_shared<Link>(callback);  // before the lock, and gone after it if the handle is not valid
    const Lock lock(mutex);
    Connection* connection = find(handle);
    if (connection == nullptr) return -EINVAL;
    connection->links.push_back(made);
    if (connection->death != 0) {
      queue_notice(handle->words[0], made);
      queue_step([this, id = handle->words[0]] { end(id); });
    }
    return 0;
  }

  int unlink(const vesk_handle* handle, const vesk_death_callback* callback) {
    Links unlinked;
    const Lock lock(mutex);
    Connection* connection = find(handle);
    if (connection == nullptr) return -EINVAL;
    Links& links = connection->links;
    const auto first = std::stable_partition(links.begin(), links.end(),
                                             [callback](const auto& link) { return link->callback != callback; });
    std::move(first, links.end(), std::back_inserter(unlinked));
    links.erase(first, links.end());
    return 0;
  }

  // ---- Messages ----

  int transact(const vesk_handle* handle, unsigned code, const vesk_payload& request, const EndpointRefs& endpoints,
               int planned, vesk_buffer& buffer) {
    const auto& bytes = request.parcel.bytes();
    Transaction transaction{"", code, {bytes.data(), bytes.size()}, {}, 0};
    for (const EndpointRef& held : endpoints) transaction.endpoints.push_back(held->endpoint);
    const int refused = planned != 0 ? planned : request.parcel.error();
    const Reply reply = refused != 0 ? Reply{{}, refused} : call(handle, transaction, endpoints);
    buffer.parcel.assign(reply.bytes.data(), reply.bytes.size());
    transaction.result = reply.result;
    const Lock lock(mutex);
    transactions.push_back(std::move(transaction));
    return reply.result;
  }

  // The client's call, from the message to the answer.
  Reply call(const vesk_handle* handle, Transaction& transaction, const EndpointRefs& endpoints) {
    Lock lock(mutex);
    Connection* connection = find(handle);
    if (connection == nullptr) return {{}, -EINVAL};
    transaction.service = connection->service;
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
    const auto held = [&] {
      return service.calls_held && (service.held_code == kAnyCode || service.held_code == transaction.code);
    };
    changed.wait(lock, [&] { return !held() || broken() != 0; });
    if ((connection = find(handle)) != nullptr) --connection->calls_held;

    Reply reply{{}, broken()};
    if (reply.result == 0 && service.handler) {
      const Handler handler = service.handler;
      lock.unlock();
      const int thrown = call_out("a handler", [&] { return reply = handler(transaction), 0; });
      lock.lock();
      if (const int error = thrown != 0 ? thrown : broken()) reply = {{}, error};
    }
    connection = find(handle);
    if (reply.result != 0 && connection != nullptr) take_back(*connection, endpoints);
    return reply;
  }

  static void take_back(Connection& connection, const EndpointRefs& endpoints) {
    EndpointRefs& exports = connection.exports;
    const auto taken = [&endpoints](const EndpointRef& held) {
      return std::find(endpoints.begin(), endpoints.end(), held) != endpoints.end();
    };
    exports.erase(std::remove_if(exports.begin(), exports.end(), taken), exports.end());
  }

  // A service's message to an endpoint of the client; `reply` is null for a one-way message.
  void deliver(const Target& target, unsigned code, const Bytes& message,
               const std::shared_ptr<std::promise<Reply>>& reply) {
    const Lock lock(mutex);
    queue_step([this, target, code, message, reply] {
      const EndpointRef held = find_endpoint(target);
      Reply answer{{}, -EPIPE};
      if (held != nullptr) {
        vesk_endpoint* endpoint = held->endpoint;
        vesk_identity caller;
        vesk_buffer request;
        request.parcel.assign(message.data(), message.size());
        vesk_payload payload;
        answer.result = call_out("an endpoint", [&] {
          if (reply == nullptr)
            return endpoint->fn->endpoint_call_oneway(&g_runtime, endpoint, code, &caller, &request);
          return endpoint->fn->endpoint_call(&g_runtime, endpoint, code, &caller, &request, &payload);
        });
        if (answer.result == 0) answer.bytes = bytes_of(&payload);
      }
      if (reply != nullptr) reply->set_value(answer);
    });
  }

  EndpointRef find_endpoint(const Target& target) {
    const Lock lock(mutex);
    if (target.endpoint == nullptr) {
      const auto found = published.find(target.name);
      return found == published.end() ? nullptr : found->second;
    }
    for (const auto& [id, connection] : connections) {
      for (const EndpointRef& held : connection.exports) {
        if (held->endpoint != target.endpoint) continue;
        calling_back = id;
        return held;
      }
    }
    return nullptr;
  }

  // Everything that holds a reference or a script leaves under the lock and is destroyed after it.
  void reset() {
    decltype(services) old_services;
    decltype(published) old_published;
    decltype(connections) old_connections;
    decltype(steps) old_steps;
    const Lock lock(mutex);
    old_services.swap(services);
    old_published.swap(published);
    old_connections.swap(connections);
    old_steps.swap(steps);
    steps_done = steps_queued;
    pending_binds.clear();
    transactions.clear();
    uses.clear();
    failures.clear();
    shut_down = null_runtime = false;
  }
};

namespace {

// Never destroyed: exit handlers and static objects of the code under test still use libvesk.
FakeVesk::State& state() {
  static auto* const the_state = new FakeVesk::State;
  return *the_state;
}

}  // namespace

// ---- What tests script and see ----

FakeVesk::FakeVesk() : m_state(state()) {
  m_state.reset();
}
FakeVesk::~FakeVesk() {
  m_state.reset();
}

void FakeVesk::add_service(const std::string& name, Handler handler) {
  State::Lock lock(m_state.mutex);
  Service& service = m_state.services[name];
  service.running = true;
  service.handler = std::move(handler);
  m_state.answer_binds(lock, name);
}

void FakeVesk::kill_service(const std::string& name) {
  const State::Lock lock(m_state.mutex);
  m_state.services[name].running = false;
  for (const auto& [id, connection] : m_state.connections) {
    if (connection.service == name && connection.death == 0) m_state.die(id, -EPIPE);
  }
}

void FakeVesk::refuse_binds(const std::string& name, int count, int error) {
  const State::Lock lock(m_state.mutex);
  m_state.services[name].refusals = count;
  m_state.services[name].refusal_error = error;
}

void FakeVesk::hold_binds(const std::string& name) {
  const State::Lock lock(m_state.mutex);
  m_state.services[name].binds_held = true;
}

void FakeVesk::complete_binds(const std::string& name) {
  State::Lock lock(m_state.mutex);
  m_state.services[name].binds_held = false;
  m_state.answer_binds(lock, name);
}

void FakeVesk::hold_calls(const std::string& name, unsigned code) {
  const State::Lock lock(m_state.mutex);
  m_state.services[name].calls_held = true;
  m_state.services[name].held_code = code;
}

void FakeVesk::let_calls_go(const std::string& name) {
  const State::Lock lock(m_state.mutex);
  m_state.services[name].calls_held = false;
  m_state.changed.notify_all();
}

void FakeVesk::expire_calls(const std::string& name) {
  const State::Lock lock(m_state.mutex);
  for (const auto& [id, connection] : m_state.connections) {
    if (connection.service == name && connection.calls_held > 0 && connection.death == 0) m_state.die(id, -ETIMEDOUT);
  }
}

void FakeVesk::wait_for_held_calls(const std::string& name, int count) {
  State::Lock lock(m_state.mutex);
  m_state.changed.wait(lock, [&] {
    int held = 0;
    for (const auto& [id, connection] : m_state.connections) {
      if (connection.service == name) held += connection.calls_held;
    }
    return held >= count;
  });
}

void FakeVesk::send(const Target& target, unsigned code, const Bytes& message) {
  m_state.deliver(target, code, message, nullptr);
}

std::future<Reply> FakeVesk::call(const Target& target, unsigned code, const Bytes& message) {
  const auto reply = std::make_shared<std::promise<Reply>>();
  m_state.deliver(target, code, message, reply);
  return reply->get_future();
}

void FakeVesk::release_endpoint(const vesk_endpoint* endpoint) {
  EndpointRefs released;
  const State::Lock lock(m_state.mutex);
  for (auto& [id, connection] : m_state.connections) {
    EndpointRefs& exports = connection.exports;
    const auto first = std::stable_partition(
        exports.begin(), exports.end(), [endpoint](const EndpointRef& held) { return held->endpoint != endpoint; });
    std::move(first, exports.end(), std::back_inserter(released));
    exports.erase(first, exports.end());
  }
}

void FakeVesk::post(std::function<void()> step) {
  const State::Lock lock(m_state.mutex);
  m_state.queue_step(std::move(step));
}

void FakeVesk::drain() {
  m_state.drain();
}
void FakeVesk::run_pending() {
  m_state.run_pending();
}

void FakeVesk::fail_once(std::string_view operation, int nth, int error) {
  m_state.plan_failure(operation, nth, false, error);
}

void FakeVesk::fail_always(std::string_view operation, int nth, int error) {
  m_state.plan_failure(operation, nth, true, error);
}

void FakeVesk::give_null_runtime() {
  const State::Lock lock(m_state.mutex);
  m_state.null_runtime = true;
}

std::vector<Transaction> FakeVesk::transactions() const {
  const State::Lock lock(m_state.mutex);
  return m_state.transactions;
}

std::vector<Transaction> FakeVesk::transactions(const std::string& service) const {
  std::vector<Transaction> calls = transactions();
  const auto other = [&service](const Transaction& call) { return call.service != service; };
  calls.erase(std::remove_if(calls.begin(), calls.end(), other), calls.end());
  return calls;
}

int FakeVesk::uses(std::string_view operation) const {
  const State::Lock lock(m_state.mutex);
  const auto found = m_state.uses.find(operation);
  return found == m_state.uses.end() ? 0 : found->second;
}

vesk_endpoint* FakeVesk::published(const std::string& name) const {
  const State::Lock lock(m_state.mutex);
  const auto found = m_state.published.find(name);
  return found == m_state.published.end() ? nullptr : found->second->endpoint;
}

Live FakeVesk::live() const {
  Live live{g_payloads, g_buffers, 0, g_endpoint_references, g_death_references};
  const State::Lock lock(m_state.mutex);
  for (const auto& [id, connection] : m_state.connections) {
    live.handle_references += connection.lookups + connection.acquired;
  }
  return live;
}

std::ostream& operator<<(std::ostream& out, const Live& live) {
  return out << live.payloads << " payloads, " << live.buffers << " buffers, " << live.handle_references
             << " handle references, " << live.endpoint_references << " endpoint references, " << live.death_references
             << " death references";
}

bool operator==(const Live& a, const Live& b) {
  return std::tie(a.payloads, a.buffers, a.handle_references, a.endpoint_references, a.death_references) ==
         std::tie(b.payloads, b.buffers, b.handle_references, b.endpoint_references, b.death_references);
}

}  // namespace orvel::test

// ---- vesk.h ----

using orvel::test::EndpointRefs;
using orvel::test::g_runtime;
using orvel::test::state;

namespace {

template <typename Body>
int use(const char* operation, Body body) {
  const int planned = state().enter(operation);
  return planned != 0 ? planned : body();
}

bool is_name(const char* name) {
  return name != nullptr && *name != '\0';
}

template <typename Message>
Message* allocate(const char* operation, std::atomic<int>& count) {
  if (state().enter(operation) != 0) return nullptr;
  ++count;
  return new Message;
}

// A planned failure of a read or a write leaves the sticky error, as a real one does.
template <typename Message>
bool usable(Message* message, const char* operation) {
  const int planned = state().enter(operation);
  if (message == nullptr) return false;
  if (planned != 0) message->parcel.fail(planned);
  return planned == 0;
}

template <typename Write>
int write(vesk_payload* payload, const char* operation, Write write_value) {
  if (usable(payload, operation)) return write_value(payload->parcel);
  return payload == nullptr ? -EINVAL : payload->parcel.error();
}

}  // namespace

int vesk_get_runtime(void** runtime) {
  return use(__func__, [&] { return *runtime = state().start(), 0; });
}

int vesk_run_loop(void*) {
  return use(__func__, [&] { return state().run_loop(); });
}

int vesk_shutdown(void*) {
  return use(__func__, [&] { return state().shutdown(); });
}

int vesk_service_bind(void*, const char* name, vesk_service_bind_callback callback, void* context) {
  return use(__func__,
             [&] { return is_name(name) && callback != nullptr ? state().bind(name, callback, context) : -EINVAL; });
}

int vesk_service_unbind(void*, vesk_handle* handle) {
  return use(__func__, [&] { return state().unbind(handle); });
}

int vesk_binder_servicemanager_get(void*, const char* name, vesk_handle* out) {
  return use(__func__, [&] { return is_name(name) && out != nullptr ? state().get(name, out) : -EINVAL; });
}

int vesk_service_register(void*, const char* name, vesk_endpoint* endpoint) {
  return use(__func__,
             [&] { return is_name(name) && endpoint != nullptr ? state().publish(name, endpoint) : -EINVAL; });
}

int vesk_handle_is_valid(void*, const vesk_handle* handle) {
  return state().enter(__func__) == 0 && state().is_valid(handle) ? 1 : 0;
}

int vesk_handle_acquire(void*, vesk_handle* handle) {
  return use(__func__, [&] { return state().acquire(handle); });
}

int vesk_handle_release(void*, vesk_handle* handle) {
  return use(__func__, [&] { return state().release(handle); });
}

vesk_handle vesk_invalid_handle() {
  return {{0, 0}};
}

int vesk_handle_link_to_death(void*, vesk_handle* handle, vesk_death_callback* callback) {
  return use(__func__, [&] { return callback == nullptr ? -EINVAL : state().link(handle, callback); });
}

int vesk_handle_unlink_to_death(void*, vesk_handle* handle, vesk_death_callback* callback) {
  return use(__func__, [&] { return state().unlink(handle, callback); });
}

vesk_payload* vesk_payload_alloc() {
  return allocate<vesk_payload>(__func__, orvel::test::g_payloads);
}

void vesk_payload_free(vesk_payload* payload) {
  if (payload != nullptr) --orvel::test::g_payloads;
  delete payload;
}

int vesk_payload_last_error(vesk_payload* payload) {
  return payload == nullptr ? -EINVAL : payload->parcel.error();
}

unsigned int vesk_payload_get_position(vesk_payload* payload) {
  return payload == nullptr ? 0 : static_cast<unsigned int>(payload->parcel.position());
}

int vesk_payload_set_position(vesk_payload* payload, unsigned int position) {
  return write(payload, __func__, [position](vesk::Parcel& parcel) { return parcel.set_position(position); });
}

vesk_buffer* vesk_buffer_alloc() {
  return allocate<vesk_buffer>(__func__, orvel::test::g_buffers);
}

void vesk_buffer_free(vesk_buffer* buffer) {
  if (buffer != nullptr) --orvel::test::g_buffers;
  delete buffer;
}

int vesk_buffer_last_error(vesk_buffer* buffer) {
  return buffer == nullptr ? -EINVAL : buffer->parcel.error();
}

int vesk_call(void*, vesk_handle* handle, unsigned int code, vesk_payload* request, vesk_buffer* reply) {
  const int planned = state().enter(__func__);
  if (request == nullptr || reply == nullptr) return -EINVAL;
  const EndpointRefs endpoints = std::exchange(request->endpoints, {});
  return state().transact(handle, code, *request, endpoints, planned, *reply);
}

int vesk_reply_done(void*, vesk_buffer* reply) {
  return use(__func__, [&] {
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
  return write(payload, __func__, [utf8](vesk::Parcel& parcel) {
    return utf8 == nullptr ? parcel.fail(-EINVAL) : parcel.write_utf16(utf8);
  });
}

int vesk_write_array_length(vesk_payload* payload, int32_t length) {
  return write(payload, __func__, [length](vesk::Parcel& parcel) { return parcel.write_i32(length); });
}

int vesk_write_endpoint(vesk_payload* payload, vesk_endpoint* endpoint) {
  return write(payload, __func__, [&](vesk::Parcel& parcel) {
    if (endpoint == nullptr) return parcel.fail(-EINVAL);
    const int error = parcel.write_endpoint_mark(static_cast<std::uint32_t>(payload->endpoints.size()));
    if (error == 0) payload->endpoints.push_back(std::make_shared<orvel::test::HeldEndpoint>(endpoint));
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
  unsigned int& units = length == nullptr ? ignored : *length;
  units = 0;
  return usable(buffer, __func__) ? buffer->parcel.read_utf16(&units) : nullptr;
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

#include "vesk/inprocess/InprocessVesk.h"

#include <utility>

#include "vesk/inprocess/References.h"
#include "vesk/inprocess/Runtime.h"

namespace vesk::inprocess {

InprocessVesk::InprocessVesk()
    : m_runtime(Runtime::instance()), m_payloads_before(g_counts.payloads), m_buffers_before(g_counts.buffers) {
  reset();
}
InprocessVesk::~InprocessVesk() {
  reset();
}

// What holds a reference or a script leaves under the lock and is destroyed after it.
void InprocessVesk::reset() {
  decltype(m_runtime.services) services;
  decltype(m_runtime.published) published;
  decltype(m_runtime.connections) connections;
  decltype(m_runtime.steps) steps;
  const Runtime::Lock lock(m_runtime.mutex);
  services.swap(m_runtime.services);
  published.swap(m_runtime.published);
  connections.swap(m_runtime.connections);
  steps.swap(m_runtime.steps);
  m_runtime.steps_done = m_runtime.steps_queued;
  m_runtime.pending_binds.clear();
  m_runtime.transactions.clear();
  m_runtime.bindings.clear();
  m_runtime.uses.reset();
  m_runtime.shut_down = m_runtime.null_runtime = m_runtime.loop_held = g_quiet = g_strict = false;
  m_runtime.device = nullptr;
}

void InprocessVesk::add_service(const std::string& name, Handler handler) {
  Runtime::Lock lock(m_runtime.mutex);
  Service& service = m_runtime.services[name];
  service.running = true;
  service.handler = std::move(handler);
  m_runtime.answer_binds(lock, name);
}

void InprocessVesk::kill_service(const std::string& name) {
  const Runtime::Lock lock(m_runtime.mutex);
  m_runtime.services[name].running = false;
  for (const auto& [id, connection] : m_runtime.connections) {
    if (connection.service == name && connection.death == 0) m_runtime.die(id, -EPIPE);
  }
}

void InprocessVesk::refuse_binds(const std::string& name, int count, int error) {
  const Runtime::Lock lock(m_runtime.mutex);
  m_runtime.services[name].refusals = count;
  m_runtime.services[name].refusal_error = error;
}

void InprocessVesk::hold_binds(const std::string& name) {
  const Runtime::Lock lock(m_runtime.mutex);
  m_runtime.services[name].binds_held = true;
}

void InprocessVesk::complete_binds(const std::string& name) {
  Runtime::Lock lock(m_runtime.mutex);
  m_runtime.services[name].binds_held = false;
  m_runtime.answer_binds(lock, name);
}

void InprocessVesk::repeat_binds(const std::string& name) {
  const Runtime::Lock lock(m_runtime.mutex);
  m_runtime.services[name].binds_repeated = true;
}

void InprocessVesk::hold_calls(const std::string& name, unsigned code) {
  const Runtime::Lock lock(m_runtime.mutex);
  m_runtime.services[name].calls_held = true;
  m_runtime.services[name].held_code = code;
}

void InprocessVesk::let_calls_go(const std::string& name) {
  const Runtime::Lock lock(m_runtime.mutex);
  m_runtime.services[name].calls_held = false;
  m_runtime.changed.notify_all();
}

void InprocessVesk::expire_calls(const std::string& name) {
  const Runtime::Lock lock(m_runtime.mutex);
  ++m_runtime.services[name].expiries;
  m_runtime.changed.notify_all();
}

void InprocessVesk::close_connection(const Transaction& call, int error) {
  const Runtime::Lock lock(m_runtime.mutex);
  const auto found = m_runtime.connections.find(call.connection);
  if (found != m_runtime.connections.end() && found->second.death == 0) m_runtime.die(call.connection, error);
}

void InprocessVesk::wait_for_held_calls(const std::string& name, int count) {
  Runtime::Lock lock(m_runtime.mutex);
  m_runtime.changed.wait(lock, [&] {
    int held = 0;
    for (const auto& [id, connection] : m_runtime.connections) {
      if (connection.service == name) held += connection.calls_held;
    }
    return held >= count;
  });
}

void InprocessVesk::send(const Target& target, unsigned code, const Bytes& message,
                         const std::function<void(const Reply&)>& ended) {
  m_runtime.deliver(target, code, message, nullptr, ended);
}

std::future<Reply> InprocessVesk::call(const Target& target, unsigned code, const Bytes& message) {
  const auto reply = std::make_shared<std::promise<Reply>>();
  m_runtime.deliver(target, code, message, reply, {});
  return reply->get_future();
}

void InprocessVesk::release_endpoint(const vesk_endpoint* endpoint) {
  EndpointRefs released;
  const Runtime::Lock lock(m_runtime.mutex);
  for (auto& [id, connection] : m_runtime.connections) {
    const auto given_back = [endpoint](const EndpointRef& held) { return held.get() == endpoint; };
    for (EndpointRef& held : take_if(connection.exports, given_back)) released.push_back(std::move(held));
  }
}

void InprocessVesk::release_transfer(const std::weak_ptr<const void>& transfer) {
  EndpointRefs released;
  const auto given_back = [&transfer](const EndpointRef& held) { return is_same(held, transfer); };
  const Runtime::Lock lock(m_runtime.mutex);
  for (auto& [id, connection] : m_runtime.connections) {
    for (EndpointRef& held : take_if(connection.exports, given_back)) released.push_back(std::move(held));
  }
}

std::vector<std::string> InprocessVesk::published() const {
  std::vector<std::string> names;
  const Runtime::Lock lock(m_runtime.mutex);
  for (const auto& [name, held] : m_runtime.published) names.push_back(name);
  return names;
}

bool InprocessVesk::on_run_loop() {
  return inprocess::on_run_loop();
}

void InprocessVesk::attach(Device* device) {
  const Runtime::Lock lock(m_runtime.mutex);
  m_runtime.device = device;
}

void InprocessVesk::post(std::function<void()> step) {
  const Runtime::Lock lock(m_runtime.mutex);
  m_runtime.queue_step(std::move(step));
}

void InprocessVesk::drain() {
  Runtime::Lock lock(m_runtime.mutex);
  do {
    const long target = m_runtime.steps_allowed = m_runtime.steps_queued;
    m_runtime.changed.notify_all();
    m_runtime.changed.wait(lock, [&] { return m_runtime.steps_done >= target || m_runtime.shut_down; });
  } while (m_runtime.loop_held && !m_runtime.steps.empty() && !m_runtime.shut_down);
  m_runtime.steps_allowed = 0;
}

void InprocessVesk::hold_run_loop() {
  const Runtime::Lock lock(m_runtime.mutex);
  m_runtime.loop_held = true;
}

void InprocessVesk::wait_for_shutdown() {
  Runtime::Lock lock(m_runtime.mutex);
  m_runtime.changed.wait(lock, [&] { return m_runtime.shut_down; });
}

void InprocessVesk::repair() {
  m_runtime.uses.repair();
}

bool InprocessVesk::inside() {
  return t_depth > 0;
}

void InprocessVesk::keep_quiet() {
  g_quiet = true;
}

void InprocessVesk::be_strict() {
  g_strict = true;
}

void InprocessVesk::run_pending() {
  Runtime::Lock lock(m_runtime.mutex);
  while (!m_runtime.steps.empty() && !m_runtime.shut_down) m_runtime.run_step(lock);
}

void InprocessVesk::fail_once(std::string_view operation, int nth, int error) {
  m_runtime.uses.fail(operation, nth, false, error);
}

void InprocessVesk::fail_always(std::string_view operation, int nth, int error) {
  m_runtime.uses.fail(operation, nth, true, error);
}

void InprocessVesk::at_use(int nth, std::function<void(std::string_view)> step) {
  m_runtime.uses.at_use(nth, std::move(step));
}

void InprocessVesk::give_null_runtime() {
  const Runtime::Lock lock(m_runtime.mutex);
  m_runtime.null_runtime = true;
}

std::vector<Transaction> InprocessVesk::transactions() const {
  const Runtime::Lock lock(m_runtime.mutex);
  return m_runtime.transactions;
}

std::vector<Transaction> InprocessVesk::transactions(const std::string& service) const {
  std::vector<Transaction> calls = transactions();
  return take_if(calls, [&service](const Transaction& call) { return call.service == service; });
}

std::vector<std::string> InprocessVesk::bindings() const {
  const Runtime::Lock lock(m_runtime.mutex);
  return m_runtime.bindings;
}

int InprocessVesk::uses(std::string_view operation) const {
  return m_runtime.uses.of(operation);
}

int InprocessVesk::uses() const {
  return m_runtime.uses.all();
}

Live InprocessVesk::live() const {
  Live live{g_counts.payloads - m_payloads_before,
            g_counts.buffers - m_buffers_before,
            0,
            0,
            g_counts.endpoint_references,
            g_counts.death_references};
  const Runtime::Lock lock(m_runtime.mutex);
  for (const auto& [id, connection] : m_runtime.connections) {
    live.lookups += connection.lookups;
    live.handle_references += connection.acquired;
  }
  return live;
}

}  // namespace vesk::inprocess

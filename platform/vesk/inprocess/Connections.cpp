// Lookups, handles and deaths in the runtime inside a process.
#include <utility>

#include "vesk/inprocess/Runtime.h"

namespace vesk::inprocess {
namespace {

vesk_handle handle_of(std::uint32_t id) {
  return {{id, 1}};
}

}  // namespace

Runtime& Runtime::instance() {
  static auto* const runtime = new Runtime;
  return *runtime;
}

Connection* Runtime::find(const vesk_handle* handle) {
  if (handle == nullptr || handle->words[1] != 1) return nullptr;
  const auto found = connections.find(handle->words[0]);
  return found == connections.end() ? nullptr : &found->second;
}

vesk_handle Runtime::connect(const std::string& name) {
  connections[++last_connection].service = name;
  bindings.push_back("+" + name);
  if (device != nullptr) device.load()->looked_up(name, true);
  return handle_of(last_connection);
}

int Runtime::refusal(const std::string& name) {
  Service& service = services[name];
  if (service.refusals == 0) return 0;
  --service.refusals;
  return service.refusal_error;
}

void Runtime::answer_binds(Lock& lock, const std::string& name) {
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
    call_out("a bind callback",
             [&] { return bind.callback(runtime_address(), bind.context, name.c_str(), handles[n]), 0; });
  }
  lock.lock();
  bind_callbacks.erase(running);
  changed.notify_all();
  lock.unlock();
}

void Runtime::close_if_unused(Lock& lock, std::uint32_t id) {
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

void Runtime::die(std::uint32_t id, int error) {
  Connection& connection = connections.at(id);
  connection.death = error;
  for (const auto& link : connection.links) queue_notice(id, link);
  queue_step([this, id] { end(id); });
  changed.notify_all();
}

void Runtime::queue_notice(std::uint32_t id, const std::weak_ptr<DeathLink>& linked) {
  queue_step([this, id, linked] {
    std::shared_ptr<DeathLink> link;
    Lock lock(mutex);
    link = linked.lock();
    const auto found = connections.find(id);
    if (link == nullptr || found == connections.end()) return;
    if (take_if(found->second.links, [&](const auto& other) { return other == link; }).empty()) return;
    found->second.noticed = true;
    lock.unlock();
    vesk_handle handle = handle_of(id);
    call_out("on_death", [&] { return link->callback->on_death(runtime_address(), link->callback, &handle), 0; });
  });
}

// A dead handle is not unbound, so the lookup's reference ends by itself, but not while a thread may still be between
// the lookup and its link.
void Runtime::end(std::uint32_t id) {
  EndpointRefs released;
  Lock lock(mutex);
  const auto found = connections.find(id);
  if (found == connections.end()) return;
  released.swap(found->second.exports);
  if (device != nullptr) device.load()->closed(id);
  if (found->second.noticed || found->second.acquired > 0) found->second.lookups = 0;
  close_if_unused(lock, id);
}

}  // namespace vesk::inprocess

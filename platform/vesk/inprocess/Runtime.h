// The state of the runtime inside a process, which its C functions and InprocessVesk share.
#pragma once

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <future>
#include <iterator>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "vesk/inprocess/Device.h"
#include "vesk/inprocess/References.h"
#include "vesk/inprocess/Transaction.h"
#include "vesk/inprocess/Uses.h"
#include "vesk/vesk.h"

namespace vesk::inprocess {

// What one handle names.
struct Connection {
  std::string service;
  int lookups = 1;   // what vesk_service_unbind drops
  int acquired = 0;  // what vesk_handle_release drops
  int calls_held = 0;
  int death = 0;         // the error that calls fail with since the service died; 0 while it lives
  bool noticed = false;  // a link has heard of the death
  bool linked = false;   // to its death, at any time
  DeathLinks links;
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

// Moves what `chosen` picks out of `all`, so that it can be dropped without the lock.
template <typename Item, typename Choice>
std::vector<Item> take_if(std::vector<Item>& all, Choice chosen) {
  const auto first = std::stable_partition(all.begin(), all.end(), [&](const Item& item) { return !chosen(item); });
  std::vector<Item> taken(std::make_move_iterator(first), std::make_move_iterator(all.end()));
  all.erase(first, all.end());
  return taken;
}

// One for the process, never destroyed: exit handlers and static objects of the client still use libvesk. The caller of
// a method holds the lock, unless the method takes it itself: call(), deliver() and end().
struct Runtime {
  using Lock = std::unique_lock<std::mutex>;

  static Runtime& instance();

  // ---- Run loop ----

  void queue_step(std::function<void()> step);
  // Tells the device whether there is work. Work that waits for a loop counts too: the thread that will enter it may be
  // on its way.
  void tell_work() const;
  [[nodiscard]] bool may_step() const { return !steps.empty() && (!loop_held || steps_done < steps_allowed); }
  // Unlocks while the step runs.
  void run_step(Lock& lock);
  int run_loop();
  void shut_down_now();

  // ---- Binding and handles ----

  // Null for a handle that names nothing.
  Connection* find(const vesk_handle* handle);
  vesk_handle connect(const std::string& name);
  // The error that a lookup of `name` fails with now.
  int refusal(const std::string& name);
  // Calls back the binds that wait for `name`, if there is nothing left to wait for. Unlocks.
  void answer_binds(Lock& lock, const std::string& name);
  // Without references the connection ends, and with it what was exported over it. Unlocks.
  void close_if_unused(Lock& lock, std::uint32_t id);

  // ---- Deaths ----

  // Calls fail from now on; the notices come after everything sent before.
  void die(std::uint32_t id, int error);
  void queue_notice(std::uint32_t id, const std::weak_ptr<DeathLink>& linked);
  // After the notices: releases what was exported.
  void end(std::uint32_t id);

  // ---- Messages ----

  // The client's call, from the message to the answer; `refused` is the error that it fails with anyway.
  Reply call(const vesk_handle* handle, Transaction& transaction, const EndpointRefs& endpoints, int refused);
  // A service's message to an endpoint of the client; `reply` is null for a one-way message, `ended` may be empty.
  void deliver(const Target& target, unsigned code, const Bytes& message,
               const std::shared_ptr<std::promise<Reply>>& reply, const std::function<void(const Reply&)>& ended);

  Uses uses;
  std::mutex
      mutex;  // guards everything below; never held while anything outside the runtime runs, but the device's notices
  std::condition_variable changed;
  std::atomic<Device*> device{nullptr};

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
  bool null_runtime = false;

 private:
  int wait_while_held(Lock& lock, const vesk_handle* handle, unsigned code, int started_at);
  int why_broken(const vesk_handle* handle, int started_at);
  EndpointRef find_endpoint(const Target& target);
  Reply call_endpoint(const Target& target, unsigned code, const Bytes& message, bool two_way);
};

// Whether this thread runs a step of the run loop.
bool on_run_loop();

}  // namespace vesk::inprocess

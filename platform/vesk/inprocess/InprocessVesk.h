// libvesk inside one process: services are scripts or a device in the same process, and nothing depends on time.
#pragma once

#include <cerrno>
#include <functional>
#include <future>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "vesk/inprocess/Bytes.h"
#include "vesk/inprocess/Device.h"
#include "vesk/inprocess/Live.h"
#include "vesk/inprocess/Transaction.h"
#include "vesk/vesk.h"

namespace vesk::inprocess {

struct Runtime;

// The process's one runtime, as a test sees it. Construction and destruction start over: no service, nothing recorded,
// every reference that libvesk held dropped; no thread may be inside vesk_run_loop or a call by then. What the client
// calls is in vesk.h. All verbs may be used on any thread, in callbacks and handlers too; none of them waits unless it
// says so.
class InprocessVesk {
 public:
  InprocessVesk();
  ~InprocessVesk();
  InprocessVesk(const InprocessVesk&) = delete;
  InprocessVesk& operator=(const InprocessVesk&) = delete;

  // ---- Services ----

  // Makes a service run; binds that wait for it are called back on this thread. Without a handler it answers every call
  // with an empty reply. Adding it again replaces the handler of the running service.
  void add_service(const std::string& name, Handler handler = {});

  // Ends the service's process: its name goes, calls in progress and later ones fail, and the run loop delivers the
  // notices after everything that the service sent before.
  void kill_service(const std::string& name);

  // The next `count` lookups of `name`, by either route, fail with `error`.
  void refuse_binds(const std::string& name, int count, int error = -ECONNREFUSED);

  // From now on vesk_service_bind succeeds but leaves the callback for `name` out, also when the service runs ...
  void hold_binds(const std::string& name);
  // ... until this ends that and calls back every bind that waits, on this thread. Without it they wait for ever.
  void complete_binds(const std::string& name);
  // From now on each bind of `name` is called back twice, each time with a handle of its own.
  void repeat_binds(const std::string& name);

  // Calls of `name`, or those with that code, stop before they reach the handler, until let go, the death of the
  // service, or vesk_shutdown.
  void hold_calls(const std::string& name, unsigned code = kAnyCode);
  void let_calls_go(const std::string& name);
  // Lets the held calls run into the call limit: each fails with -ETIMEDOUT, and its connection goes on.
  void expire_calls(const std::string& name);
  // Waits until `count` calls of `name` are held.
  void wait_for_held_calls(const std::string& name, int count = 1);

  // Closes the connection of a call in progress, which fails with `error`; for its handler.
  void close_connection(const Transaction& call, int error);

  // ---- What services send; runs on the run-loop thread, in the order sent ----

  // `ended`, on that thread too: what became of it, a Reply without bytes.
  void send(const Target& target, unsigned code, const Bytes& message,
            const std::function<void(const Reply&)>& ended = {});
  // The endpoint's answer; -EPIPE when the target is neither held nor published any more.
  std::future<Reply> call(const Target& target, unsigned code, const Bytes& message);
  // Gives back every reference to `endpoint` that services hold.
  void release_endpoint(const vesk_endpoint* endpoint);
  // Gives back the one reference that travelled so.
  void release_transfer(const std::weak_ptr<const void>& transfer);

  // The names that the client publishes.
  [[nodiscard]] std::vector<std::string> published() const;
  // Whether this thread runs a step of the run loop.
  static bool on_run_loop();
  // Tells the device, until it is told another or null.
  void attach(Device* device);

  // Runs `step` on the run-loop thread after everything sent so far.
  void post(std::function<void()> step);
  // Waits until the thread in vesk_run_loop is through with everything sent so far, or the runtime is shut down.
  void drain();
  // From now on the run loop runs its steps only while a thread is in drain(), which then waits for those that they
  // queue too: one thread at a time decides what happens next.
  void hold_run_loop();
  // Waits until vesk_shutdown has been called.
  void wait_for_shutdown();
  // Runs on this thread what waits for the run loop; for tests in which no thread enters it.
  void run_pending();

  // ---- Failures ----

  // Makes the libvesk function `operation` ("vesk_write_i32") fail at its `nth` use from now, that once or from then
  // on: with `error`, null, or 0, whichever it returns; a read or write also leaves the sticky error. Does nothing else
  // when it fails.
  void fail_once(std::string_view operation, int nth = 1, int error = -EIO);
  void fail_always(std::string_view operation, int nth = 1, int error = -EIO);
  // Runs `step` when the client begins its `nth` use of libvesk from now, on the thread that uses it, with what it
  // uses.
  void at_use(int nth, std::function<void(std::string_view operation)> step);
  // vesk_get_runtime succeeds, but gives null.
  void give_null_runtime();
  // Ends all planned failures.
  void repair();
  // From now on nothing is printed of what callbacks throw.
  void keep_quiet();
  // From now on the fake aborts on what only a lenient libvesk forgives, with a line that says what: a null message,
  // text, handle, endpoint or callback, a value that was never a handle, unbinding what was not linked to its death, a
  // shutdown after a shutdown, a bind or a name after one.
  void be_strict();
  // Whether this thread is inside libvesk, and not in what libvesk calls.
  static bool inside();

  // ---- What happened ----

  // Calls in the order in which they ended.
  [[nodiscard]] std::vector<Transaction> transactions() const;
  [[nodiscard]] std::vector<Transaction> transactions(const std::string& service) const;
  // The names that were bound ("+name"), unbound ("-name") and published ("=name"), in order.
  [[nodiscard]] std::vector<std::string> bindings() const;
  // How often the client used the libvesk function `operation`, failed uses included.
  [[nodiscard]] int uses(std::string_view operation) const;
  // The same of all functions together.
  [[nodiscard]] int uses() const;
  [[nodiscard]] Live live() const;

 private:
  void reset();

  Runtime& m_runtime;           // lives as long as the process: exit handlers of the client use it
  const int m_payloads_before;  // what the client left before, on purpose
  const int m_buffers_before;
};

}  // namespace vesk::inprocess

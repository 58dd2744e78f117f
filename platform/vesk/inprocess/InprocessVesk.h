// libvesk inside the test's own process: scripted services instead of other processes, nothing that depends on time.
#pragma once

#include <cerrno>
#include <cstdint>
#include <functional>
#include <future>
#include <iosfwd>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "vesk/inprocess/Bytes.h"
#include "vesk/vesk.h"

namespace vesk::inprocess {

// One call as it crossed the wire. `endpoints` are those that travelled in it; the service holds them when `result` is
// 0.
struct Transaction {
  std::string service;
  unsigned code = 0;
  Bytes request;
  std::vector<vesk_endpoint*> endpoints;
  int result = 0;
  std::vector<std::weak_ptr<const void>> transfers;  // what each endpoint travelled as: no later one is equal to it
  std::uint32_t connection = 0;                      // over which it went; no later one has its number
};

// What a service, or an endpoint of the client, answers.
struct Reply {
  Bytes bytes;
  int result = 0;
  std::optional<std::string> thrown = {};  // the text of what an endpoint threw
};

// Answers the calls of one service (buffer_of(call.request) reads one), on the calling thread and with no lock held. It may use the fake: kill_service() of
// itself makes the call in progress fail.
using Handler = std::function<Reply(const Transaction& call)>;

// Whom a message from a service reaches: an endpoint that the client sent, or a name under which it published one.
struct Target {
  Target(vesk_endpoint* sent) : endpoint(sent) {}                    // NOLINT(google-explicit-constructor)
  Target(std::string published) : name(std::move(published)) {}      // NOLINT(google-explicit-constructor)
  Target(const char* published) : Target(std::string(published)) {}  // NOLINT(google-explicit-constructor)
  explicit Target(std::weak_ptr<const void> sent) : transfer(std::move(sent)), by_transfer(true) {}

  vesk_endpoint* endpoint = nullptr;
  std::weak_ptr<const void> transfer;
  bool by_transfer = false;
  std::string name;
};

// A device in the same process, in place of scripts. Its address, as a void*, is its own runtime: what it asks of vesk.h with
// that comes to the first group of methods. The second is told what happens, in order and on any thread, under the fake's
// lock: those may not use the fake.
class Device {
 public:
  virtual ~Device() = default;

  virtual int serve(const char* name, vesk_endpoint* endpoint) = 0;             // vesk_service_register
  virtual int find(const char* name, vesk_handle* out) = 0;                     // vesk_binder_servicemanager_get
  virtual int forget(const vesk_handle& handle) = 0;                            // vesk_service_unbind
  virtual int watch(const vesk_handle& handle, vesk_death_callback* told) = 0;  // link; null: unlink

  virtual void loop_has_work(bool has) = 0;  // whether there is something for the client's run loop to do
  virtual void step_begins() = 0;            // on the run loop
  virtual void looked_up(const std::string& service, bool found) = 0;
  virtual void closed(std::uint32_t connection) = 0;  // by the client, or after the service's death
  virtual void shut_down() = 0;
};

constexpr unsigned kAnyCode = ~0U;

// What the code under test still owes, or makes libvesk keep: EXPECT_EQ(m_vesk.live(), Live{}).
struct Live {
  int payloads = 0;
  int buffers = 0;
  int lookups = 0;              // that nobody unbound and no death ended
  int handle_references = 0;    // by vesk_handle_acquire
  int endpoint_references = 0;  // taken with endpoint_acquire, not yet released
  int death_references = 0;     // taken with death_acquire, not yet released

  friend bool operator==(const Live& a, const Live& b);
  friend std::ostream& operator<<(std::ostream& out, const Live& live);
};

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
  void send(const Target& target, unsigned code, const Bytes& message, std::function<void(const Reply&)> ended = {});
  // The endpoint's answer; -EPIPE when nobody holds or publishes the target any more.
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
  // From now on the run loop runs its steps only while somebody is in drain(), which then waits for those that they
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
  // Runs `step` when the client begins its `nth` use of libvesk from now, on the thread that uses it, with what it uses.
  void at_use(int nth, std::function<void(std::string_view operation)> step);
  // vesk_get_runtime succeeds, but gives null.
  void give_null_runtime();
  // Ends all planned failures.
  void repair();
  // What callbacks throw is no longer printed.
  void keep_quiet();
  // From now on the fake aborts on what only a lenient libvesk forgives, with a line that says what: a null message, text,
  // handle, endpoint or callback, a value that was never a handle, unbinding what was not linked to its death, a shutdown
  // after a shutdown, a bind or a name after one.
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

  struct State;

 private:
  void reset();

  State& m_state;               // lives as long as the process: exit handlers of the code under test use it
  const int m_payloads_before;  // what earlier tests of the program left, on purpose
  const int m_buffers_before;
};

}  // namespace vesk::inprocess

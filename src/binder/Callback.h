// The callbacks of the client's users: where they run, and how they end.
#pragma once

#include <atomic>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <thread>
#include <tuple>
#include <type_traits>
#include <utility>
#include <vector>

#include "binder/CallRecord.h"
#include "binder/Disposal.h"
#include "binder/RunGate.h"
#include "binder/ThreadAnnotations.h"
#include "orvel/Executor.h"

namespace orvel::service_apis {

// What the lists, endpoints and tasks that may call one callback share. The last of them to go disposes of the user's
// function; end() does so before. Threads: any.
class Callback {
 public:
  // What becomes of it at shutdown().
  enum class Lasts { kUntilShutdown, kBeyond };

  // `method` is the public method that has taken the function; it lives as long as the process.
  Callback(const char* method, DisposablePtr function, Lasts lasts);
  Callback(const Callback&) = delete;
  Callback& operator=(const Callback&) = delete;

  // Does what Subscription's destructor does.
  void end();
  [[nodiscard]] bool ended() const { return m_gate.closed(); }

  // Has end() run `hook`, once. Not for callbacks that may have ended already.
  void at_end(std::function<void()> hook) ORVEL_EXCLUDES(m_mutex);

  // The stay of a thread in the user's function.
  class Running {
   public:
    explicit Running(Callback& callback);
    ~Running();
    Running(const Running&) = delete;
    Running& operator=(const Running&) = delete;

    // The function; null when it must not run any more.
    [[nodiscard]] Disposable* function() const { return m_function; }

   private:
    Callback& m_callback;
    std::optional<RunGate::Entry> m_life_entry;
    std::optional<RunGate::Entry> m_entry;
    Disposable* m_function = nullptr;
    UserCode m_user_code;
  };

  // In front of a notification, on the thread that brings it.
  void wait_for_turn() const;

  // ---- The executor ----

  static void set_executor(Executor executor);
  // Null when callbacks run where they come.
  static std::shared_ptr<const Executor> executor();
  // Hands `body` to the executor, as a task of this callback. What the executor throws is logged.
  void post(const Executor& executor, std::function<void()> body) const;

  // Whether this thread is inside a callback for which a shutdown waits.
  static bool keeps_shutdown_waiting();

  // ---- From initialize() to shutdown() ----

  // Callbacks made from now on last until the next end_life(). From that on none of them is started, and when it
  // returns none runs on another thread.
  static void begin_life();
  static void end_life();

 private:
  void drop_function();

  const char* const m_method;
  const std::shared_ptr<RunGate> m_life;  // null for one that lasts beyond
  RunGate m_gate;
  std::optional<DisposablePtr> m_function;
  std::atomic<std::thread::id> m_ended_by{};  // a thread that is inside, and drops the function when it leaves
  std::mutex m_mutex;
  std::vector<std::function<void()>> m_hooks ORVEL_GUARDED_BY(m_mutex);
};

// Calls a function of a user. The copies share one function, so that it exists once and keeps its state when its
// registration is made again. An empty one throws std::bad_function_call when it is called. Copied and destroyed on any
// thread.
template <typename Function>
class SharedCallback {
 public:
  explicit SharedCallback(Function function, const char* method = "",
                          Callback::Lasts lasts = Callback::Lasts::kUntilShutdown)
      : m_callback(std::make_shared<Callback>(method, DisposablePtr(new Held(std::move(function))), lasts)) {}

  // Calls the function here, or has the executor call it with copies of the values.
  template <typename... Values>
  void operator()(Values&&... values) const {
    wait_for_turn();
    now(std::forward<Values>(values)...);
  }

  // Its two halves, for a caller that takes a lock in between: the thread that is waited for may need it.
  void wait_for_turn() const { m_callback->wait_for_turn(); }
  template <typename... Values>
  void now(Values&&... values) const {
    if (const auto executor = Callback::executor()) {
      m_callback->post(*executor, [callback = m_callback,
                                   kept = std::tuple<std::decay_t<Values>...>(std::forward<Values>(values)...)] {
        const Callback::Running running(*callback);
        if (running.function()) std::apply(function_of(running), kept);
      });
      return;
    }
    const Callback::Running running(*m_callback);
    if (running.function()) function_of(running)(std::forward<Values>(values)...);
  }

  const std::shared_ptr<Callback>& shared() const { return m_callback; }

 private:
  struct Held : Disposable {
    explicit Held(Function taken) : function(std::move(taken)) {}
    const Function function;
  };

  static const Function& function_of(const Callback::Running& running) {
    return static_cast<const Held*>(running.function())->function;
  }

  std::shared_ptr<Callback> m_callback;
};

using StateCallback = SharedCallback<std::function<void(bool)>>;

}  // namespace orvel::service_apis

/// @file
/// Where callbacks run.
#pragma once

#include <functional>
#include <utility>

namespace orvel::service_apis {

/// One call of a callback that is to run. Copies are the same call, which runs once at most: afterwards, after its
/// subscription has ended and after shutdown() it does nothing.
class CallbackTask {
 public:
  /// For the library.
  CallbackTask(const char* method, std::function<void()> body) : m_method(method), m_body(std::move(body)) {}

  /// Runs it, on any thread, and passes on what the callback throws.
  void operator()() const { m_body(); }

  /// The public method that the callback was given to, "subscribeDeviceNameChange".
  const char* method() const { return m_method; }

 private:
  const char* m_method;
  std::function<void()> m_body;
};

/// Takes a task and sees to it that it runs soon, behind those that it took before. Must not wait: while it does, no
/// notification is taken. What it throws is logged, and its task is lost.
using Executor = std::function<void(CallbackTask task)>;

}  // namespace orvel::service_apis

// The callback of a user of the client.
#pragma once

#include <functional>
#include <utility>

#include "binder/Disposal.h"

namespace orvel::service_apis {

// The copies share one callback, so that it exists once and keeps its state when its registration is made again. The
// last copy disposes of it. An empty one throws std::bad_function_call when it is called. Called on the run-loop
// thread; copied and destroyed on any.
template <typename Function>
class SharedCallback {
 public:
  explicit SharedCallback(Function callback) : m_held(new Held(std::move(callback))) {}

  template <typename... Values>
  void operator()(Values&&... values) const {
    static_cast<const Held*>(m_held.get())->callback(std::forward<Values>(values)...);
  }

 private:
  struct Held : Disposable {
    explicit Held(Function function) : callback(std::move(function)) {}
    const Function callback;
  };

  DisposablePtr m_held;  // a Held
};

using StateCallback = SharedCallback<std::function<void(bool)>>;

}  // namespace orvel::service_apis

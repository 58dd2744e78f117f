// The callback that a user of the client handed over.
#pragma once

#include <functional>
#include <memory>
#include <utility>

#include "binder/Disposal.h"

namespace orvel::service_apis {

// Copies share one callback, which so exists once, however often its registration is made again; the last of them destroys
// it, outside the library's locks. An empty one throws std::bad_function_call when it is called. Called on the run-loop
// thread; copied and destroyed on any.
template <typename Function>
class SharedCallback {
 public:
  explicit SharedCallback(Function callback)
      : m_held(new Held(std::move(callback)), [](Held* held) { Disposal::dispose(held); }) {}

  template <typename... Values>
  void operator()(Values&&... values) const {
    m_held->callback(std::forward<Values>(values)...);
  }

 private:
  struct Held : Disposable {
    explicit Held(Function function) : callback(std::move(function)) {}
    const Function callback;
  };

  std::shared_ptr<Held> m_held;
};

using StateCallback = SharedCallback<std::function<void(bool)>>;

}  // namespace orvel::service_apis

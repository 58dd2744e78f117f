#include "binder/Callback.h"

#include <exception>
#include <thread>

#include "binder/LinkBoard.h"
#include "binder/OrvelLogger.h"
#include "binder/Process.h"

namespace orvel::service_apis {
namespace {

const OrvelLogger s_logger("Callback");

struct Process {
  std::mutex mutex;
  std::shared_ptr<const Executor> executor ORVEL_GUARDED_BY(mutex);
  std::shared_ptr<RunGate> life ORVEL_GUARDED_BY(mutex);
  std::atomic<bool> has_executor{false};  // so that a notification takes no lock where there is none
};

// Never destroyed: subscriptions may end in exit handlers.
Process& process() {
  static Process& instance = *new Process;
  return instance;
}

thread_local int t_until_shutdown = 0;  // how many callbacks of that kind this thread is inside

std::shared_ptr<RunGate> current_life() {
  Process& state = process();
  const std::lock_guard<std::mutex> lock(state.mutex);
  return state.life;
}

}  // namespace

Callback::Callback(const char* method, DisposablePtr function, Lasts lasts)
    : m_method(method),
      m_life(lasts == Lasts::kUntilShutdown ? current_life() : nullptr),
      m_function(std::move(function)) {}

void Callback::end() {
  m_gate.close();
  std::vector<std::function<void()>> hooks;
  {
    const std::lock_guard<std::mutex> lock(m_mutex);
    hooks.swap(m_hooks);
  }
  for (const auto& hook : hooks) hook();
  const bool inside = m_gate.inside();
  if (inside) m_ended_by = std::this_thread::get_id();
  m_gate.wait();
  if (!inside) drop_function();
}

void Callback::at_end(std::function<void()> hook) {
  const std::lock_guard<std::mutex> lock(m_mutex);
  m_hooks.push_back(std::move(hook));
}

void Callback::drop_function() {
  const std::optional<DisposablePtr> dropped = std::exchange(m_function, std::nullopt);
}

Callback::Running::Running(Callback& callback) : m_callback(callback) {
  if (callback.m_life && !m_life_entry.emplace(*callback.m_life)) return;
  if (!m_entry.emplace(callback.m_gate)) return;
  m_function = callback.m_function->get();
  if (callback.m_life) ++t_until_shutdown;
}

Callback::Running::~Running() {
  if (!m_function) return;
  if (m_callback.m_life) --t_until_shutdown;
  // Another thread may be inside too, where an executor has several.
  const bool last = m_callback.m_ended_by == std::this_thread::get_id() && m_entry->is_outermost();
  m_entry.reset();
  if (last) m_callback.drop_function();
}

void Callback::wait_for_turn() const {
  if (m_life) LinkBoard::instance().wait_until_restored();
}

void Callback::set_executor(Executor executor) {
  Process& state = process();
  auto shared = executor ? std::make_shared<const Executor>(std::move(executor)) : nullptr;
  const std::lock_guard<std::mutex> lock(state.mutex);
  state.has_executor = shared != nullptr;
  state.executor.swap(shared);
}

std::shared_ptr<const Executor> Callback::executor() {
  Process& state = process();
  if (!state.has_executor) return nullptr;
  const std::lock_guard<std::mutex> lock(state.mutex);
  return state.executor;
}

void Callback::post(const Executor& executor, std::function<void()> body) const {
  try {
    const UserCode user_code;
    executor(CallbackTask(m_method, std::move(body)));
  } catch (const std::exception& error) {
    s_logger.e("%s:The executor threw, and a callback of %s is lost: %s", __func__, m_method, error.what());
  } catch (...) {
    s_logger.e("%s:The executor threw, and a callback of %s is lost", __func__, m_method);
  }
}

bool Callback::keeps_shutdown_waiting() {
  return on_library_thread() || t_until_shutdown > 0;
}

void Callback::begin_life() {
  Process& state = process();
  auto life = std::make_shared<RunGate>();
  const std::lock_guard<std::mutex> lock(state.mutex);
  state.life.swap(life);
}

void Callback::end_life() {
  std::shared_ptr<RunGate> life = current_life();
  if (!life) return;
  life->close();
  life->wait();
}

}  // namespace orvel::service_apis

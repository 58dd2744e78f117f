#include "binder/ServiceBinding.h"

#include <chrono>
#include <cstdint>
#include <mutex>
#include <optional>
#include <unordered_map>

#include "binder/Admission.h"
#include "binder/ThreadAnnotations.h"
#include "binder/Waiting.h"

namespace orvel::service_apis {
namespace {

constexpr int kReadinessPolls = 10;
constexpr std::chrono::seconds kReadinessPollInterval{2};

// What a wait for a bind has learnt so far.
struct ServiceBindContext {
  vesk_handle handle{};
  bool ready = false;
};

// The binds for whose handle a thread waits, by number. libvesk may call back long after that thread gave up, so its
// context is a number to look up here and not the address of something that ends with the wait.
class AwaitedBinds {
 public:
  // Never destroyed: a late callback may come as long as the process lives.
  static AwaitedBinds& instance() {
    static AwaitedBinds& binds = *new AwaitedBinds;
    return binds;
  }

  void* open() {
    const std::lock_guard<std::mutex> lock(m_mutex);
    const std::uintptr_t number = ++m_last_number;
    m_binds.emplace(number, ServiceBindContext{});
    return reinterpret_cast<void*>(number);  // NOLINT(performance-no-int-to-ptr): never dereferenced
  }

  // Does nothing when the wait is over, or another callback was first. The handle then stays bound: libvesk may unbind
  // the service instead of the handle, and cut the connection that a later attempt made.
  void deliver(void* context, vesk_handle handle) {
    const std::lock_guard<std::mutex> lock(m_mutex);
    const auto bind = m_binds.find(reinterpret_cast<std::uintptr_t>(context));
    if (bind == m_binds.end() || bind->second.ready) return;
    bind->second = {handle, true};
  }

  bool ready(void* context) const {
    const std::lock_guard<std::mutex> lock(m_mutex);
    return m_binds.at(reinterpret_cast<std::uintptr_t>(context)).ready;
  }

  // Ends the wait. Returns the handle if it has come.
  std::optional<vesk_handle> close(void* context) {
    const std::lock_guard<std::mutex> lock(m_mutex);
    const auto bind = m_binds.extract(reinterpret_cast<std::uintptr_t>(context));
    if (!bind.mapped().ready) return std::nullopt;
    return bind.mapped().handle;
  }

 private:
  AwaitedBinds() = default;

  mutable std::mutex m_mutex;
  std::uintptr_t m_last_number ORVEL_GUARDED_BY(m_mutex) = 0;
  std::unordered_map<std::uintptr_t, ServiceBindContext> m_binds ORVEL_GUARDED_BY(m_mutex);
};

}  // namespace

void service_bind_callback(void* /*runtime*/, void* context, const char* name, vesk_handle handle) {
  s_binder_logger.i("%s:Received service_bind_callback from: %s", __func__, name);
  AwaitedBinds::instance().deliver(context, handle);
}

std::unique_ptr<vesk::IpcHandle> bind_to_orvel_service(void* runtime, const char* name) {
  AwaitedBinds& binds = AwaitedBinds::instance();
  void* const context = binds.open();
  const std::optional<int> error =
      run_unless_shut_down([&] { return vesk_service_bind(runtime, name, &service_bind_callback, context); });
  if (error != 0) {
    binds.close(context);
    if (error) s_binder_logger.e("%s:Failed to bind to %s with error %d", __func__, name, *error);
    return nullptr;
  }
  s_binder_logger.i("%s:Bound to service %s, waiting for service readiness", __func__, name);

  bool interrupted = false;
  for (int poll = 1; poll <= kReadinessPolls && !interrupted && !binds.ready(context); ++poll) {
    s_binder_logger.w("%s:Service %s is not ready yet, retrying in %lld seconds (attempt %d/%d)", __func__, name,
                      static_cast<long long>(kReadinessPollInterval.count()), poll, kReadinessPolls);
    interrupted = !waiting::sleep_for(kReadinessPollInterval);
  }

  const std::optional<vesk_handle> handle = binds.close(context);
  if (!handle) {
    if (!interrupted) s_binder_logger.e("%s:Bound service %s is not ready after timeout", __func__, name);
    return nullptr;
  }
  s_binder_logger.i("%s:Bound service %s is now ready", __func__, name);
  return std::make_unique<vesk::IpcHandle>(runtime, *handle);
}

std::unique_ptr<vesk::IpcHandle> bind_to_android_service(void* runtime, const char* name) {
  vesk_handle handle{};
  const std::optional<int> error =
      run_unless_shut_down([&] { return vesk_binder_servicemanager_get(runtime, name, &handle); });
  if (error != 0) {
    if (error) s_binder_logger.e("%s:Failed to bind to %s with error %d", __func__, name, *error);
    return nullptr;
  }
  s_binder_logger.i("%s:Bound to service: %s", __func__, name);
  return std::make_unique<vesk::IpcHandle>(runtime, handle);
}

}  // namespace orvel::service_apis

#include "sim/Endpoint.h"

#include <ctime>
#include <system_error>
#include <utility>

namespace orvel::sim {

Endpoint::Endpoint() : m_endpoint{&kFunctions, this} {}

const vesk_endpoint_fn Endpoint::kFunctions = {
    [](void*, vesk_endpoint* endpoint, unsigned code, vesk_identity* caller, vesk_buffer* request,
       vesk_payload* reply) { return static_cast<Endpoint*>(endpoint->context)->onCall(code, caller, request, reply); },
    [](void*, vesk_endpoint*, unsigned, vesk_identity*, vesk_buffer*) { return 1; },  // nothing here is called one-way
    [](void*, vesk_endpoint*) { return 0; },
    [](void*, vesk_endpoint*) { return 0; },
};

Timer::Timer(sd_event* event, std::chrono::milliseconds delay, std::function<void()> action)
    : m_action(std::move(action)) {
  const auto fire = [](sd_event_source*, std::uint64_t, void* self) noexcept {
    const auto due = std::move(static_cast<Timer*>(self)->m_action);
    due();
    return 0;
  };
  sd_event_source* source = nullptr;
  const auto microseconds = static_cast<std::uint64_t>(std::chrono::microseconds(delay).count());
  constexpr std::uint64_t kAccuracy = 1;  // microseconds; 0 would stand for a quarter of a second
  check(sd_event_add_time_relative(event, &source, CLOCK_MONOTONIC, microseconds, kAccuracy, fire, this),
        "adding a timer");
  m_source.reset(source);
}

void check(int result, const char* what) {
  if (result < 0) throw std::system_error(-result, std::generic_category(), what);
}

}  // namespace orvel::sim

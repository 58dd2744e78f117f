#include "device/Timer.h"

#include <systemd/sd-event.h>

#include <cstdint>
#include <utility>

#include "device/Endpoint.h"
#include "vesk/vesk_service.h"

namespace orvel::sim {

Clock::time_point Clock::now() {
  return std::chrono::steady_clock::now();
}

// The program waits for no series of timers.
Timer::Timer(void* runtime, std::chrono::milliseconds delay, std::function<void()> action, Series)
    : m_action(std::move(action)) {
  const auto fire = [](sd_event_source*, std::uint64_t, void* self) noexcept {
    const auto due = std::move(static_cast<Timer*>(self)->m_action);
    due();
    return 0;
  };
  sd_event_source* source = nullptr;
  // From this moment: sd-event's own relative timers count from when the run loop woke up, and end too early.
  const std::chrono::microseconds due =
      std::chrono::ceil<std::chrono::microseconds>(Clock::now().time_since_epoch()) + delay;
  constexpr std::uint64_t kAccuracy = 1;  // microseconds; 0 would stand for a quarter of a second
  check(sd_event_add_time(vesk_service_event(runtime), &source, CLOCK_MONOTONIC,
                          static_cast<std::uint64_t>(due.count()), kAccuracy, fire, this),
        "adding a timer");
  m_running.reset(source);
}

void Timer::Stop::operator()(void* running) const {
  sd_event_source_disable_unref(static_cast<sd_event_source*>(running));
}

}  // namespace orvel::sim

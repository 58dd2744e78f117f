#include "BusWatch.h"

#include <sys/epoll.h>

#include "Support.h"

namespace vesk {
namespace {

constexpr int kMessagesAtOnce = 8;

}  // namespace

void BusWatch::start(const Loop& loop, sd_bus* bus, OnEnd on_end, void* context) {
  m_loop = &loop;
  m_bus = bus;
  m_on_end = on_end;
  m_context = context;
  m_events = EPOLLIN;
  m_until = UINT64_MAX;
  m_reads_ahead = true;
  const auto on_io = [](sd_event_source*, int, std::uint32_t, void* self) {
    static_cast<BusWatch*>(self)->step();
    return 0;
  };
  const auto on_time = [](sd_event_source*, std::uint64_t, void* self) {
    auto* watch = static_cast<BusWatch*>(self);
    watch->m_until = UINT64_MAX;  // a timer that has run is off
    watch->step();
    return 0;
  };
  const auto on_more = [](sd_event_source*, void* self) {
    static_cast<BusWatch*>(self)->step();
    return 0;
  };
  sd_event_source* source = nullptr;
  check(sd_event_add_io(loop.event(), &source, check(sd_bus_get_fd(bus)), m_events, on_io, this));
  m_io.reset(source);
  check(sd_event_add_time(loop.event(), &source, CLOCK_MONOTONIC, UINT64_MAX, 0, on_time, this));
  m_time.reset(source);
  check(sd_event_source_set_enabled(source, SD_EVENT_OFF));
  check(sd_event_add_defer(loop.event(), &source, on_more, this));
  m_more.reset(source);
  check(sd_event_source_set_enabled(source, SD_EVENT_OFF));
  update();
}

void BusWatch::stop() {
  m_io.reset();
  m_time.reset();
  m_more.reset();
  m_bus = nullptr;
}

void BusWatch::update() {
  if (m_bus == nullptr || m_ending) return;
  std::uint64_t until = UINT64_MAX;
  const int events = sd_bus_get_events(m_bus);
  // Not open: it is about to close its descriptor, and must not be processed while m_io still watches that.
  if (sd_bus_is_open(m_bus) <= 0 || events < 0 || sd_bus_get_timeout(m_bus, &until) < 0) return end_soon();
  const bool more = until == 0 || (m_reads_ahead && sd_bus_is_ready(m_bus) > 0);
  watch_for(static_cast<std::uint32_t>(events), until == 0 ? UINT64_MAX : until, more);
}

void BusWatch::watch_for(std::uint32_t events, std::uint64_t until, bool more) {
  int result = 0;
  if (events != m_events) result = sd_event_source_set_io_events(m_io.get(), m_events = events);
  if (result >= 0 && more != m_is_more) {
    result = sd_event_source_set_enabled(m_more.get(), (m_is_more = more) ? SD_EVENT_ON : SD_EVENT_OFF);
  }
  if (result >= 0 && until != m_until) {
    if (until != UINT64_MAX) result = sd_event_source_set_time(m_time.get(), until);
    if (result >= 0) {
      result = sd_event_source_set_enabled(m_time.get(), until == UINT64_MAX ? SD_EVENT_OFF : SD_EVENT_ONESHOT);
    }
    m_until = until;
  }
  if (result < 0) end_soon();
}

void BusWatch::end_soon() {
  if (m_bus == nullptr || m_ending) return;
  m_ending = true;
  m_io.reset();
  m_time.reset();
  sd_event_source_set_enabled(m_more.get(), SD_EVENT_ON);
}

// A few messages at a time: each turn of the loop looks at every socket that is ready, and a peer that sends without
// end has to share it with the others.
void BusWatch::step() {
  if (m_ending) {
    sd_event_source_set_enabled(m_more.get(), SD_EVENT_OFF);
    return m_on_end(m_context);
  }
  int result = 1;
  for (int n = 0; n < kMessagesAtOnce && result > 0; ++n) {
    result = sd_bus_process(m_bus, nullptr);
    if (m_bus == nullptr) return;
    if (m_ending || m_loop->is_winding_down() || sd_bus_is_open(m_bus) <= 0) break;
  }
  if (result < 0) return end_soon();
  if (result == 0 && sd_bus_is_ready(m_bus) > 0) m_reads_ahead = false;
  update();
}

}  // namespace vesk

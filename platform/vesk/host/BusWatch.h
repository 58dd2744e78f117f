// One bus of the run loop's: what arrives on it is dispatched, and what a slow reader left is written once there is
// room.
#pragma once

#include <systemd/sd-bus.h>
#include <systemd/sd-event.h>

#include <cstdint>

#include "Loop.h"

namespace vesk {

// In place of sd_bus_attach_event, which has every bus asked what it waits for before every event of any of them: here
// a bus is asked after it was processed or sent on, so that its traffic costs the same beside none and beside hundreds.
//
//   start() --> watching --the bus broke, or end_soon()--> on_end, once, from the loop
//                  +----------stop(), also after that----> idle
//
// The loop's thread only. Nothing is thrown but by start().
class BusWatch {
 public:
  using OnEnd = void (*)(void* context);

  BusWatch() = default;
  BusWatch(const BusWatch&) = delete;
  BusWatch& operator=(const BusWatch&) = delete;

  // Borrows the loop and the bus until stop() or destruction. `on_end` may destroy the watch, and must not throw.
  void start(const Loop& loop, sd_bus* bus, OnEnd on_end, void* context);
  void stop();

  // To be called after anything was sent on the bus.
  void update();

  // Dispatches nothing more and calls on_end after what is being dispatched. Needs no memory.
  void end_soon();

 private:
  void step();
  void watch_for(std::uint32_t events, std::uint64_t until, bool more);

  const Loop* m_loop = nullptr;
  sd_bus* m_bus = nullptr;
  OnEnd m_on_end = nullptr;
  void* m_context = nullptr;
  SourcePtr m_io;
  SourcePtr m_time;
  SourcePtr m_more;            // runs where the socket need not become ready first
  std::uint32_t m_events = 0;  // that m_io waits for
  std::uint64_t m_until = 0;   // when m_time runs; UINT64_MAX for never
  bool m_is_more = false;      // whether m_more runs
  bool m_reads_ahead = false;  // messages may have been read with the handshake; the socket will not tell of them
  bool m_ending = false;
};

}  // namespace vesk

// Runs one program of public calls against services, deaths, notifications and time that the choices decide.
#pragma once

#include <cstddef>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "Choices.h"
#include "Trace.h"
#include "support/Vesk.h"
#include "support/VirtualClock.h"

namespace orvel::test::simulation {

// One thread decides at a time, so that the same choices give the same trace: the run loop works only while the
// caller's thread waits for it, and what happens inside waits, calls and callbacks happens on the thread that is there.
// At most one further thread exists, which calls shutdown() and then waits for the others.
class World {
 public:
  // Both references are borrowed.
  World(Choices& choices, Trace& trace);
  World(const World&) = delete;
  World& operator=(const World&) = delete;

  // The whole program; the client is shut down afterwards.
  void run();

  // What libvesk is still owed.
  [[nodiscard]] Live live() const { return m_vesk.live(); }
  // Callbacks that the client or libvesk still holds.
  [[nodiscard]] long callbacks() const { return m_callbacks.use_count() - 1; }
  [[nodiscard]] std::vector<std::string> bindings() const { return m_vesk.bindings(); }

 private:
  // What the client is in the middle of when something happens to it.
  enum class During { kNothing, kStart, kRebind, kCall, kCallback };

  // An endpoint that a service got, and the notices that fit it.
  struct Sent {
    std::weak_ptr<const void> transfer;
    std::vector<int> notices;
  };

  void record(Event event) { m_trace.push_back(std::move(event)); }

  void disturb(During during);
  void act(During during);
  void change_services();
  void start(int service);
  void kill(int service);
  void complete(int service);
  void notify();
  void stop();
  void finish_stop();
  void drain();

  int some_method();
  void call(int row);
  std::string perform(int row, int callback);
  void heard(int callback, const std::string& values);
  void slept();
  Reply answer(int service, const Transaction& call);

  Choices& m_choices;
  Trace& m_trace;
  InprocessVesk m_vesk;
  VirtualClock m_clock;
  std::vector<Sent> m_sent;
  const std::shared_ptr<int> m_callbacks = std::make_shared<int>();  // each callback holds it too
  int m_calls = 0;
  bool m_running = false;  // the client is initialised
  bool m_starting = false;
  int m_depth = 0;
  int m_budget = 150;  // of what may happen in between
  bool m_stopping = false;
  std::thread m_stopper;
};

}  // namespace orvel::test::simulation

// Runs one program of public calls against services, deaths, notifications and time that the choices decide.
#pragma once

#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "Choices.h"
#include "Program.h"
#include "support/Vesk.h"
#include "support/VirtualClock.h"

namespace orvel::fuzz {

// One thread decides at a time, so that the same choices give the same trace: the run loop works only while the caller's
// thread waits for it, and what happens inside waits, calls and callbacks happens on the thread that is there. The one
// further thread that there may be calls shutdown() and then waits for the others.
class World {
 public:
  // With `lines`, the trace has the log lines of every level. All three are borrowed.
  World(Choices& choices, Trace& trace, bool lines);
  ~World();
  World(const World&) = delete;
  World& operator=(const World&) = delete;

  // The whole program; the client is shut down afterwards.
  void run();

  // What libvesk is still owed.
  [[nodiscard]] test::Live live() const { return m_vesk.live(); }
  // Callbacks that somebody still holds.
  [[nodiscard]] long callbacks() const { return m_callbacks.use_count() - 1; }
  [[nodiscard]] std::vector<std::string> bindings() const { return m_vesk.bindings(); }

 private:
  // What the client is in the middle of when something happens to it.
  enum class During { kNothing, kStart, kRebind, kCall, kCallback };

  struct Sent {
    std::weak_ptr<const void> transfer;
    int service;
    unsigned code;
  };

  void record(Event event);

  void disturb(During during);
  void act(During during);
  void change_services();
  void start(int service);
  void kill(int service);
  void notify();
  void stop();
  void finish_stop();

  void call();
  Call some_call();
  std::string perform(const Call& call);
  void heard(int callback, const std::string& arguments);

  void slept();
  test::Reply answer(int service, const test::Transaction& call);
  test::Bytes answer_to(int service, unsigned code);
  test::Bytes damaged(test::Bytes message);

  std::string some_text();
  test::Bytes some_texts(int least, int most);
  test::Bytes some_entries(bool with_longs);
  test::Bytes some_notification(int service, unsigned code);

  Choices& m_choices;
  Trace& m_trace;
  test::InprocessVesk m_vesk;
  test::VirtualClock m_clock;
  std::vector<Sent> m_sent;
  const std::shared_ptr<int> m_callbacks = std::make_shared<int>();  // each callback holds it too
  bool m_running = false;                                            // the client is initialised
  bool m_starting = false;
  int m_depth = 0;
  int m_budget = 150;  // of what may happen in between
  bool m_stopping = false;
  std::thread m_stopper;
  std::vector<Event> m_stopper_events;
};

}  // namespace orvel::fuzz

#include "client/PendingEvents.h"

#include <algorithm>
#include <exception>
#include <utility>

#include "binder/LinkBoard.h"
#include "client/ClientState.h"

namespace orvel::service_apis {
namespace {

std::atomic<bool> g_quiet{false};

}  // namespace

bool PendingEvent::tell(const EventOutcome& outcome) {
  if (!close()) return false;
  m_callback(outcome);
  return true;
}

bool PendingEvent::tell_beside(const EventOutcome& outcome) noexcept {
  try {
    return tell(outcome);
  } catch (const std::exception& error) {
    s_client_logger.e("%s:A callback for the outcome of an event threw: %s", "tell", error.what());
  } catch (...) {
    s_client_logger.e("%s:A callback for the outcome of an event threw", "tell");
  }
  return true;
}

void PendingEvent::lose() noexcept {
  if (!g_quiet) tell_beside({"LOST", true});
}

EventHolder::Held::~Held() {
  event->lose();
}

PendingEvents::PendingEvents(LibraryThreads& threads) : m_threads(threads) {
  LinkBoard::instance().record(Service::kEvents).at_death([this] { lose_all(); });
}

void PendingEvents::await(const PendingEventPtr& event, std::chrono::nanoseconds deadline) {
  const Disposal disposal;
  {
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_accepted.remove_if([](const auto& each) {
      const PendingEventPtr other = each.lock();
      return !other || other->is_over();
    });
    m_accepted.push_back(event);
  }
  // A death that came before, between the service's answer and this, has not lost it.
  const LinkState link = LinkBoard::instance().record(Service::kEvents).state();
  if (link == LinkState::kAway || link == LinkState::kGivenUp) event->lose();
  if (deadline.count() > 0) limit(event, deadline);
}

void PendingEvents::lose_all() {
  std::list<std::weak_ptr<PendingEvent>> lost;
  {
    const std::lock_guard<std::mutex> lock(m_mutex);
    lost.swap(m_accepted);
  }
  for (const auto& each : lost) {
    if (const PendingEventPtr event = each.lock()) event->lose();
  }
}

void PendingEvents::keep_quiet() {
  g_quiet = true;
}

void PendingEvents::limit(const PendingEventPtr& event, std::chrono::nanoseconds deadline) {
  const std::lock_guard<std::mutex> lock(m_mutex);
  if (event->is_over()) return;
  m_deadlines.emplace(waiting::now() + deadline, event);
  if (m_bell) m_bell->ring();
  if (!m_is_watched) m_is_watched = m_threads.start("orvel-events", [this] { watch(); });
}

void PendingEvents::forget(const PendingEvent& event) {
  PendingEventPtr over;  // destroyed behind the lock
  const std::lock_guard<std::mutex> lock(m_mutex);
  const auto found = std::find_if(m_deadlines.begin(), m_deadlines.end(),
                                  [&](const auto& deadline) { return deadline.second.get() == &event; });
  if (found == m_deadlines.end()) return;
  over = std::move(found->second);
  m_deadlines.erase(found);
  if (m_bell) m_bell->ring();
}

void PendingEvents::watch() {
  waiting::Bell bell;
  while (const std::optional<Deadline> next = next_deadline(bell)) {
    const std::chrono::nanoseconds left = next->first - waiting::now();
    if (left.count() > 0) {
      static_cast<void>(bell.wait(left));
    } else {
      next->second->tell_beside({"TIMEOUT", true});
      forget(*next->second);
    }
  }
}

std::optional<PendingEvents::Deadline> PendingEvents::next_deadline(waiting::Bell& bell) {
  const Disposal disposal;
  const std::lock_guard<std::mutex> lock(m_mutex);
  m_bell = &bell;
  if (!m_deadlines.empty() && !waiting::interrupted()) return *m_deadlines.begin();
  m_bell = nullptr;
  m_is_watched = false;
  m_deadlines.clear();
  return std::nullopt;
}

}  // namespace orvel::service_apis

#include "binder/LinkBoard.h"

#include <algorithm>
#include <exception>
#include <thread>
#include <utility>

#include "binder/OrvelLogger.h"
#include "binder/Process.h"

namespace orvel::service_apis {
namespace {

const OrvelLogger s_logger("LinkBoard");

}  // namespace

// ---- One link ----

LinkRecord& LinkRecord::unlisted() {
  static LinkRecord& instance = *new LinkRecord(Service::kDelegate);
  return instance;
}

LinkRecord::LinkRecord(Service service) {
  m_link.service = service;
  m_link.cause = "the client is not initialised";
}

Link LinkRecord::get() const {
  const std::lock_guard<std::mutex> lock(m_mutex);
  return m_link;
}

void LinkRecord::change_to(LinkState state, const char* cause) {
  m_link.state = state;
  m_link.cause = cause;
  m_link.since = waiting::now();
  m_state = state;
}

bool LinkRecord::look_for() {
  {
    const std::lock_guard<std::mutex> lock(m_mutex);
    if (m_link.state != LinkState::kStopped && m_link.state != LinkState::kGivenUp) return false;
    change_to(m_has_been_up ? LinkState::kAway : LinkState::kConnecting, "the service is looked for");
  }
  LinkBoard::instance().wake_waiting();
  return true;
}

std::uint64_t LinkRecord::bound() {
  const std::lock_guard<std::mutex> lock(m_mutex);
  m_is_bound = true;
  m_link.restored = 0;
  m_link.refused = 0;
  m_epoch = ++m_link.epoch;
  return m_link.epoch;
}

void LinkRecord::renewed(std::size_t restored, std::size_t refused) {
  const std::lock_guard<std::mutex> lock(m_mutex);
  m_link.restored += restored;
  m_link.refused += refused;
}

void LinkRecord::up(std::uint64_t epoch) {
  {
    const std::lock_guard<std::mutex> lock(m_mutex);
    if (!m_is_bound || m_link.epoch != epoch) return;
    m_has_been_up = true;
    change_to(LinkState::kUp, "");
  }
  LinkBoard::instance().wake_waiting();
}

void LinkRecord::died() {
  {
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_is_bound = false;
    if (m_network != 0) m_link.network_lost = true;
    hold_network(0);
    change_to(LinkState::kAway, "the service has died");
  }
  LinkBoard::instance().wake_waiting();
}

void LinkRecord::given_up(const char* cause) {
  {
    const std::lock_guard<std::mutex> lock(m_mutex);
    change_to(LinkState::kGivenUp, cause);
  }
  LinkBoard::instance().wake_waiting();
}

void LinkRecord::stopped() {
  {
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_is_bound = false;
    m_network = 0;
    m_link.network_lost = false;
    m_link.held = 0;
    m_has_been_up = false;
    ++m_life;
    change_to(LinkState::kStopped, "the client is not initialised");
  }
  LinkBoard::instance().wake_waiting();
}

std::uint64_t LinkRecord::hold() {
  const std::lock_guard<std::mutex> lock(m_mutex);
  ++m_link.held;
  return m_life;
}

void LinkRecord::let_go(std::uint64_t life) {
  const std::lock_guard<std::mutex> lock(m_mutex);
  if (life == m_life) --m_link.held;
}

void LinkRecord::hold_network(std::uint64_t number) {
  if (m_network != 0) --m_link.held;
  if (number != 0) ++m_link.held;
  m_network = number;
}

void LinkRecord::network_taken(std::uint64_t epoch, std::uint64_t number) {
  const std::lock_guard<std::mutex> lock(m_mutex);
  m_link.network_lost = !m_is_bound || m_link.epoch != epoch;
  hold_network(m_link.network_lost ? 0 : number);
}

void LinkRecord::network_ended(std::uint64_t number) {
  const std::lock_guard<std::mutex> lock(m_mutex);
  if (number == m_network) hold_network(0);
}

// ---- Those who want to know ----

// One subscription to links.
class LinkBoard::Listener {
 public:
  Listener(std::optional<Service> service, LinkCallback callback)
      : m_service(service), m_callback(std::move(callback), "subscribeLink", Callback::Lasts::kBeyond) {}

  const std::shared_ptr<Callback>& callback() const { return m_callback.shared(); }

  void catch_up(LinkBoard& board) ORVEL_EXCLUDES(m_mutex) {
    if (!begin_telling()) return;
    while (const std::optional<Link> link = next_or_end(board)) tell(*link);
  }

 private:
  // True when this thread is to tell; false when another one does, or this one further up: that goes on until it has
  // told everything.
  bool begin_telling() ORVEL_EXCLUDES(m_mutex) {
    const std::lock_guard<std::mutex> lock(m_mutex);
    const std::thread::id self = std::this_thread::get_id();
    // Not in a callback, where two threads could wait for each other.
    const bool waits = on_library_thread() && !RunGate::inside_one();
    while (waits && m_teller != std::thread::id() && m_teller != self) m_idle.wait(m_mutex);
    if (m_teller != std::thread::id()) return false;
    m_teller = self;
    return true;
  }

  // What this thread has to tell next; it is done when there is nothing.
  std::optional<Link> next_or_end(LinkBoard& board) ORVEL_EXCLUDES(m_mutex) {
    const std::lock_guard<std::mutex> lock(m_mutex);
    const std::optional<Link> link = next(board);
    if (link) return link;
    m_teller = {};
    m_idle.notify_all();
    return std::nullopt;
  }

  // A link that has changed since it was told.
  std::optional<Link> next(LinkBoard& board) ORVEL_REQUIRES(m_mutex) {
    for (const Service service : kAllServices) {
      if (m_service && *m_service != service) continue;
      const Link now = board.record(service).get();
      std::optional<Link>& told = m_told.at(static_cast<std::size_t>(service));
      if (told && told->state == now.state && told->epoch == now.epoch) continue;
      told = now;
      return now;
    }
    return std::nullopt;
  }

  void tell(const Link& link) const {
    try {
      m_callback(link);
    } catch (const std::exception& error) {
      s_logger.e("%s:A callback for links threw: %s", __func__, error.what());
    } catch (...) {
      s_logger.e("%s:A callback for links threw", __func__);
    }
  }

  const std::optional<Service> m_service;
  const SharedCallback<LinkCallback> m_callback;
  std::mutex m_mutex;
  waiting::Condition m_idle;
  std::thread::id m_teller ORVEL_GUARDED_BY(m_mutex);
  std::array<std::optional<Link>, kAllServices.size()> m_told ORVEL_GUARDED_BY(m_mutex);
};

// Never destroyed: exit handlers use it.
LinkBoard& LinkBoard::instance() {
  static LinkBoard& board = *new LinkBoard;
  return board;
}

LinkBoard::LinkBoard() {
  for (const Service service : kAllServices) {
    m_records.at(static_cast<std::size_t>(service)) = std::make_unique<LinkRecord>(service);
  }
}

std::shared_ptr<Callback> LinkBoard::subscribe(std::optional<Service> service, LinkCallback callback) {
  const auto listener = std::make_shared<Listener>(service, std::move(callback));
  listener->catch_up(*this);  // before other threads know it, so that it begins on this one
  {
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_listeners.push_back(listener);
  }
  listener->callback()->at_end([this, ended = std::weak_ptr<Listener>(listener)] {
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_listeners.erase(std::remove(m_listeners.begin(), m_listeners.end(), ended.lock()), m_listeners.end());
  });
  listener->catch_up(*this);
  return listener->callback();
}

void LinkBoard::tell() {
  if (in_forked_child()) return;  // whose callbacks belong to the parent
  std::vector<std::shared_ptr<Listener>> listeners;
  {
    const std::lock_guard<std::mutex> lock(m_mutex);
    listeners = m_listeners;
  }
  for (const auto& listener : listeners) listener->catch_up(*this);
}

LinkBoard::Waited LinkBoard::wait(const std::function<bool()>& wanted, std::chrono::nanoseconds limit) {
  const waiting::TimePoint start = waiting::now();
  waiting::Bell changed;
  {
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_waiting.push_back(&changed);
  }
  bool goes_on = true;
  while (!wanted() && goes_on) goes_on = changed.wait(limit - (waiting::now() - start));
  const bool is_late = waiting::now() - start >= limit;
  const std::lock_guard<std::mutex> lock(m_mutex);
  m_waiting.erase(std::remove(m_waiting.begin(), m_waiting.end(), &changed), m_waiting.end());
  if (wanted()) return Waited::kWanted;
  return is_late ? Waited::kLate : Waited::kInterrupted;
}

void LinkBoard::wake_waiting() {
  const std::lock_guard<std::mutex> lock(m_mutex);
  for (waiting::Bell* bell : m_waiting) bell->ring();
}

LinkBoard::Restoring::Restoring() {
  ++LinkBoard::instance().m_restoring;
}

LinkBoard::Restoring::~Restoring() {
  LinkBoard& board = LinkBoard::instance();
  const std::lock_guard<std::mutex> lock(board.m_mutex);
  if (--board.m_restoring == 0) board.m_restored.notify_all();
}

void LinkBoard::wait_until_restored() {
  if (m_restoring == 0) return;
  const std::lock_guard<std::mutex> lock(m_mutex);
  while (m_restoring > 0) m_restored.wait(m_mutex);
}

}  // namespace orvel::service_apis

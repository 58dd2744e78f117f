#include "tools/orvel-sim/host/WebStreams.h"

#include <algorithm>
#include <chrono>
#include <deque>
#include <iterator>
#include <utility>

#include "device/Service.h"
#include "device/Shape.h"
#include "device/Traffic.h"
#include "tools/cli/Text.h"
#include "tools/orvel-sim/host/Supervisor.h"

namespace orvel::sim {
namespace {

using std::chrono::milliseconds;

constexpr std::size_t kMostStreams = 100;
// How much a page is sent, and how often: 300 entries a second are more than a person reads, and each page that is open
// makes the others a little slower, not the calls.
constexpr milliseconds kBetweenSends(60);
constexpr milliseconds kMoreForEachPage(2);
constexpr std::size_t kMostAtOnce = 20;
constexpr std::size_t kMostBytesAtOnce = 64 << 10;
// Pages take turns, so that no call waits for all of them.
constexpr milliseconds kBetweenTurns(4);
constexpr std::size_t kMostInTurn = 2;
// What waits for one page; of more only the newest are left, so that it is not far behind.
constexpr std::size_t kMostWaiting = 200;
constexpr std::size_t kMostBytesWaiting = 1 << 20;
constexpr milliseconds kBetweenStatuses(500);
// That a browser has gone shows only when something is sent to it, and that the device was suspended when nothing
// comes.
constexpr std::chrono::seconds kMostSilence(5);

std::string eventOf(const char* name, const std::string& data) {
  return std::string("event: ") + name + "\ndata: " + data + "\n\n";
}

std::string textOf(const Json& json) {
  return json.dump(-1, ' ', false, Json::error_handler_t::replace);
}

std::shared_ptr<const std::string> eventOf(const Json& entry) {
  return std::make_shared<const std::string>("id: " + entry.at("number").dump() + "\n" +
                                             eventOf("entry", textOf(entry)));
}

std::vector<std::string> valuesOf(const HttpRequest& request, const char* name) {
  std::vector<std::string> values;
  const auto [begin, end] = request.parameters.equal_range(name);
  for (auto value = begin; value != end; ++value) values.push_back(value->second);
  return values;
}

// Throws ScenarioError for what is not a number.
std::optional<double> numberOf(const HttpRequest& request, const char* name) {
  const auto text = HttpRequest::only(request.parameters, name);
  if (!text) return std::nullopt;
  const Json number = Json::parse(*text, nullptr, /*allow_exceptions=*/false);
  if (number.is_number() && number >= 0) return number.get<double>();
  throw ScenarioError(std::string(name) + ": expected a number, not '" + *text + "'");
}

// Throws ScenarioError, with the name that may be meant.
TrafficFilter trafficFilterOf(const HttpRequest& request) {
  TrafficConditions conditions;
  conditions.names = valuesOf(request, "name");
  conditions.notNames = valuesOf(request, "not");
  conditions.clients = valuesOf(request, "client");
  conditions.failed = request.parameters.count("failed") != 0;
  conditions.faulted = request.parameters.count("faulted") != 0;
  conditions.slowerThan = numberOf(request, "slower");
  try {
    return TrafficFilter(std::move(conditions));
  } catch (const UnknownName& error) {
    throw ScenarioError(error.what() + cli::didYouMean(error.name, error.known));
  }
}

// The scalar values of the services and the settings, which the page sets: but for those that are long, and no more
// than a page can show.
Json settable(const Json& scenario) {
  constexpr std::size_t kLongest = 500;
  constexpr std::size_t kMostSettings = 50;
  const auto isShort = [](const Json& value) {
    return !value.is_structured() && (!value.is_string() || value.get_ref<const std::string&>().size() <= kLongest);
  };
  Json values = Json::object();
  for (const ServiceType* type : allServices()) {
    const Json& section = scenario.at(type->id);
    for (const Field& field : type->fields) {
      const auto value = section.find(field.key);
      if (value != section.end() && isShort(*value)) values[type->id][field.key] = *value;
    }
  }
  Json settings = Json::object();
  const Json& all = scenario.at("delegate").at("settings");
  for (const auto& [key, value] : all.items()) {
    if (settings.size() < kMostSettings && key.size() <= kLongest && isShort(value)) settings[key] = value;
  }
  return {{"values", values}, {"settings", settings}, {"otherSettings", all.size() - settings.size()}};
}

// What is wrong with a filter, which a browser shows only out of a stream.
class Refusal : public HttpStream {
 public:
  explicit Refusal(std::string text) : m_text(std::move(text)) {}
  std::optional<std::string> next() override { return std::exchange(m_text, std::nullopt); }

 private:
  std::optional<std::string> m_text;
};

}  // namespace

// Looks at each entry once for all pages that have it.
class WebStreams::Filter {
 public:
  explicit Filter(TrafficFilter filter) : m_filter(std::move(filter)) {}

  bool matches(std::uint64_t number, const TrafficFacts& entry) {
    if (std::exchange(m_number, number) != number) m_isMatch = m_filter.matches(entry);
    return m_isMatch;
  }

 private:
  TrafficFilter m_filter;
  std::uint64_t m_number = 0;  // of the entry that it saw last; none has 0
  bool m_isMatch = false;
};

// One page.
class WebStreams::Stream : public HttpStream {
 public:
  Stream(WebStreams& streams, const std::shared_ptr<HttpExchange>& exchange, std::shared_ptr<Filter> filter)
      : m_streams(streams), m_exchange(exchange), m_filter(std::move(filter)) {
    m_streams.m_streams.push_back(this);
  }
  ~Stream() override {
    auto& all = m_streams.m_streams;
    all.erase(std::find(all.begin(), all.end(), this));
  }
  Stream(const Stream&) = delete;
  Stream& operator=(const Stream&) = delete;

  bool matches(std::uint64_t number, const TrafficFacts& entry) const { return m_filter->matches(number, entry); }

  void add(Event event) {
    m_bytes += event->size();
    m_waiting.push_back(std::move(event));
    if (m_waiting.size() <= kMostWaiting && m_bytes <= kMostBytesWaiting) return;
    for (; m_waiting.size() > kMostAtOnce; ++m_missed) removeFirst();
  }
  void addMissed(std::uint64_t count) { m_missed += count; }

  bool hasWaiting() const { return !m_waiting.empty(); }
  bool hasNews() const {
    return hasWaiting() || m_missed != 0 || m_statusSeen != m_streams.m_version || m_streams.m_isEnding ||
           Clock::now() - m_sent > kMostSilence;
  }
  bool isDue() const {
    const auto others = static_cast<int>(m_streams.m_streams.size());
    return hasNews() && Clock::now() - m_woken >= kBetweenSends + others * kMoreForEachPage;
  }
  void wake() {
    m_woken = Clock::now();
    m_isTurn = true;
    if (const auto exchange = m_exchange.lock()) exchange->wake();
  }

  std::optional<std::string> next() override {
    if (m_isOver) return std::nullopt;
    std::string text;
    if (!std::exchange(m_isTurn, false) && !m_streams.m_isEnding) return text;
    if (std::exchange(m_statusSeen, m_streams.m_version) != m_streams.m_version) text += m_streams.m_status;
    if (const std::uint64_t missed = std::exchange(m_missed, 0)) text += eventOf("missed", std::to_string(missed));
    for (std::size_t count = 0; hasWaiting() && count < kMostAtOnce && text.size() < kMostBytesAtOnce; ++count) {
      text += *m_waiting.front();
      removeFirst();
    }
    if (hasWaiting()) m_streams.wakeSoon();
    if (m_streams.m_isEnding) {
      text += eventOf("ended", "");
      m_isOver = true;
    }
    if (text.empty() && Clock::now() - m_sent > kMostSilence) text = eventOf("alive", "");
    if (!text.empty()) m_sent = Clock::now();
    return text;
  }

 private:
  void removeFirst() {
    m_bytes -= m_waiting.front()->size();
    m_waiting.pop_front();
  }

  WebStreams& m_streams;
  std::weak_ptr<HttpExchange> m_exchange;
  std::shared_ptr<Filter> m_filter;
  std::deque<Event> m_waiting;
  std::size_t m_bytes = 0;
  std::uint64_t m_missed = 0;
  std::uint64_t m_statusSeen = 0;
  Clock::time_point m_woken;
  Clock::time_point m_sent = Clock::now();
  bool m_isTurn = true;  // to be given something, once
  bool m_isOver = false;
};

WebStreams::~WebStreams() {
  m_supervisor.setWatcher(nullptr);
}

void WebStreams::open(const std::shared_ptr<HttpExchange>& exchange) {
  const HttpRequest& request = exchange->request();
  if (m_streams.size() >= kMostStreams) {
    return exchange->reply({MHD_HTTP_SERVICE_UNAVAILABLE, "text/plain", "too many pages are open\n"});
  }
  takeEntries();  // the new page gets them as the past
  std::unique_ptr<Stream> stream;
  const std::deque<Json>& traffic = m_supervisor.traffic();
  std::vector<const Json*> past;
  try {
    const auto most = static_cast<std::size_t>(numberOf(request, "past").value_or(static_cast<double>(traffic.size())));
    const auto after = static_cast<std::uint64_t>(numberOf(request, "after").value_or(0));
    stream = std::make_unique<Stream>(*this, exchange, filterFor(request));
    for (auto entry = traffic.rbegin(); entry != traffic.rend() && past.size() < most; ++entry) {
      const auto number = entry->at("number").get<std::uint64_t>();
      if (number > after && stream->matches(number, TrafficFacts(*entry))) past.push_back(&*entry);
    }
    const std::uint64_t first = traffic.empty() ? 0 : traffic.front().at("number").get<std::uint64_t>();
    if (after != 0 && first > after + 1) stream->addMissed(first - after - 1);
  } catch (const ScenarioError& error) {
    return exchange->stream(std::make_unique<Refusal>(eventOf("refused", textOf(error.what()))));
  }
  for (auto entry = past.rbegin(); entry != past.rend(); ++entry) {
    stream->add(eventOf(**entry));
  }
  exchange->stream(std::move(stream));
  if (m_streams.size() == 1) m_supervisor.setWatcher([this] { wakeSoon(); });
  if (!m_ticks) tick();
}

void WebStreams::end() {
  m_isEnding = true;
  m_ticks.reset();
  m_wake.reset();
}

std::shared_ptr<WebStreams::Filter> WebStreams::filterFor(const HttpRequest& request) {
  HttpRequest::Values chosen = request.parameters;
  for (const char* other : {"past", "after"}) chosen.erase(other);
  const std::string key = textOf(Json(chosen));
  if (auto known = m_filters[key].lock()) return known;
  for (auto each = m_filters.begin(); each != m_filters.end();) {
    each = each->second.expired() ? m_filters.erase(each) : std::next(each);
  }
  auto filter = std::make_shared<Filter>(trafficFilterOf(request));
  m_filters[key] = filter;
  return filter;
}

// What has come since: not while a call waits for its answer, and written as text once for all pages.
void WebStreams::takeEntries() {
  const std::deque<Json>& traffic = m_supervisor.traffic();
  auto entry = traffic.end();
  while (entry != traffic.begin() && std::prev(entry)->at("number") > m_taken) --entry;
  for (; entry != traffic.end(); ++entry) {
    const auto number = entry->at("number").get<std::uint64_t>();
    const std::uint64_t lost = number - std::exchange(m_taken, number) - 1;
    const TrafficFacts facts(*entry);
    Event event;
    for (Stream* stream : m_streams) {
      stream->addMissed(lost);
      if (!stream->matches(number, facts)) continue;
      if (!event) event = eventOf(*entry);
      stream->add(event);
    }
  }
}

// At once when nothing was sent lately.
void WebStreams::wakeSoon() {
  if (m_wake || m_isEnding) return;
  const auto since = std::chrono::duration_cast<milliseconds>(Clock::now() - m_woken);
  m_wake = std::make_unique<Timer>(m_supervisor.runtime(), std::max(milliseconds(0), kBetweenTurns - since), [this] {
    m_wake.reset();
    m_woken = Clock::now();
    wakeSome();
  });
}

void WebStreams::wakeSome() {
  takeEntries();
  std::size_t woken = 0;
  for (std::size_t count = m_streams.size(); count > 0 && woken < kMostInTurn; --count) {
    m_turn = (m_turn + 1) % m_streams.size();
    if (!m_streams[m_turn]->isDue()) continue;
    m_streams[m_turn]->wake();
    ++woken;
  }
  const auto hasNews = [](const Stream* stream) { return stream->hasNews(); };
  if (std::any_of(m_streams.begin(), m_streams.end(), hasNews)) wakeSoon();
}

void WebStreams::tick() {
  m_ticks.reset();
  if (m_streams.empty()) {
    m_status.clear();  // the next page is told how it is then
    return m_supervisor.setWatcher(nullptr);
  }
  if (!m_isAsking) askStatus();
  wakeSoon();
  m_ticks = std::make_unique<Timer>(
      m_supervisor.runtime(), kBetweenStatuses, [this] { tick(); }, Timer::Series::kEndless);
}

void WebStreams::askStatus() {
  m_isAsking = true;
  m_supervisor.wholeStatus([weak = std::weak_ptr<WebStreams*>(m_self)](const Json& status) {
    if (const auto self = weak.lock()) (*self)->takeStatus(status);
  });
}

void WebStreams::takeStatus(Json status) {
  m_isAsking = false;
  status.update(settable(m_supervisor.scenario()));
  std::string event = eventOf("status", textOf(status));
  if (event == m_status) return;
  m_status = std::move(event);
  ++m_version;
  wakeSoon();
}

}  // namespace orvel::sim

#include "device/Replay.h"

#include <algorithm>
#include <chrono>
#include <set>
#include <stdexcept>

#include "device/Traffic.h"

namespace orvel::sim {
namespace {

// From one attempt to the next to find a client that holds a namespace.
constexpr std::chrono::milliseconds kRetry(50);
// A file may say anything; a call limit ends the call long before.
constexpr double kLongestMs = 3'600'000;

// What stands for endpoints says only who sent them.
Json withoutEndpoints(const Method* method, Json arguments) {
  if (method == nullptr) return arguments;
  for (const Argument& argument : method->arguments) {
    if (argument.read == readEndpoint) arguments.erase(argument.name);
  }
  return arguments;
}

std::string keyOf(const Json& arguments) {
  return arguments.dump(-1, ' ', false, Json::error_handler_t::replace);
}

// The recorded outcome in the words of faults.
Json outcomeOf(const Json& entry, bool timing) {
  Json outcome = Json::object();
  for (const auto& [recorded, fault] : {std::pair{"reply", "reply"},
                                        {"exception", "exception"},
                                        {"error", "error"},
                                        {"truncatedTo", "truncateTo"},
                                        {"hangs", "hang"},
                                        {"drops", "drop"}}) {
    if (const auto value = entry.find(recorded); value != entry.end()) outcome[fault] = *value;
  }
  if (const auto exception = outcome.find("exception"); exception != outcome.end() && !exception->contains("trace")) {
    (*exception)["trace"] = "";
  }
  if (timing && entry.contains("durationMs")) {
    outcome["delayMs"] = static_cast<std::int64_t>(std::clamp(entry.at("durationMs").get<double>(), 0.0, kLongestMs));
  }
  return outcome;
}

// In microseconds. A request that a notification has caused comes within the same millisecond.
std::int64_t timeOf(const Json& entry) {
  const auto micros = entry.find("timeUs");
  return micros != entry.end() ? micros->get<std::int64_t>() : 1000 * entry.at("timeMs").get<std::int64_t>();
}

// When the request came.
std::int64_t startOf(const Json& entry) {
  const double lasted = std::clamp(entry.value("durationMs", 0.0), 0.0, kLongestMs);
  return timeOf(entry) - static_cast<std::int64_t>(1000 * lasted);
}

// The notifications that came while their client waited for a reply, each with the line of that request, which has its
// line later.
std::map<std::size_t, std::size_t> notificationsDuringCalls(const Recording& recording) {
  std::map<std::size_t, std::size_t> lines;
  std::map<std::int64_t, const RecordedEntry*> nextOf;  // by client
  for (auto recorded = recording.entries.rbegin(); recorded != recording.entries.rend(); ++recorded) {
    const Json& entry = recorded->entry;
    const RecordedEntry*& next = nextOf[entry.at("pid")];
    if (recorded->callback == nullptr) {
      next = &*recorded;
    } else if (next != nullptr && startOf(next->entry) < timeOf(entry)) {
      lines[recorded->line] = next->line;
    }
  }
  return lines;
}

}  // namespace

Replay::Replay(const Recording& recording, Options options) : m_options(options), m_masked(recording.masked) {
  const Places places = arrangeRequests(recording);
  arrangeNotifications(recording, places);
}

Replay::Places Replay::arrangeRequests(const Recording& recording) {
  Places places;
  for (const RecordedEntry& recorded : recording.entries) {
    if (recorded.callback != nullptr) continue;
    const Json& entry = recorded.entry;
    Json arguments = withoutEndpoints(recorded.method, entry.at("arguments"));
    Requests& requests = m_requests[{recorded.type->id, entry.at("code").get<unsigned>()}];
    const auto [known, isNew] = requests.byArguments.try_emplace(keyOf(arguments), requests.all.size());
    if (isNew) requests.all.push_back({std::move(arguments), {}, 0});
    std::vector<EndpointName> endpoints;
    for (const Json& number : entry.value("endpoints", Json::array())) {
      endpoints.emplace_back(entry.at("servicePid"), number);
    }
    std::vector<Answer>& answers = requests.all[known->second].answers;
    answers.push_back({outcomeOf(entry, m_options.timing), std::move(endpoints), {}, {}});
    places[recorded.line] = {&requests, known->second, answers.size() - 1, entry.at("timeMs")};
  }
  return places;
}

void Replay::arrangeNotifications(const Recording& recording, const Places& places) {
  std::set<EndpointName> brought;  // by requests
  for (const auto& [line, place] : places) {
    const std::vector<EndpointName>& endpoints = place.find()->endpoints;
    brought.insert(endpoints.begin(), endpoints.end());
  }
  const std::map<std::size_t, std::size_t> duringCalls = notificationsDuringCalls(recording);
  std::map<std::int64_t, Place> lastOf;  // by client
  for (const RecordedEntry& recorded : recording.entries) {
    const Json& entry = recorded.entry;
    const std::int64_t client = entry.at("pid");
    if (recorded.callback == nullptr) {
      lastOf[client] = places.at(recorded.line);
      continue;
    }
    Place& last = lastOf[client];
    Notified notified = {recorded.type, recorded.callback, entry.at("arguments"), {}, !entry.contains("endpoint"), {}};
    if (!notified.isDirective) {
      notified.endpoint = {entry.at("servicePid"), entry.at("endpoint")};
      if (brought.count(notified.endpoint) == 0)
        continue;  // registered before the recording began: it will not be there
    }
    if (const auto during = duringCalls.find(recorded.line); during != duringCalls.end()) {
      places.at(during->second).find()->before.push_back(std::move(notified));
      continue;
    }
    if (m_options.timing && last.timeMs != 0) {
      const auto since = static_cast<double>(entry.at("timeMs").get<std::int64_t>() - last.timeMs);
      notified.wait = std::chrono::milliseconds(static_cast<std::int64_t>(std::clamp(since, 0.0, kLongestMs)));
    }
    last.timeMs = entry.at("timeMs");
    Answer* const answer = last.find();
    (answer == nullptr ? m_first : answer->after).push_back(std::move(notified));
  }
}

void Replay::start(Host& host, std::function<void(const Json& directive)> direct) {
  m_host = &host;
  m_direct = std::move(direct);
  if (!m_first.empty()) schedule(m_due.insert(m_due.end(), {&m_first, 0, nullptr}));
}

void Replay::stop() {
  for (const auto& [name, endpoint] : m_endpoints) vesk_remote_on_gone(endpoint.get(), nullptr, nullptr);
  m_endpoints.clear();
  m_due.clear();
  m_retry.reset();
}

Json Replay::answerTo(const ServiceType& type, const Call& call) {
  Same* const same = find(type, call);
  if (same == nullptr) {
    const std::string method = call.method == nullptr ? "transaction " + std::to_string(call.code) : call.method->name;
    const Json arguments = withoutEndpoints(call.method, call.arguments);
    return {{"exception",
             {{"code", kIllegalStateException},
              {"message", "not in the recording: " + type.id + "." + method + describeArguments(arguments)},
              {"trace", ""}}}};
  }
  const Answer& answer = same->answers[same->next];
  if (same->next + 1 < same->answers.size()) {
    ++same->next;
  } else if (m_options.loop) {
    same->next = 0;
  }
  takeEndpoints(answer, call);
  for (const Notified& notified : answer.before) notify(notified);
  if (!answer.after.empty()) {
    const auto due = m_due.insert(m_due.end(), {&answer.after, 0, nullptr});
    const std::chrono::milliseconds late(answer.outcome.value("delayMs", std::int64_t{0}));
    due->timer = std::make_unique<Timer>(m_host->runtime(), late, [this, due] {
      due->timer.reset();
      schedule(due);
    });
  }
  return answer.outcome;
}

Replay::Same* Replay::find(const ServiceType& type, const Call& call) {
  const auto found = m_requests.find({type.id, call.code});
  if (found == m_requests.end()) return nullptr;
  Requests& requests = found->second;
  const Json arguments = withoutEndpoints(call.method, call.arguments);
  const auto equal = requests.byArguments.find(keyOf(arguments));
  if (equal != requests.byArguments.end()) return &requests.all[equal->second];
  if (!m_masked) return nullptr;
  for (Same& same : requests.all) {
    MetTexts met = m_met;
    if (!mayStandFor(same.arguments, arguments, met)) continue;
    m_met = std::move(met);
    return &same;
  }
  return nullptr;
}

void Replay::takeEndpoints(const Answer& answer, const Call& call) {
  const std::size_t count = std::min(answer.endpoints.size(), call.endpoints.size());
  for (std::size_t i = 0; i < count; ++i) {
    const RemotePtr& endpoint = call.endpoints[i];
    const auto gone = [](void* self, vesk_remote* which) { static_cast<Replay*>(self)->forget(which); };
    check(vesk_remote_on_gone(endpoint.get(), gone, this), "watching a client");
    m_endpoints[answer.endpoints[i]] = endpoint;
    const auto owed = m_owed.find(answer.endpoints[i]);
    if (owed == m_owed.end()) continue;
    const std::vector<const Notified*> late = std::move(owed->second);
    m_owed.erase(owed);
    for (const Notified* notified : late) notify(*notified);
  }
}

void Replay::forget(const vesk_remote* endpoint) {
  for (auto next = m_endpoints.begin(); next != m_endpoints.end();) {
    next = next->second.get() == endpoint ? m_endpoints.erase(next) : std::next(next);
  }
}

// Sends what is due at once, and comes back for the rest. A reply goes out before the run loop comes to its timers.
void Replay::schedule(std::list<Due>::iterator due) {
  while (due->next < due->notified->size()) {
    const Notified& notified = (*due->notified)[due->next];
    if (notified.wait.count() != 0 && !due->timer) {
      due->timer = std::make_unique<Timer>(m_host->runtime(), notified.wait, [this, due] { schedule(due); });
      return;
    }
    due->timer.reset();
    ++due->next;
    notify(notified);
  }
  m_due.erase(due);
}

void Replay::notify(const Notified& notified) {
  if (notified.isDirective) {
    m_directives[notified.arguments.at("namespace")].push_back(notified.arguments);
    if (!m_retry) direct();
    return;
  }
  const auto endpoint = m_endpoints.find(notified.endpoint);
  if (endpoint == m_endpoints.end()) {
    m_owed[notified.endpoint].push_back(&notified);
    return;
  }
  const auto notification =
      std::make_shared<const Notification>(notified.type->id, *notified.method, notified.arguments);
  m_host->deliveries().send(notification, {endpoint->second});
}

void Replay::direct() {
  m_retry.reset();
  for (auto next = m_directives.begin(); next != m_directives.end();) {
    std::deque<Json>& waiting = next->second;
    try {
      for (; !waiting.empty(); waiting.pop_front()) m_direct(waiting.front());
      next = m_directives.erase(next);
    } catch (const std::runtime_error&) {
      ++next;  // no client holds the namespace yet
    }
  }
  if (m_directives.empty()) return;
  m_retry = std::make_unique<Timer>(m_host->runtime(), kRetry, [this] { direct(); });
}

}  // namespace orvel::sim

#include "device/Trace.h"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <map>
#include <set>
#include <utility>

#include "device/Recording.h"
#include "device/Traffic.h"

namespace orvel::sim {
namespace {

using Pid = std::int64_t;

using Microseconds = std::int64_t;

// A line, and when it took place: since 1970 at first, and then since the beginning of the trace.
struct Event {
  const Json* line;
  Microseconds start;
  Microseconds end;
};

// Shorter ones are not seen, and an arrow must find something to begin at.
constexpr Microseconds kShortest = 1;
// Of what a damaged file may say.
constexpr double kLongest = 1e15;
constexpr Microseconds kLatest = 1'000'000'000'000'000'000;

bool isGap(const Json& line) {
  return line.contains("gap") && !line.contains(kLife);
}

bool isNeverAnswered(const Json& line) {
  return line.contains("hangs");
}

Microseconds endOf(const Json& line) {
  const Json& told = line.contains(kLife) ? line.at(kLife) : line;
  const auto exact = told.find("timeUs");
  const auto end = exact != told.end() ? exact->get<Microseconds>() : told.at("timeMs").get<Microseconds>() * 1000;
  return std::min(end, kLatest);
}

Microseconds lengthOf(const Json& line) {
  if (!line.contains("method") || isNeverAnswered(line)) return 0;
  return std::max(kShortest, Microseconds{std::llround(std::min(line.value("durationMs", 0.0) * 1000, kLongest))});
}

// In the order of their beginnings, what is inside something else behind it.
std::vector<Event> eventsOf(const std::vector<Json>& lines) {
  std::vector<Event> events;
  Microseconds next = 0;
  for (const Json& line : lines) next = isGap(line) ? next : endOf(line);
  Microseconds first = next;
  Microseconds last = 0;
  // Backwards, because a gap has no time: it is where the line behind it begins.
  for (auto line = lines.rbegin(); line != lines.rend(); ++line) {
    const Microseconds end = isGap(*line) ? next : endOf(*line);
    next = isGap(*line) ? next : end - lengthOf(*line);
    events.push_back({&*line, next, end});
    first = std::min(first, next);
    last = std::max(last, end);
  }
  std::reverse(events.begin(), events.end());
  for (Event& event : events) {
    if (isNeverAnswered(*event.line)) event.end = std::max(last, event.start + kShortest);
    event.start -= first;
    event.end -= first;
  }
  std::stable_sort(events.begin(), events.end(), [](const Event& a, const Event& b) {
    return a.start < b.start || (a.start == b.start && a.end > b.end);
  });
  return events;
}

// The name of a process: of a client its program's, of one of the device's the service's that it runs alone.
std::map<Pid, std::string> processesIn(const std::vector<Event>& events) {
  std::map<Pid, std::string> names;
  std::map<Pid, std::set<std::string>> services;
  for (const Event& event : events) {
    const Json& line = *event.line;
    if (line.contains(kLife)) services[line.at(kLife).at("pid")].insert(line.at(kLife).at("service"));
    if (line.contains("gap")) continue;
    services[line.at("servicePid")].insert(line.at("service"));
    const std::string program = line.value("client", std::string());
    names[line.at("pid")] = program.empty() ? "client" : program;
  }
  for (const auto& [pid, served] : services) names[pid] = served.size() == 1 ? *served.begin() : "device";
  return names;
}

class Trace {
 public:
  explicit Trace(const std::vector<Event>& events) {
    for (const Event& event : events) {
      if (m_device == 0 && !event.line->contains("gap")) m_device = event.line->at("servicePid");
    }
    for (const auto& [pid, name] : processesIn(events)) nameOf("process_name", pid, 0, name);
    for (const Event& event : events) {
      const Json& line = *event.line;
      if (line.contains(kLife)) {
        addLife(event, line.at(kLife));
      } else if (isGap(line)) {
        add("i", countedEntries(line.at("gap").at("entries")) + " missing", "gap", m_device, 0, event.start,
            {{"s", "g"}});
      } else if (line.contains("notification")) {
        addNotification(event);
      } else {
        addCall(event);
      }
    }
    countClients(events);
  }

  std::string text() && { return R"({"displayTimeUnit":"ms","traceEvents":[)" + std::move(m_text) + "\n]}\n"; }

 private:
  // A thread of the viewer's. What lies on it lies one behind or one in the other.
  struct Track {
    int tid;
    std::vector<Microseconds> ends;  // of what has not ended, the innermost last
  };

  void add(const char* kind, const std::string& name, const char* category, Pid pid, int tid, const Json& start,
           const Json& more) {
    Json event = {{"ph", kind}, {"name", name}, {"cat", category}, {"pid", pid}, {"tid", tid}, {"ts", start}};
    event.update(more);
    append(event);
  }

  void append(const Json& event) {
    m_text += (m_text.empty() ? "\n" : ",\n") + event.dump(-1, ' ', false, Json::error_handler_t::replace);
  }

  void nameOf(const char* what, Pid pid, int tid, const std::string& name) {
    append({{"ph", "M"}, {"name", what}, {"pid", pid}, {"tid", tid}, {"args", {{"name", name}}}});
  }

  // The name of the track of the thread that called. Recordings of older devices do not say which.
  static std::string threadOf(const Json& line) {
    const auto thread = line.find("thread");
    if (thread == line.end()) return "calls";
    return *thread == line.at("pid") ? "main thread" : "thread " + thread->dump();
  }

  // A track with that name, or with a number behind it, that has room.
  int trackFor(Pid pid, const std::string& name, const Event& event, bool mayNest) {
    std::vector<Track>& tracks = m_tracks[{pid, name}];
    for (Track& track : tracks) {
      while (!track.ends.empty() && track.ends.back() <= event.start) track.ends.pop_back();
      if (!track.ends.empty() && (!mayNest || track.ends.back() < event.end)) continue;
      track.ends.push_back(event.end);
      return track.tid;
    }
    tracks.push_back({++m_threads[pid], {event.end}});
    const std::string number = tracks.size() == 1 ? "" : " (" + std::to_string(tracks.size()) + ")";
    nameOf("thread_name", pid, tracks.back().tid, name + number);
    return tracks.back().tid;
  }

  void addCall(const Event& event) {
    const Json& line = *event.line;
    const Pid client = line.at("pid");
    const Pid service = line.at("servicePid");
    const std::string name = describeName(line);
    const int ofClient = trackFor(client, threadOf(line), event, /*mayNest=*/false);
    const int ofService = trackFor(service, line.at("service"), event, /*mayNest=*/true);
    const Microseconds took = event.end - event.start;
    add("X", name, "call", client, ofClient, event.start, {{"dur", took}, {"args", detailsOf(line)}});
    add("X", name, "service", service, ofService, event.start, {{"dur", took}});
    const Json flow = {{"id", ++m_flows}};
    add("s", "call", "flow", client, ofClient, event.start, flow);
    Json inside = flow;
    inside["bp"] = "e";
    add("t", "call", "flow", service, ofService, event.start, flow);
    constexpr double kBeforeTheEnd = 0.001;
    add("f", "call", "flow", client, ofClient, static_cast<double>(event.end) - kBeforeTheEnd, inside);
    for (const Json& fault : line.value("faults", Json::array())) {
      const std::string kind = faultKindCalled(fault.at("fault")).verb;
      add("i", kind + " on " + fault.at("method").get<std::string>(), "fault", service, ofService, event.start,
          {{"s", "t"}});
    }
  }

  void addNotification(const Event& event) {
    const Json& line = *event.line;
    const Pid client = line.at("pid");
    const int tid = trackFor(client, "notifications", event, /*mayNest=*/true);
    add("i", describeName(line), "notification", client, tid, event.start, {{"s", "t"}, {"args", detailsOf(line)}});
  }

  void addLife(const Event& event, const Json& life) {
    const std::string service = life.at("service");
    const int tid = trackFor(life.at("pid"), service, event, /*mayNest=*/true);
    const bool alive = life.at("alive");
    add("i", service + (alive ? " was started" : " died"), alive ? "start" : "death", life.at("pid"), tid, event.start,
        {{"s", "p"}});
  }

  static Json detailsOf(const Json& line) {
    Json details = Json::object();
    for (const char* key :
         {"number", "arguments", "reply", "exception", "error", "truncatedTo", "hangs", "drops", "faults"}) {
      if (line.contains(key)) details[key] = line.at(key);
    }
    return details;
  }

  // From the first to the last that is recorded of each.
  void countClients(const std::vector<Event>& events) {
    std::map<Pid, std::pair<Microseconds, Microseconds>> seen;
    for (const Event& event : events) {
      if (event.line->contains("gap")) continue;
      const auto [client, isNew] = seen.try_emplace(event.line->at("pid").get<Pid>(), event.start, event.end);
      if (!isNew) client->second.second = std::max(client->second.second, event.end);
    }
    std::multimap<Microseconds, int> changes;
    for (const auto& [pid, span] : seen) {
      changes.emplace(span.first, 1);
      changes.emplace(span.second, -1);
    }
    int count = 0;
    for (const auto& [time, change] : changes) {
      count += change;
      add("C", "clients", "clients", m_device, 0, time, {{"args", {{"clients", count}}}});
    }
  }

  std::string m_text;
  Pid m_device = 0;  // one of its processes, for what belongs to none
  std::map<std::pair<Pid, std::string>, std::vector<Track>> m_tracks;
  std::map<Pid, int> m_threads;  // how many a process has
  std::uint64_t m_flows = 0;
};

}  // namespace

std::string traceOf(const std::vector<Json>& lines) {
  return Trace(eventsOf(lines)).text();
}

}  // namespace orvel::sim

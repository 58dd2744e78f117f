// What pages are told as it happens, as server-sent events:
//
//   entry    an entry of the traffic that the page's filter has chosen; its number is the event's id
//   missed   how many of those the page did not get, because they came faster than it takes them
//   status   Supervisor::wholeStatus, "values" {service: {field: value}} and "settings", both but for what is long, and
//            how many "otherSettings" there are; when it has changed, at most twice a second
//   alive    there was nothing else for 5 s
//   refused  what is wrong with the filter; the stream ends
//   ended    the device has ended
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "device/Timer.h"
#include "device/TrafficFilter.h"
#include "device/Wire.h"
#include "tools/orvel-sim/host/HttpServer.h"

namespace orvel::sim {

class Supervisor;

// Run-loop thread. Costs nothing while no page is open.
class WebStreams {
 public:
  explicit WebStreams(Supervisor& supervisor) : m_supervisor(supervisor) {}
  ~WebStreams();
  WebStreams(const WebStreams&) = delete;
  WebStreams& operator=(const WebStreams&) = delete;

  // Answers with a stream of what the request's parameters choose: name, not, client (each any number of times),
  // failed, faulted, slower=MS; of the entries there are, the newest past=N, or those after=N. Or with an error.
  void open(const std::shared_ptr<HttpExchange>& exchange);

  // The device ends.
  void end();

 private:
  class Stream;
  class Filter;
  using Event = std::shared_ptr<const std::string>;

  std::shared_ptr<Filter> filterFor(const HttpRequest& request);
  void takeEntries();
  void wakeSome();
  void wakeSoon();
  void tick();
  void askStatus();
  void takeStatus(Json status);

  Supervisor& m_supervisor;
  std::vector<Stream*> m_streams;                          // owned by their exchanges
  std::map<std::string, std::weak_ptr<Filter>> m_filters;  // of the streams, by what they were made from
  bool m_isEnding = false;
  std::unique_ptr<Timer> m_wake;
  Clock::time_point m_woken;
  std::uint64_t m_taken = 0;  // the number of the newest entry that pages were given, or wait for
  std::size_t m_turn = 0;     // of m_streams
  std::unique_ptr<Timer> m_ticks;
  bool m_isAsking = false;
  std::string m_status;         // the event
  std::uint64_t m_version = 0;  // of the status
  // Of a question that is answered when this has gone.
  std::shared_ptr<WebStreams*> m_self = std::make_shared<WebStreams*>(this);
};

}  // namespace orvel::sim

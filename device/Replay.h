// A device that answers from a recording.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <list>
#include <map>
#include <memory>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

#include "device/Recording.h"
#include "device/Service.h"
#include "device/Timer.h"

namespace orvel::sim {

// Equal requests get the recorded answers in the order recorded and then the last one again, from any client and with
// any endpoints. A recorded notification is sent after a client repeats the request that preceded it in the recording,
// to the endpoint registered in place of the recorded one. Run-loop thread.
class Replay {
 public:
  struct Options {
    bool timing = false;  // answers and notifications take as long as they did
    bool loop = false;    // after the last answer comes the first again
  };

  Replay(const Recording& recording, Options options);
  Replay(const Replay&) = delete;  // its address is what vesk knows it by
  Replay& operator=(const Replay&) = delete;

  // `direct` takes a directive to the client that holds its namespace, and throws std::runtime_error while none does.
  void start(Host& host, std::function<void(const Json& directive)> direct);
  void stop();

  // How the call is to end, in the words of a service's faults; beside them "reply" is the result.
  Json answerTo(const ServiceType& type, const Call& call);

 private:
  // An endpoint in the recording: the process that served, and the number that it had there.
  using EndpointName = std::pair<std::int64_t, std::int64_t>;
  struct Notified {
    const ServiceType* type;
    const CallbackMethod* method;
    Json arguments;
    EndpointName endpoint;
    bool isDirective;
    std::chrono::milliseconds wait;  // after what was sent before it
  };
  struct Answer {
    Json outcome;
    std::vector<EndpointName> endpoints;
    std::vector<Notified> before;  // the reply
    std::vector<Notified> after;
  };
  // Requests that are equal.
  struct Same {
    Json arguments;
    std::vector<Answer> answers;
    std::size_t next = 0;
  };
  struct Requests {
    std::vector<Same> all;  // in the order of the first of each
    std::unordered_map<std::string, std::size_t> byArguments;
  };
  struct Due {
    const std::vector<Notified>* notified;
    std::size_t next;
    std::unique_ptr<Timer> timer;
  };

  // The answer to a recorded request.
  struct Place {
    Requests* requests = nullptr;  // null: before every request
    std::size_t same = 0;
    std::size_t answer = 0;
    std::int64_t timeMs = 0;

    Answer* find() const { return requests == nullptr ? nullptr : &requests->all[same].answers[answer]; }
  };
  using Places = std::map<std::size_t, Place>;  // by the line of the request

  Places arrangeRequests(const Recording& recording);
  void arrangeNotifications(const Recording& recording, const Places& places);
  Same* find(const ServiceType& type, const Call& call);
  void takeEndpoints(const Answer& answer, const Call& call);
  void schedule(std::list<Due>::iterator due);
  void notify(const Notified& notified);
  void direct();
  void forget(const vesk_remote* endpoint);

  Options m_options;
  bool m_masked;
  MetTexts m_met;
  std::map<std::pair<std::string, unsigned>, Requests> m_requests;  // by service and code
  std::vector<Notified> m_first;                                    // that followed no request
  Host* m_host = nullptr;
  std::function<void(const Json&)> m_direct;
  std::map<EndpointName, RemotePtr> m_endpoints;                // that took the place of those
  std::map<EndpointName, std::vector<const Notified*>> m_owed;  // until something does
  std::list<Due> m_due;
  std::map<std::string, std::deque<Json>> m_directives;  // by namespace, until a client holds it
  std::unique_ptr<Timer> m_retry;
};

}  // namespace orvel::sim

// What a run consists of: the calls that the program makes, what services send, and all that happened, in order.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "support/Methods.h"
#include "support/Vesk.h"

namespace orvel::test::simulation {

inline const char* name_of(int service) {
  return kServices.at(static_cast<std::size_t>(service));
}

constexpr std::array<const char*, 3> kNamespaces = {"N", "M", "O"};
// The name under which the broker finds the client's endpoint for a namespace.
inline std::string published_name(const std::string& nspace) {
  return "sim_broker_service_" + nspace + "_vesk_endpoint";
}

// The table of the public methods without those whose second request depends on an answer or whose callback may end,
// and behind it what only orders of events need: starting and stopping, an end of the network notifications by itself,
// and last a row of registerForDirective for each of kNamespaces.
const std::vector<Method>& methods();
const Method& method_at(int row);
int row_of(const std::string& name);

// One of the requests that a method makes.
struct RequestOf {
  const Method* method;
  const Request* request;

  // What it begins with on the wire; its endpoint would follow.
  [[nodiscard]] Bytes head() const;
};

// One message to an endpoint, and what its callback is told.
struct Notice {
  RequestOf to;  // the request that brings such an endpoint
  unsigned code;
  Bytes message;
  const char* told;
};
const std::vector<Notice>& notices();  // a directive is the last
const Notice& notice_at(int place);

enum class Kind {
  // What the run decided.
  kStart,     // a: service
  kKill,      // a: service
  kHold,      // a: service
  kComplete,  // a: service
  kSend,      // a: the transfer of the endpoint, -1 for the one named text; b: the notice
  kCall,      // a: row of the method, b: the number of its callback
  kDrain,     // the run loop runs what waits for it ...
  kDrained,   // ... all of it
  kReply,     // a: 0, or what the call fails with; kExceptionReply for an exception of the service
  kAwake,     // the end of a sleep
  kCallbackEnd,
  // What the client did.
  kSleep,     // a: seconds
  kRequest,   // a: service, b: code, bytes
  kCallback,  // a: callback, text: what it is told
  kReturn     // text
};
constexpr int kExceptionReply = 1;

struct Event {
  Kind kind;
  int a = 0;
  int b = 0;
  std::string text = {};
  Bytes bytes = {};
};
using Trace = std::vector<Event>;

std::string describe(const Event& event);
// The first `count` events, one a line.
std::string describe(const Trace& trace, std::size_t count);

// What is left when a run is over: names bound, unbound and published in their order, what libvesk is owed, callbacks
// that are still held, and whether the assistant is connected.
std::string describe_end(const std::vector<std::string>& bindings, const Live& live, long callbacks, bool maro);

// Runs one program of public calls against services, deaths, notifications and time that `seed` decides, the same on
// every machine, and adds all that happens to `trace`. The client is shut down afterwards. Returns describe_end().
std::string run_world(std::uint64_t seed, Trace& trace);

// What a caller of the client is promised: takes over what the run decided, and says in advance all that the client
// does. `pause` is how long a client waits after a death before it binds again, in seconds; `maro` says whether the
// assistant was connected before. Returns describe_end(); throws std::runtime_error with what was not as promised.
std::string model_end(const Trace& trace, int pause, bool maro);

}  // namespace orvel::test::simulation

// What a run consists of: the calls that the program makes, what services send, and all that happened, in order.
#pragma once

#include <array>
#include <cstddef>
#include <string>
#include <tuple>
#include <vector>

#include "support/Methods.h"
#include "support/Vesk.h"

namespace orvel::test::simulation {

// The table of the public methods, and behind it what only orders of events need: starting and stopping, an end of the
// network notifications by itself, and a row of registerForDirective for each of kNamespaces.
const std::vector<Method>& methods();
const Method& method_at(int row);
int row_of(const std::string& name);

// A request's code and arguments, as the row at `row` makes it; its endpoint would follow.
struct RequestOf {
  int row;
  int place;  // among the row's requests
};
Bytes head_of(const RequestOf& request);

// One message to an endpoint, and what its callback is told.
struct Notice {
  RequestOf to;  // the request that brings such an endpoint
  unsigned code;
  bool two_way;
  Bytes message;
  const char* told;  // null: nothing
};
const std::vector<Notice>& notices();

enum class Kind {
  // What the run decided.
  kStart,     // a: service
  kKill,      // a: service
  kRefuse,    // a: service, b: how often
  kHold,      // a: service
  kComplete,  // a: service
  kTakeName,  // text: a name that another process serves from now on
  kSend,      // a: the transfer of the endpoint, -1 for the one named text; b: the notice; flag: two-way
  kCall,      // a: row of the method, b: the number of its callback
  kStop,      // another thread begins a shutdown ...
  kStopped,   // ... which has ended
  kDrain,
  kDrained,      // the run loop runs what waits for it
  kReply,        // a: 0, or what the call fails with; kExceptionReply for an exception of the service
  kAwake,        // the end of a sleep
  kCallbackEnd,  // flag: it throws
  // What the client did.
  kSleep,     // a: seconds
  kRequest,   // a: service, b: code, bytes, flag: with an endpoint
  kCallback,  // a: callback, text: what it is told
  kReturn,    // text
  kAnswer     // a: result of a two-way call to an endpoint
};
constexpr int kExceptionReply = 1;

struct Event {
  Kind kind;
  int a = 0;
  int b = 0;
  std::string text = {};
  Bytes bytes = {};
  bool flag = false;

  // Whether all but the bytes is the same.
  bool is_like(const Event& other) const {
    return std::tie(kind, a, b, text, flag) == std::tie(other.kind, other.a, other.b, other.text, other.flag);
  }
};
using Trace = std::vector<Event>;

std::string describe(const Event& event);
// The first `count` events, one a line.
std::string describe(const Trace& trace, std::size_t count);

// The name under which the broker finds the client's endpoint for a namespace.
inline std::string published_name(const std::string& nspace) {
  return "sim_broker_service_" + nspace + "_vesk_endpoint";
}
constexpr std::array<const char*, 3> kNamespaces = {"N", "M", "O"};

}  // namespace orvel::test::simulation

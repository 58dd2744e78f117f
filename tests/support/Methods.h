// Every public method of the client as a row of a table: how to call it, what it asks of which service, what a good
// answer is, and what comes of it. Works on any libvesk, and with any test framework or none.
#pragma once

#include <array>
#include <functional>
#include <string>

#include "orvel/OrvelDelegateClient.h"
#include "support/Services.h"
#include "support/Vesk.h"

namespace orvel::test {

using Client = service_apis::OrvelDelegateClient;

// Told of each notification that a subscription brings, with its values as text: "true", "1,2". On the run-loop thread.
using Hear = std::function<void(const std::string& values)>;

// One request, as wire() reads texts. Behind the arguments of a subscription follows its endpoint.
struct Request {
  unsigned code = 0;  // 0: no request
  const char* arguments = "";
  const char* answer = "";  // a good one, behind its exception code
};

// Makes a call, always with the same arguments, and returns its result as text: "true", "[a][b]". Any thread.
using Call = std::function<std::string(Client& client, const Hear& hear)>;

struct Method {
  const char* name;  // as the header declares it; overloads have rows of their own
  Call call;
  int service;  // its place in kServices; kNoService when it asks none
  std::array<Request, 2> requests;
  const char* result;    // of good answers
  const char* failure;   // when every request fails, by an error or an exception
  const char* refused;   // when no request is made: the service is not bound, or the client not initialised
  bool renewed = false;  // whether the client makes it again after its service died

  static constexpr int kNoService = -1;
};

// Never destroyed: threads may call when main() has returned.
extern const std::array<Method, 56>& kMethods;

// The row of that name, the first of overloads. The name must be there.
const Method& method(const std::string& name);

// The reply of a service that works, exception code included; an empty success for a code that no method uses.
Bytes good_reply(const std::string& service, unsigned code);

// A whole request, without endpoint.
Bytes request(const char* interface, const Bytes& arguments = {});

}  // namespace orvel::test

// What this process offers to others over vesk.
#pragma once

#include "vesk/vesk.h"

namespace orvel::sim {

// Something that other processes call. It must outlive the run loop or be withdrawn first: vesk does not keep it alive.
class Endpoint {
 public:
  Endpoint();
  virtual ~Endpoint() = default;
  Endpoint(const Endpoint&) = delete;  // its address is what vesk knows it by
  Endpoint& operator=(const Endpoint&) = delete;

  vesk_endpoint* get() { return &m_endpoint; }

 protected:
  // One two-way call, on the run-loop thread. The result goes to the caller when it is an error.
  virtual int onCall(unsigned code, vesk_identity* caller, vesk_buffer* request, vesk_payload* reply) = 0;

 private:
  static const vesk_endpoint_fn kFunctions;

  vesk_endpoint m_endpoint;
};

// Throws std::system_error for a negative errno value, as vesk and sd-event give it; `what` says what was tried.
void check(int result, const char* what);

}  // namespace orvel::sim

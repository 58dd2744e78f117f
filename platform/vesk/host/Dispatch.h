// Calling out of this library for something that arrived. Run-loop thread.
#pragma once

#include <sys/types.h>

#include <exception>

#include "Wire.h"
#include "vesk/message/Message.h"

namespace vesk {
class IncomingRequest;
}

// Lives for one callback. `request` is null where no answer can be deferred.
struct vesk_identity {
  pid_t pid;
  pid_t thread;  // 0 where it is not known
  vesk::IncomingRequest* request;
};

namespace vesk {

// What vesk_get_runtime gives and every callback gets. It says nothing but that it is not null: there is one runtime.
void* runtime_address();

// A new reference to an endpoint of this process. What its functions throw is reported.
EndpointRef hold_endpoint(vesk_endpoint* endpoint);

// One link to a death: a reference to the callback, from death_acquire to death_release. Never destroyed while a lock
// of this library is held.
class DeathLink {
 public:
  explicit DeathLink(vesk_death_callback* callback);
  ~DeathLink();
  DeathLink(const DeathLink&) = delete;
  DeathLink& operator=(const DeathLink&) = delete;

  [[nodiscard]] const vesk_death_callback* callback() const { return m_callback; }
  void deliver(vesk_handle handle) const;  // run-loop thread

 private:
  vesk_death_callback* m_callback;
};

// Runs a callback of someone else. What it throws becomes one line on standard error: it must not pass through C
// frames.
template <typename Body>
void report_throw(const char* what, const Body& body) {
  try {
    body();
  } catch (const std::exception& error) {
    complain("%s threw: %s", what, error.what());
  } catch (...) {
    complain("%s threw something that is not an exception", what);
  }
}

// Runs endpoint_call, or endpoint_call_oneway where `reply` is null, and gives its result, an error code where it
// threw.
int call_endpoint(vesk_endpoint* endpoint, unsigned int code, vesk_identity* caller, vesk_buffer* request,
                  vesk_payload* reply);

// Answers `call`; the bytes of `reply` (which may be null) go along only when `status` is 0. -ENOBUFS when the caller
// does not read.
int send_answer(sd_bus_message* call, int status, const vesk_payload* reply, Outbox& outbox);

}  // namespace vesk

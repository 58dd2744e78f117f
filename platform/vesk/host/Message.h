// What stands behind the opaque messages of the C interface, and the counted references that travel in them.
#pragma once

#include <cstddef>
#include <memory>
#include <vector>

#include "vesk/message/Parcel.h"
#include "vesk/vesk.h"
#include "vesk/vesk_service.h"

namespace vesk {

// One reference to an endpoint of this process, taken by endpoint_acquire and dropped by endpoint_release on whatever
// thread lets go last. Never destroyed while a lock of this library is held, since that calls out.
class EndpointHold {
 public:
  explicit EndpointHold(vesk_endpoint* endpoint);
  ~EndpointHold();
  EndpointHold(const EndpointHold&) = delete;
  EndpointHold& operator=(const EndpointHold&) = delete;

  [[nodiscard]] vesk_endpoint* get() const { return m_endpoint; }

 private:
  vesk_endpoint* m_endpoint;
};

// Shared by a payload, a published name, an export and a callback in progress; the endpoint sees one reference for each
// payload write or registration.
using EndpointRef = std::shared_ptr<const EndpointHold>;

struct RemoteRelease {
  void operator()(vesk_remote* remote) const { vesk_remote_release(remote); }
};
// One counted reference to an endpoint of another process. Run-loop thread.
using RemoteRef = std::unique_ptr<vesk_remote, RemoteRelease>;

}  // namespace vesk

struct vesk_payload {
  vesk::Parcel parcel;
  std::vector<vesk::EndpointRef> endpoints;  // in the order of their marks in the parcel
};

struct vesk_buffer {
  vesk::Parcel parcel;
  std::vector<vesk::RemoteRef> remotes;  // in the order of the marks
};

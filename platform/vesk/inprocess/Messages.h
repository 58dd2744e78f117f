// What messages are in InprocessVesk, for what serves them inside the same process.
#pragma once

#include <memory>
#include <vector>

#include "vesk/message/Parcel.h"
#include "vesk/vesk.h"

namespace vesk::inprocess {

// One reference to an endpoint, from endpoint_acquire to endpoint_release. Copies of the shared pointer are no
// references of their own: a callback in progress keeps one so that the release waits for its end. Never destroyed
// under the lock.
struct HeldEndpoint {
  explicit HeldEndpoint(vesk_endpoint* held);
  ~HeldEndpoint();
  HeldEndpoint(const HeldEndpoint&) = delete;
  HeldEndpoint& operator=(const HeldEndpoint&) = delete;

  vesk_endpoint* const endpoint;
};
using EndpointRef = std::shared_ptr<HeldEndpoint>;
using EndpointRefs = std::vector<EndpointRef>;

}  // namespace vesk::inprocess

struct vesk_identity {};

struct vesk_payload {
  vesk::Parcel parcel;
  vesk::inprocess::EndpointRefs endpoints;
};

struct vesk_buffer {
  vesk::Parcel parcel;
};

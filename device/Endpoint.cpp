#include "device/Endpoint.h"

#include <system_error>

namespace orvel::sim {

Endpoint::Endpoint() : m_endpoint{&kFunctions, this} {}

const vesk_endpoint_fn Endpoint::kFunctions = {
    [](void*, vesk_endpoint* endpoint, unsigned code, vesk_identity* caller, vesk_buffer* request,
       vesk_payload* reply) { return static_cast<Endpoint*>(endpoint->context)->onCall(code, caller, request, reply); },
    [](void*, vesk_endpoint*, unsigned, vesk_identity*, vesk_buffer*) { return 1; },  // nothing here is called one-way
    [](void*, vesk_endpoint*) { return 0; },
    [](void*, vesk_endpoint*) { return 0; },
};

void check(int result, const char* what) {
  if (result < 0) throw std::system_error(-result, std::generic_category(), what);
}

}  // namespace orvel::sim

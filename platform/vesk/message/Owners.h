// Owners of what the C interface allocates, for C++ code on either side of it.
#pragma once

#include <memory>

#include "vesk/vesk.h"

namespace vesk {

struct FreeMessage {
  void operator()(vesk_payload* payload) const { vesk_payload_free(payload); }
  void operator()(vesk_buffer* buffer) const { vesk_buffer_free(buffer); }
};
using PayloadPtr = std::unique_ptr<vesk_payload, FreeMessage>;
using BufferPtr = std::unique_ptr<vesk_buffer, FreeMessage>;

}  // namespace vesk

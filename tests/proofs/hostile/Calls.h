// A call of a client that keeps the rules.
#pragma once

#include <cstring>

#include "support/Services.h"
#include "support/Vesk.h"

namespace orvel::hostile {

// What every request to that service begins with, and then its arguments as wire() reads them.
inline test::Bytes request_to(test::Service service, const std::string& arguments = "") {
  return test::wire("0 -1 1398362964 '" + std::string(test::kInterfaces.at(service)) + "' " + arguments);
}

// Makes the call, with an endpoint behind the bytes unless it is null. Returns what vesk_call does.
inline int call(void* runtime, vesk_handle handle, unsigned code, const test::Bytes& bytes, vesk_endpoint* endpoint,
                vesk_buffer* reply) {
  const test::PayloadPtr request(vesk_payload_alloc());
  for (std::size_t at = 0; at < bytes.size(); at += 4) {
    std::int32_t word = 0;
    std::memcpy(&word, bytes.data() + at, sizeof(word));
    vesk_write_i32(request.get(), word);
  }
  if (endpoint != nullptr) vesk_write_endpoint(request.get(), endpoint);
  return vesk_call(runtime, &handle, code, request.get(), reply);
}

}  // namespace orvel::hostile

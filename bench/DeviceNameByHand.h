// The device-name query as a C programmer would write it out for this one purpose: what the library is measured
// against.
#pragma once

#include <pthread.h>
#include <vesk/vesk.h>

#include <cstddef>

namespace bench {

// The same three locks as the library's: one for all calls of a client, one for a transaction as a whole, one for its
// steps.
struct Connection {
  pthread_mutex_t facade, transaction, binder;
  void* runtime;
  vesk_handle handle;
};

// Binds the delegate service; false on failure.
bool open_connection(Connection* connection);

// Writes the name and a NUL into `out`, cut to `size`; returns its length, 0 on failure.
std::size_t device_name_by_hand(Connection* connection, char* out, std::size_t size);

}  // namespace bench

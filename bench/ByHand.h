// Transactions as a C programmer would write each out for its one purpose: what the library is measured against.
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

// An intent with its extras in the order of the wire. Borrows all texts.
struct Broadcast {
  const char *action, *data, *package, *class_name;
  struct Number {
    const char* key;
    int value;
  } numbers[10];
  struct Text {
    const char *key, *value;
  } texts[10];
};

// Writes the intent, which has a component and neither a third text, categories nor flags.
void write_broadcast_by_hand(vesk_payload* request, const Broadcast* broadcast);

// Sends it; false on failure.
bool broadcast_by_hand(Connection* connection, const Broadcast* broadcast);

}  // namespace bench

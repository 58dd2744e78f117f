// The handles of this process, and the connections that they name.
#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <mutex>
#include <unordered_map>
#include <vector>

#include "Loop.h"
#include "OutgoingConnection.h"
#include "ThreadAnnotations.h"
#include "vesk/vesk.h"

namespace vesk {

// Any thread.
class Handles {
 public:
  Handles(Loop& loop, std::chrono::milliseconds call_limit);

  // Connects to the service called `name` and gives its handle, with `references` of a lookup. Waits for at most
  // `patience` for a service that is slow to say whether it has room; vesk_shutdown ends that. Throws
  // std::system_error, -EAGAIN for one that has none.
  vesk_handle look_up(const char* name, unsigned int references = 1, std::chrono::milliseconds patience = {});

  // Null for a handle that names nothing.
  std::shared_ptr<OutgoingConnection> connection(const vesk_handle& handle);
  std::vector<std::shared_ptr<OutgoingConnection>> connections();

  // -EINVAL for a handle that names nothing.
  int acquire(const vesk_handle& handle);
  int release(const vesk_handle& handle);
  void end_lookup_reference(const vesk_handle& handle, unsigned int count = 1);

 private:
  struct Reference {
    std::shared_ptr<OutgoingConnection> connection;
    unsigned int acquired = 0;
    unsigned int lookups = 1;  // references of lookups that are still held
    bool dead = false;         // they end with the last acquired one
  };

  void end_dead_lookup(const vesk_handle& handle, bool noticed);

  // Changes a reference and closes the connection when none is left. -EINVAL for a handle that names nothing.
  template <typename Change>
  int drop(const vesk_handle& handle, const Change& change);

  const OutgoingConnection::Surroundings m_surroundings;

  std::mutex m_mutex;
  std::unordered_map<std::uint64_t, Reference> m_handles VESK_GUARDED_BY(m_mutex);
  std::uint64_t m_last_handle VESK_GUARDED_BY(m_mutex) = 0;
};

}  // namespace vesk

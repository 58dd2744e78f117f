// What is held at a moment.
#pragma once

#include <iosfwd>

namespace vesk::inprocess {

// What the client still holds, or makes libvesk keep: EXPECT_EQ(m_vesk.live(), Live{}).
struct Live {
  int payloads = 0;
  int buffers = 0;
  int lookups = 0;              // neither unbound nor ended by a death
  int handle_references = 0;    // by vesk_handle_acquire
  int endpoint_references = 0;  // taken with endpoint_acquire, not yet released
  int death_references = 0;     // taken with death_acquire, not yet released

  friend bool operator==(const Live& a, const Live& b);
  friend std::ostream& operator<<(std::ostream& out, const Live& live);
};

}  // namespace vesk::inprocess

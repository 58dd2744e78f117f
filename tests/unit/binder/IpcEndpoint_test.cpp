// Who keeps an endpoint alive, and what reaches it.
#include "binder/IpcEndpoint.h"

#include <gtest/gtest.h>

namespace vesk {
namespace {

// Counts its destructions; serves two-way calls.
class Probe : public IpcEndpoint {
 public:
  explicit Probe(int& destroyed) : m_destroyed(destroyed) {}
  ~Probe() { ++m_destroyed; }
  int call(void*, unsigned int code, vesk_identity*, vesk_buffer*, vesk_payload*) { return static_cast<int>(code) + 1; }

 private:
  int& m_destroyed;
};

TEST(IpcEndpoint, ServesCallsUntilTheLastReferenceDestroysItOnceOwnersOrLibvesks) {
  for (const bool owner_first : {true, false}) {
    int destroyed = 0;
    EndpointPtr<Probe> owner = make_endpoint<Probe>(destroyed);
    EndpointPtr<Probe> writer = owner;
    EndpointPtr<Probe> moved = std::move(writer);
    vesk_endpoint* const record = owner->get_endpoint();
    EXPECT_EQ(static_cast<void*>(record), static_cast<void*>(owner.get())) << "libvesk's pointer is the container's";
    EXPECT_EQ(record->fn->endpoint_acquire(nullptr, record), 0);
    EXPECT_EQ(owner->get_refcount(), 3);
    writer = moved;
    moved = {};
    writer = {};
    if (owner_first) owner = {};
    EXPECT_EQ(destroyed, 0);
    EXPECT_EQ(record->fn->endpoint_call(nullptr, record, 6, nullptr, nullptr, nullptr), 7);
    EXPECT_EQ(record->fn->endpoint_call_oneway(nullptr, record, 6, nullptr, nullptr), 1) << "which it does not serve";
    EXPECT_EQ(record->fn->endpoint_release(nullptr, record), 0);
    EXPECT_EQ(destroyed, owner_first ? 1 : 0);
    owner = {};
    EXPECT_EQ(destroyed, 1);
  }
}

}  // namespace
}  // namespace vesk

// The library and libvesk are built apart, and share these structures in memory: a compiler that lays one out otherwise must not
// get any further.
#include <cstddef>
#include <cstdint>
#include <type_traits>

#include "vesk/vesk.h"

namespace {

constexpr std::size_t kPointer = sizeof(void*);

// Passed by value, in registers on every processor.
static_assert(std::is_trivially_copyable_v<vesk_handle>);
static_assert(sizeof(vesk_handle) == 8 && alignof(vesk_handle) == 4 && offsetof(vesk_handle, words) == 0);

static_assert(sizeof(vesk_death_callback) == 4 * kPointer);
static_assert(offsetof(vesk_death_callback, on_death) == 0 * kPointer);
static_assert(offsetof(vesk_death_callback, death_acquire) == 1 * kPointer);
static_assert(offsetof(vesk_death_callback, death_release) == 2 * kPointer);
static_assert(offsetof(vesk_death_callback, context) == 3 * kPointer);

static_assert(sizeof(vesk_endpoint_fn) == 4 * kPointer);
static_assert(offsetof(vesk_endpoint_fn, endpoint_call) == 0 * kPointer);
static_assert(offsetof(vesk_endpoint_fn, endpoint_call_oneway) == 1 * kPointer);
static_assert(offsetof(vesk_endpoint_fn, endpoint_acquire) == 2 * kPointer);
static_assert(offsetof(vesk_endpoint_fn, endpoint_release) == 3 * kPointer);

static_assert(sizeof(vesk_endpoint) == 2 * kPointer);
static_assert(offsetof(vesk_endpoint, fn) == 0 * kPointer);
static_assert(offsetof(vesk_endpoint, context) == 1 * kPointer);

static_assert(sizeof(vesk_service_bind_callback) == kPointer);

}  // namespace

// What the library assumes of libvesk, which is built apart from it. All of the library is compiled against the
// vesk/vesk.h that is checked here, on a device against the device's own: where that differs, the build ends here.
#include <cstddef>
#include <cstdint>
#include <limits>
#include <type_traits>

#include "vesk/vesk.h"

namespace {

constexpr std::size_t kPointer = sizeof(void*);

// Passed by value to the bind callback, and returned by vesk_invalid_handle. The processor's calling convention decides
// where it travels: in one register of 64 bits; on 32-bit ARM to the callback half in a register and half on the stack,
// and back through memory. Both sides agree on that when they agree on these.
static_assert(std::is_same_v<decltype(vesk_handle::words), std::uint32_t[2]>);
static_assert(std::is_trivially_copyable_v<vesk_handle> && std::is_standard_layout_v<vesk_handle>);
static_assert(sizeof(vesk_handle) == 8 && alignof(vesk_handle) == 4);
static_assert(
    std::is_same_v<vesk_service_bind_callback, void (*)(void*, void* context, const char* name, vesk_handle)>);

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

// Values of another width would be converted without a warning. A declaration may add noexcept.
template <typename Function, typename Expected>
constexpr bool kDeclared = std::is_convertible_v<Function*, Expected*>;
static_assert(kDeclared<decltype(vesk_read_i32), std::int32_t(vesk_buffer*)>);
static_assert(kDeclared<decltype(vesk_read_i64), std::int64_t(vesk_buffer*)>);
static_assert(kDeclared<decltype(vesk_read_f64), double(vesk_buffer*)>);
static_assert(kDeclared<decltype(vesk_read_array_length), std::int32_t(vesk_buffer*)>);
static_assert(kDeclared<decltype(vesk_read_utf16_string), const std::uint16_t*(vesk_buffer*, unsigned*)>);
static_assert(kDeclared<decltype(vesk_write_i32), int(vesk_payload*, std::int32_t)>);
static_assert(kDeclared<decltype(vesk_write_i64), int(vesk_payload*, std::int64_t)>);
static_assert(kDeclared<decltype(vesk_write_f64), int(vesk_payload*, double)>);
static_assert(kDeclared<decltype(vesk_write_array_length), int(vesk_payload*, std::int32_t)>);
static_assert(kDeclared<decltype(vesk_payload_get_position), unsigned(vesk_payload*)>);
static_assert(kDeclared<decltype(vesk_payload_set_position), int(vesk_payload*, unsigned)>);

// The types of these values in the records and the public headers.
static_assert(sizeof(int) == 4 && sizeof(long long) == 8 && sizeof(char16_t) == 2);
static_assert(sizeof(double) == 8 && std::numeric_limits<double>::is_iec559);

}  // namespace

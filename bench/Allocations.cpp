#include "Allocations.h"

#include <cstddef>

namespace {

thread_local std::uint64_t t_allocations = 0;

}  // namespace

// The program's definitions take the place of the C library's, for operator new too, which calls malloc.
extern "C" {

// NOLINTBEGIN(bugprone-reserved-identifier): the C library's own names for what is replaced below
void* __libc_malloc(std::size_t size);
void* __libc_calloc(std::size_t count, std::size_t size);
void* __libc_realloc(void* block, std::size_t size);
// NOLINTEND(bugprone-reserved-identifier)

void* malloc(std::size_t size) noexcept {
  ++t_allocations;
  return __libc_malloc(size);
}

void* calloc(std::size_t count, std::size_t size) noexcept {
  ++t_allocations;
  return __libc_calloc(count, size);
}

void* realloc(void* block, std::size_t size) noexcept {
  ++t_allocations;
  return __libc_realloc(block, size);
}

}  // extern "C"

namespace bench {

std::uint64_t allocations() {
  return t_allocations;
}

}  // namespace bench

#include "Allocations.h"

extern "C" std::size_t malloc_usable_size(void* block) noexcept;

namespace {

thread_local std::uint64_t t_allocations = 0;
thread_local bool t_weighing = false;  // only then are blocks weighed, which takes time
thread_local std::ptrdiff_t t_bytes = 0;
thread_local std::ptrdiff_t t_peak = 0;

void* taken(void* block) {
  ++t_allocations;
  if (t_weighing) t_bytes += static_cast<std::ptrdiff_t>(malloc_usable_size(block));
  if (t_bytes > t_peak) t_peak = t_bytes;
  return block;
}

void given(void* block) {
  if (t_weighing) t_bytes -= static_cast<std::ptrdiff_t>(malloc_usable_size(block));
}

}  // namespace

// The program's definitions take the place of the C library's, for operator new too, which calls malloc.
// NOLINTBEGIN(readability-redundant-declaration,readability-inconsistent-declaration-parameter-name)
extern "C" {

// What is replaced below, by the C library's own names for it.
void* libcMalloc(std::size_t size) __asm__("__libc_malloc");
void* libcCalloc(std::size_t count, std::size_t size) __asm__("__libc_calloc");
void* libcRealloc(void* block, std::size_t size) __asm__("__libc_realloc");
void libcFree(void* block) __asm__("__libc_free");

void* malloc(std::size_t size) noexcept {
  return taken(libcMalloc(size));
}

void* calloc(std::size_t count, std::size_t size) noexcept {
  return taken(libcCalloc(count, size));
}

void* realloc(void* block, std::size_t size) noexcept {
  given(block);
  return taken(libcRealloc(block, size));
}

void free(void* block) noexcept {
  given(block);
  libcFree(block);
}

}  // extern "C"
// NOLINTEND(readability-redundant-declaration,readability-inconsistent-declaration-parameter-name)

namespace bench {

std::uint64_t allocations() {
  return t_allocations;
}

Weighing::Weighing() {
  t_bytes = t_peak = 0;
  t_weighing = true;
}

Weighing::~Weighing() {
  t_weighing = false;
}

std::size_t Weighing::peak() {
  return static_cast<std::size_t>(t_peak);
}

}  // namespace bench

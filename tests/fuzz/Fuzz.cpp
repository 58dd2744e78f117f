#include "Fuzz.h"

#include <cstdio>
#include <cstdlib>
#include <new>

namespace {

thread_local std::uint64_t t_allocated = 0;

}  // namespace

// The forms that the others call, and those that a sanitizer would pair with forms of its own.
void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
  t_allocated += size;
  return std::malloc(size == 0 ? 1 : size);
}
void* operator new(std::size_t size) {
  if (void* block = operator new(size, std::nothrow)) return block;
  throw std::bad_alloc();
}
void* operator new[](std::size_t size) {
  return operator new(size);
}
void operator delete(void* block) noexcept {
  std::free(block);
}
void operator delete(void* block, std::size_t) noexcept {
  std::free(block);
}
void operator delete[](void* block) noexcept {
  std::free(block);
}
void operator delete[](void* block, std::size_t) noexcept {
  std::free(block);
}

namespace orvel::fuzz {

void require(bool condition, const char* promise) {
  if (condition) return;
  std::fprintf(stderr, "broken promise: %s\n", promise);
  std::abort();
}

std::uint64_t allocated() {
  return t_allocated;
}

}  // namespace orvel::fuzz

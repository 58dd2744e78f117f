#include "Fuzz.h"

#include <cstdio>
#include <cstdlib>
#include <new>

namespace {

thread_local std::uint64_t t_allocated = 0;

void* give(std::size_t size) noexcept {
  t_allocated += size;
  return std::malloc(size == 0 ? 1 : size);
}

void* giveOrThrow(std::size_t size) {
  if (void* block = give(size)) return block;
  throw std::bad_alloc();
}

}  // namespace

// Every form that does not ask for an alignment, so that no block is taken here and given back elsewhere.
void* operator new(std::size_t size) {
  return giveOrThrow(size);
}
void* operator new[](std::size_t size) {
  return giveOrThrow(size);
}
void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
  return give(size);
}
void* operator new[](std::size_t size, const std::nothrow_t&) noexcept {
  return give(size);
}
void operator delete(void* block) noexcept {
  std::free(block);
}
void operator delete[](void* block) noexcept {
  std::free(block);
}
void operator delete(void* block, std::size_t) noexcept {
  std::free(block);
}
void operator delete[](void* block, std::size_t) noexcept {
  std::free(block);
}
void operator delete(void* block, const std::nothrow_t&) noexcept {
  std::free(block);
}
void operator delete[](void* block, const std::nothrow_t&) noexcept {
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

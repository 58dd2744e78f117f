// A file of its own: the compiler must not inline one half of an allocation into code in which it sees the other half.
#include "Allocations.h"

#include <cstddef>
#include <cstdlib>
#include <new>
#include <utility>

#include "support/Vesk.h"

namespace orvel::test {
namespace {

thread_local bool t_counts = false;
thread_local long t_allocations = 0;
thread_local long t_failing = 0;

}  // namespace

void count_allocations(long failing) {
  t_allocations = 0;
  t_failing = failing;
  t_counts = true;
}

long counted_allocations() {
  t_counts = false;
  return t_allocations;
}

Uncounted::Uncounted() : m_before(std::exchange(t_counts, false)) {}

Uncounted::~Uncounted() {
  t_counts = m_before;
}

static bool must_fail() {
  return t_counts && !InprocessVesk::inside() && ++t_allocations == t_failing;
}

}  // namespace orvel::test

void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
  return orvel::test::must_fail() ? nullptr : std::malloc(size == 0 ? 1 : size);
}
void* operator new(std::size_t size) {
  if (void* const memory = operator new(size, std::nothrow)) return memory;
  throw std::bad_alloc();
}
void operator delete(void* memory) noexcept {
  std::free(memory);
}
void operator delete(void* memory, std::size_t) noexcept {
  std::free(memory);
}

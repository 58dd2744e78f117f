// A file of its own: the compiler must not inline one half of an allocation into code in which it sees the other half.
#include "Allocations.h"

#include <cstddef>
#include <cstdlib>
#include <new>

#include "support/Vesk.h"

namespace orvel::fuzz {
namespace {

thread_local bool t_armed = false;
thread_local long t_allocations = 0;
thread_local long t_failing = 0;

}  // namespace

void arm(long failing) {
  t_allocations = 0;
  t_failing = failing;
  t_armed = true;
}

long disarm() {
  t_armed = false;
  return t_allocations;
}

Unarmed::Unarmed() : m_before(t_armed) {
  t_armed = false;
}

Unarmed::~Unarmed() {
  t_armed = m_before;
}

static bool must_fail() {
  return t_armed && !test::InprocessVesk::inside() && ++t_allocations == t_failing;
}

}  // namespace orvel::fuzz

void* operator new(std::size_t size) {
  void* const memory = orvel::fuzz::must_fail() ? nullptr : std::malloc(size == 0 ? 1 : size);
  if (memory == nullptr) throw std::bad_alloc();
  return memory;
}
void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
  return orvel::fuzz::must_fail() ? nullptr : std::malloc(size == 0 ? 1 : size);
}
void operator delete(void* memory) noexcept {
  std::free(memory);
}
void operator delete(void* memory, std::size_t) noexcept {
  std::free(memory);
}

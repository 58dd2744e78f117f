// Where the decisions of a run come from: the same numbers for the same seed, on every machine.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

namespace orvel::test::simulation {

class Choices {
 public:
  explicit Choices(std::uint64_t seed) : m_state(seed) {}

  // A number below `limit`, which is at least 1.
  std::size_t below(std::size_t limit) {
    m_state += 0x9e3779b97f4a7c15U;
    std::uint64_t mixed = m_state;
    mixed = (mixed ^ (mixed >> 30U)) * 0xbf58476d1ce4e5b9U;
    mixed = (mixed ^ (mixed >> 27U)) * 0x94d049bb133111ebU;
    return static_cast<std::size_t>((mixed >> 32U) % limit);
  }

  bool one_in(std::size_t count) { return below(count) == count - 1; }

  template <typename Items>
  const auto& of(const Items& items) {
    return items[below(items.size())];
  }

 private:
  std::uint64_t m_state;
};

}  // namespace orvel::test::simulation

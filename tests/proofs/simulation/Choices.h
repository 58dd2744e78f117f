// Where the decisions of a run come from: the same numbers for the same seed, on every machine.
#pragma once

#include <cstddef>
#include <cstdint>
#include <random>

namespace orvel::test::simulation {

class Choices {
 public:
  explicit Choices(std::uint64_t seed) : m_random(seed) {}

  // A number below `limit`, which is at least 1. The library's distributions differ between machines.
  std::size_t below(std::size_t limit) { return m_random() % limit; }

  bool one_in(std::size_t count) { return below(count) == count - 1; }

  template <typename Items>
  const auto& of(const Items& items) {
    return items[below(items.size())];
  }

 private:
  std::mt19937_64 m_random;
};

}  // namespace orvel::test::simulation

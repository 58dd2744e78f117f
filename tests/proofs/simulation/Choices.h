// Where the decisions of a run come from.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>

namespace orvel::fuzz {

// 0 is always the plainest choice, so that a source which has run dry brings a run to its end.
class Choices {
 public:
  virtual ~Choices() = default;

  // A number below `limit`, which is at least 1 and at most 256.
  virtual unsigned below(unsigned limit) = 0;

  bool one_in(unsigned count) { return below(count) == count - 1; }

  template <typename Item, std::size_t kSize>
  const Item& of(const std::array<Item, kSize>& items) {
    return items[below(kSize)];
  }
};

// The same numbers for the same seed, on every machine.
class SeededChoices : public Choices {
 public:
  explicit SeededChoices(std::uint64_t seed) : m_state(seed) {}

  unsigned below(unsigned limit) override {
    m_state += 0x9e3779b97f4a7c15U;
    std::uint64_t mixed = m_state;
    mixed = (mixed ^ (mixed >> 30U)) * 0xbf58476d1ce4e5b9U;
    mixed = (mixed ^ (mixed >> 27U)) * 0x94d049bb133111ebU;
    return static_cast<unsigned>((mixed >> 32U) % limit);
  }

 private:
  std::uint64_t m_state;
};

// One byte for each choice, then zeros. The bytes are borrowed.
class ByteChoices : public Choices {
 public:
  ByteChoices(const std::uint8_t* data, std::size_t size) : m_data(data), m_left(size) {}

  unsigned below(unsigned limit) override {
    if (m_left == 0) return 0;
    --m_left;
    return *m_data++ % limit;
  }

 private:
  const std::uint8_t* m_data;
  std::size_t m_left;
};

// Another source's numbers, kept as the bytes that give them again. Both are borrowed.
class KeptChoices : public Choices {
 public:
  KeptChoices(Choices& source, std::string& bytes) : m_source(source), m_bytes(bytes) {}

  unsigned below(unsigned limit) override {
    const unsigned chosen = m_source.below(limit);
    m_bytes += static_cast<char>(chosen);
    return chosen;
  }

 private:
  Choices& m_source;
  std::string& m_bytes;
};

}  // namespace orvel::fuzz

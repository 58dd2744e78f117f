// An independent decoder of the wire, which goes over the bytes that the code under test has read and compares.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "Fuzz.h"
#include "support/Vesk.h"

namespace orvel::service_apis {
class Bundle;
class OrvelBundle;
struct ComponentName;
struct OrvelIntent;
}  // namespace orvel::service_apis

namespace orvel::fuzz {

// A string of the wire as UTF-8, up to its first NUL.
struct Text {
  std::string utf8;
  bool certain = true;  // false: it has unpaired surrogates, of which each converter makes what it will
};

// Behind the end, and from the first damaged string on, every value is 0 or empty, and nothing is consumed any more.
class Walk {
 public:
  explicit Walk(Input input) : m_input(input) {}

  std::int32_t i32() { return number<std::int32_t>(); }
  std::int64_t i64() { return number<std::int64_t>(); }
  double f64() { return number<double>(); }
  Text text();

  // Whether what comes next begins with so many marks. The first that says no is the last that is consumed.
  bool marks(int count) {
    while (count > 0 && i32() > 0) --count;
    return count == 0;
  }

  // This one, or one on which every value is 0 or empty: what is absent has to equal that.
  Walk& when(bool present);

  [[nodiscard]] bool failed() const { return m_failed; }

  // Each takes the next value of its type and compares.
  void expect(int value);
  void expect(bool value);
  void expect(long long value);
  void expect(double value);
  void expect(const std::string& value);
  void expect(const std::vector<std::string>& values);
  void expect(const service_apis::ComponentName& component);
  // As they arrive: a count, and the entries.
  void expect(const service_apis::Bundle& bundle);
  // A length, a count, and at most 30 entries.
  void expect(const service_apis::OrvelBundle& bundle);
  void expect(const service_apis::OrvelIntent& intent);

  template <typename... Values>
  void expectAll(const Values&... values) {
    (expect(values), ...);
  }

  // The reader of the buffer must have stopped just here, with an error exactly when there is one.
  void expectSameEnd(vesk_buffer* buffer) const;

 private:
  template <typename Number>
  Number number() {
    Number value{};
    if (m_failed || m_input.size - m_at < sizeof(value)) {
      m_failed = true;
      return value;
    }
    std::memcpy(&value, m_input.data + m_at, sizeof(value));
    m_at += sizeof(value);
    return value;
  }

  template <typename AnyBundle>
  void expectEntries(const AnyBundle& bundle, std::int32_t count);

  Input m_input;
  std::size_t m_at = 0;
  bool m_failed = false;
};

inline test::BufferPtr bufferOf(Input input) {
  test::BufferPtr buffer(vesk_buffer_alloc());
  vesk_buffer_assign(buffer.get(), input.data, input.size);
  return buffer;
}

inline Input inputOf(const test::Bytes& bytes) {
  return {bytes.data(), bytes.size()};
}

// Reads the input and compares: `expect` gets a Walk over the same bytes, and what `read` has given. Inputs of some sizes
// are read twice, since the same bytes read the same whatever was read before.
template <typename Read, typename Expect>
void checkReader(Input input, const Read& read, const Expect& expect) {
  for (int rounds = input.size % 32 == 0 ? 2 : 1; rounds > 0; --rounds) {
    const test::BufferPtr buffer = bufferOf(input);
    const std::uint64_t before = allocated();
    const auto value = read(buffer.get());
    require(allocated() - before <= allowedFor(input.size), "reading allocates a small multiple of what is read");
    Walk wire(input);
    expect(wire, value);
    wire.expectSameEnd(buffer.get());
  }
}

// What a reader that fills what its caller gives it has done.
template <typename Target>
struct Outcome {
  Target target{};
  bool good = false;
};

template <typename Record, typename Target = Record>
Outcome<Target> readInto(vesk_buffer* buffer) {
  Outcome<Target> outcome;
  outcome.good = Record::read(buffer, outcome.target);
  return outcome;
}

template <typename Record>
using ExpectMembers = void (*)(Walk& wire, const Record& record);

// A record behind its marks.
template <typename Record>
void checkRecord(Input input, int marks, ExpectMembers<Record> expectMembers) {
  checkReader(input, readInto<Record>, [=](Walk& wire, const Outcome<Record>& outcome) {
    const bool present = wire.marks(marks);
    require(outcome.good == present, "a record is read exactly behind its marks");
    expectMembers(wire.when(present), outcome.target);
  });
}

// Any number of them: absent ones are passed over, and the end of the buffer ends them.
template <typename Array, typename Records = typename Array::Records>
void checkArray(Input input, int marks, ExpectMembers<typename Records::value_type::element_type> expectMembers) {
  checkReader(input, readInto<Array, Records>, [=](Walk& wire, const Outcome<Records>& outcome) {
    int left = wire.i32();
    for (const auto& record : outcome.target) {
      while (!wire.marks(marks)) require(!wire.failed(), "no record is made up");
      expectMembers(wire, *record);
      --left;
    }
    while (left > 0 && !wire.failed()) require(!wire.marks(marks), "no record is left out");
    require(outcome.good == (left <= 0), "an array that is cut short fails");
  });
}

}  // namespace orvel::fuzz

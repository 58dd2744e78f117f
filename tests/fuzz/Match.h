// Takes messages apart, independently of the client library and of the device, so that a mistake of theirs does not hide
// behind the same mistake here, and compares what it finds with what the code under test has read.
#pragma once

#include <string>
#include <utility>
#include <vector>

#include "Fuzz.h"
#include "orvel/OrvelIntent.h"
#include "parcel/OrvelBundle.h"
#include "parcel/OrvelSimDirective.h"
#include "parcel/OrvelSimEventResult.h"
#include "support/Vesk.h"

namespace orvel::fuzz {

// Reads one value after the other. Behind the end, and from the first damaged string on, every value is 0 or empty and
// nothing is consumed.
class Match {
 public:
  explicit Match(Input input) : m_left(input) {}

  [[nodiscard]] bool failed() const { return m_failed; }

  std::int32_t i32() { return number<std::int32_t>(); }

  // Whether so many marks follow. The first one that is not set is the last one that is consumed.
  bool mark(int count = 1);

  // The three words and the interface that each request begins with.
  void skipHeader();

  // This one, or one in which every value is 0 or empty: what is absent has to equal that.
  Match& when(bool present);

  // Each takes the next value of its type and compares. Texts are compared as long as no surrogate lacks its partner.
  void expect(int value) { require(value == i32(), "a 32-bit number is the one on the wire"); }
  void expect(bool value) { require(value == (i32() != 0), "a flag is true exactly for a number that is not 0"); }
  void expect(long long value) { require(value == number<long long>(), "a 64-bit number is the one on the wire"); }
  void expect(double value);
  void expect(const std::string& value);
  void expect(const std::vector<std::string>& values);
  void expect(const service_apis::ComponentName& component);
  void expect(const service_apis::Bundle& bundle);       // a count, and the entries
  void expect(const service_apis::OrvelBundle& bundle);  // a length, a count, and at most 30 entries
  void expect(const service_apis::OrvelIntent& intent);  // as services send it: without categories and flags
  void expect(const service_apis::OrvelSimDirective& directive);
  void expect(service_apis::OrvelSimEventResult_t result);

  template <typename... Values>
  void expectAll(const Values&... values) {
    (expect(values), ...);
  }

  // The same bytes, of which a listener gets these members of an intent only.
  void expectBroadcast(const std::string& action, const std::string& data, const service_apis::Bundle& extras);

  // The reader of the buffer must have stopped just here, with an error exactly when there is one.
  void expectSameEnd(vesk_buffer* buffer) const;

 private:
  template <typename Number>
  Number number() {
    m_failed = m_failed || m_left.size < sizeof(Number);
    Number value{};
    if (m_failed) return value;
    std::memcpy(&value, m_left.data, sizeof(value));
    skip(sizeof(value));
    return value;
  }
  void skip(std::size_t size) { m_left = {m_left.data + size, m_left.size - size}; }

  // A string as UTF-8, up to its first NUL. Null strings are empty.
  std::string text();
  // Package and class; an empty package ends it.
  std::pair<std::string, std::string> component();

  template <typename AnyBundle>
  void expectEntries(const AnyBundle& bundle, int count);

  Input m_left;
  bool m_failed = false;
  bool m_paired = true;  // no surrogate without a partner, which converters may replace as they like
};

inline test::BufferPtr bufferOf(Input input) {
  return test::buffer_of({input.data, input.size});
}

// Reads the input and compares: `expect` gets a Match over the same bytes, and what `read` has returned.
template <typename Read, typename Expect>
void checkReader(Input input, const Read& read, const Expect& expect) {
  const test::BufferPtr buffer = bufferOf(input);
  const std::uint64_t before = allocated();
  const auto value = read(buffer.get());
  require(allocated() - before <= allowedFor(input.size), "reading allocates a small multiple of what is read");
  Match wire(input);
  expect(wire, value);
  wire.expectSameEnd(buffer.get());
}

}  // namespace orvel::fuzz

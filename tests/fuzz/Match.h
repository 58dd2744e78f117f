// Compares what the code under test has read with what the decoder says of the same bytes.
#pragma once

#include <string>
#include <vector>

#include "Fuzz.h"
#include "orvel/OrvelIntent.h"
#include "parcel/OrvelBundle.h"
#include "parcel/OrvelSimDirective.h"
#include "parcel/OrvelSimEventResult.h"
#include "support/Decoder.h"

namespace orvel::fuzz {

class Match : public test::Decoder {
 public:
  explicit Match(Input input) : Decoder(test::Bytes(input.data, input.size)) {}

  // This one, or one in which every value is 0 or empty: what is absent has to equal that.
  Match& when(bool present);

  // Each takes the next value of its type and compares. Texts are compared as long as no surrogate lacks its partner.
  void expect(int value) { require(value == i32(), "a 32-bit number is the one on the wire"); }
  void expect(bool value) { require(value == (i32() != 0), "a flag is true exactly for a number that is not 0"); }
  void expect(long long value) { require(value == i64(), "a 64-bit number is the one on the wire"); }
  void expect(double value);
  void expect(const std::string& value);
  void expect(const std::vector<std::string>& values);
  void expect(const service_apis::ComponentName& component);
  void expect(const service_apis::Bundle& bundle);       // a count, and the entries
  void expect(const service_apis::OrvelBundle& bundle);  // a length, a count, and at most 30 entries
  void expect(const service_apis::OrvelIntent& intent);
  void expect(const service_apis::OrvelSimDirective& directive);
  void expect(service_apis::OrvelSimEventResult_t result);

  template <typename... Values>
  void expectAll(const Values&... values) {
    (expect(values), ...);
  }

  // The reader of the buffer must have stopped just here, with an error exactly when there is one.
  void expectSameEnd(vesk_buffer* buffer) const;

 private:
  template <typename AnyBundle>
  void expectEntries(const AnyBundle& bundle, const test::Entries& wanted) const;
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

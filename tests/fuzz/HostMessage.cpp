// Texts that the host runtime writes into a message, over each other and between moves and cuts. What it reads, the
// other targets read as well; what it makes of each value is in the contract's tests.
#include <algorithm>
#include <string>

#include "Fuzz.h"
#include "vesk/message/Parcel.h"

namespace {

using namespace orvel::fuzz;  // NOLINT(google-build-using-namespace)
using vesk::Parcel;

std::string bytesOf(const Parcel& parcel) {
  return {reinterpret_cast<const char*>(parcel.bytes().data()), parcel.bytes().size()};
}

// A text's bytes on the wire have to be whole: its length, as many units, a 0, and padding.
void writeText(Choices& choices, Parcel& parcel) {
  const std::string text = choices.bytes();
  const std::string before = bytesOf(parcel);
  const std::size_t start = parcel.position();
  if (parcel.write_utf16(text) != 0) return;
  const std::string after = bytesOf(parcel);
  require(after.compare(0, start, before, 0, start) == 0, "what is in front of a text stays");
  const std::size_t end = std::min(parcel.position(), before.size());
  require(after.substr(parcel.position()) == before.substr(end), "what is behind a text stays");

  Parcel again(parcel.bytes());
  again.set_position(start);
  unsigned int length = 0;
  const std::uint16_t* units = again.read_utf16(&length);
  require(units != nullptr && length <= text.size(), "no text has more units than bytes");
  require(again.position() == parcel.position(), "what was written as one text is read as one");
  bool paired = true;
  for (unsigned int n = 0; n <= length; ++n) {  // with the 0 behind the last one
    require((units[n] >= 0xDC00 && units[n] < 0xE000) != paired, "surrogates come in pairs, whatever the bytes were");
    paired = units[n] < 0xD800 || units[n] >= 0xDC00;
  }
}

void cutTo(std::size_t size, Parcel& parcel) {
  const std::string before = bytesOf(parcel);
  require((parcel.truncate(size) == 0) == (size <= before.size()), "only what is there is cut");
  require(bytesOf(parcel) == before.substr(0, size), "a cut takes the end alone");
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  Choices choices({data, size});
  Parcel parcel;
  while (!choices.ended()) {
    const int error = parcel.error();
    const unsigned operation = choices.byte() % 7;
    if (operation == 0) parcel.write_i32(choices.number<std::int32_t>());
    if (operation == 1) parcel.write_i64(choices.number<std::int64_t>());
    if (operation == 2) parcel.write_f64(choices.number<double>());
    if (operation == 3) writeText(choices, parcel);
    if (operation == 4) parcel.write_endpoint_mark(choices.byte());
    if (operation == 5) parcel.set_position(choices.number<std::uint16_t>());
    if (operation == 6) cutTo(choices.number<std::uint16_t>(), parcel);
    require(parcel.position() <= parcel.bytes().size() && parcel.position() % 4 == 0,
            "the position is a boundary inside the message");
    require(error == 0 || parcel.error() == error, "the first error stays");
  }
  return 0;
}

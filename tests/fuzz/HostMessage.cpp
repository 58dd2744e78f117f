// What the host runtime writes into a message: values and moves out of the input, beside a plain model of the bytes. What it
// reads, the other targets read as well.
#include <algorithm>
#include <string>

#include "Fuzz.h"
#include "vesk/message/Parcel.h"

namespace {

using namespace orvel::fuzz;  // NOLINT(google-build-using-namespace)
using vesk::Parcel;

// What every operation leaves: a position inside the message, and an error that stays the first one.
void requireSound(const Parcel& parcel, int errorBefore) {
  require(parcel.position() <= parcel.bytes().size() && parcel.position() % 4 == 0,
          "the position is a boundary inside the message");
  require(parcel.remaining() == parcel.bytes().size() - parcel.position(), "what remains is behind the position");
  require(errorBefore == 0 || parcel.error() == errorBefore, "the first error stays");
}

// Puts bytes where the model's position is, over what stands there.
struct Model {
  std::string bytes;
  std::size_t at = 0;

  void write(const void* data, std::size_t size) {
    bytes.resize(std::max(bytes.size(), at + size));
    bytes.replace(at, size, static_cast<const char*>(data), size);
    at += size;
  }
};

std::string bytesOf(const Parcel& parcel) {
  return {reinterpret_cast<const char*>(parcel.bytes().data()), parcel.bytes().size()};
}

// A text's bytes on the wire have to be whole: its length, as many units, a 0, and padding.
void requireWholeText(const Parcel& parcel, std::size_t start, const std::string& text) {
  Parcel again(parcel.bytes());
  require(again.set_position(start) == 0, "a text begins where the position was");
  unsigned int length = 0;
  const std::uint16_t* units = again.read_utf16(&length);
  require(units != nullptr && length <= text.size(), "no text has more units than bytes");
  require(again.position() == parcel.position(), "what was written as one text is read as one");
  bool paired = true;
  for (unsigned int n = 0; n <= length; ++n) {  // with the 0 behind the last one
    require((units[n] >= 0xDC00 && units[n] < 0xE000) != paired, "surrogates come in pairs, whatever the bytes were");
    paired = units[n] < 0xD800 || units[n] >= 0xDC00;
  }
  const bool ascii = std::all_of(text.begin(), text.end(), [](char c) { return static_cast<signed char>(c) >= 0; });
  require(!ascii || std::equal(text.begin(), text.end(), units, units + length), "ASCII is as it was");
}

template <typename Number>
void writeNumber(Choices& choices, Parcel& parcel, Model& model, int (Parcel::*write)(Number)) {
  const auto value = choices.number<Number>();
  if ((parcel.*write)(value) == 0) model.write(&value, sizeof(value));
}

void write(Choices& choices, Parcel& parcel, Model& model) {
  const int error = parcel.error();
  const std::size_t start = parcel.position();
  switch (choices.byte() % 7) {
    case 0:
      writeNumber(choices, parcel, model, &Parcel::write_i32);
      break;
    case 1:
      writeNumber(choices, parcel, model, &Parcel::write_i64);
      break;
    case 2:
      writeNumber(choices, parcel, model, &Parcel::write_f64);
      break;
    case 3: {
      const std::string text = choices.bytes();
      if (parcel.write_utf16(text) != 0) break;
      requireWholeText(parcel, start, text);
      model.write(parcel.bytes().data() + start, parcel.position() - start);
      break;
    }
    case 4: {
      const std::uint32_t words[] = {0x56455350, choices.byte()};
      if (parcel.write_endpoint_mark(words[1]) == 0) model.write(words, sizeof(words));
      break;
    }
    case 5: {
      const std::size_t position = choices.number<std::uint16_t>();
      const bool good = position <= model.bytes.size() && position % 4 == 0;
      require(error != 0 || (parcel.set_position(position) == 0) == good, "only a boundary inside is a position");
      if (error == 0 && good) model.at = position;
      break;
    }
    default: {
      const std::size_t size = choices.number<std::uint16_t>();
      require((parcel.truncate(size) == 0) == (size <= model.bytes.size()), "only what is there is cut");
      model.bytes.resize(std::min(size, model.bytes.size()));
      if (model.at > model.bytes.size()) model.at = model.bytes.size() / 4 * 4;
    }
  }
  requireSound(parcel, error);
  require(parcel.position() == model.at && bytesOf(parcel) == model.bytes, "a write changes its own bytes alone");
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  Choices choices({data, size});
  Parcel written;
  Model model;
  while (!choices.ended()) write(choices, written, model);
  return 0;
}

// The host runtime's message format: a sequence of writes and moves, and then of reads, beside a plain model of the bytes.
#include <algorithm>
#include <string>
#include <vector>

#include "Fuzz.h"
#include "vesk/message/Parcel.h"

namespace {

using namespace orvel::fuzz;  // NOLINT(google-build-using-namespace)
using vesk::Parcel;

std::vector<std::uint8_t> bytesOf(const Parcel& parcel) {
  const auto* data = reinterpret_cast<const std::uint8_t*>(parcel.bytes().data());
  return {data, data + parcel.bytes().size()};
}

// What every operation leaves: a position inside the message, and an error that stays the first one.
void requireSound(const Parcel& parcel, int errorBefore) {
  require(parcel.position() <= parcel.bytes().size() && parcel.position() % 4 == 0,
          "the position is a boundary inside the message");
  require(parcel.remaining() == parcel.bytes().size() - parcel.position(), "what remains is behind the position");
  require(errorBefore == 0 || parcel.error() == errorBefore, "the first error stays");
}

// Puts bytes where the model's position is, over what stands there.
struct Model {
  std::vector<std::uint8_t> bytes;
  std::size_t at = 0;

  void write(const void* data, std::size_t size) {
    bytes.resize(std::max(bytes.size(), at + size));
    std::copy_n(static_cast<const std::uint8_t*>(data), size, bytes.begin() + static_cast<std::ptrdiff_t>(at));
    at += size;
  }
};

// A text's bytes on the wire have to be whole: its length, as many units, a 0, and padding.
void requireWholeText(const Parcel& parcel, std::size_t start, const std::string& text) {
  Parcel again(parcel.bytes());
  require(again.set_position(start) == 0, "a text begins where the position was");
  unsigned int length = 0;
  const std::uint16_t* units = again.read_utf16(&length);
  require(units != nullptr && length <= text.size(), "no text has more units than bytes");
  require(again.position() == parcel.position(), "what was written as one text is read as one");
  for (unsigned int n = 0, paired = 0; n < length; ++n) {
    const bool low = units[n] >= 0xDC00 && units[n] < 0xE000;
    require(low == (paired == 1), "surrogates come in pairs, whatever the bytes were");
    paired = units[n] >= 0xD800 && units[n] < 0xDC00 ? 1 : 0;
    require(paired == 0 || n + 1 < length, "no pair is cut");
  }
  const bool ascii = std::all_of(text.begin(), text.end(), [](char c) { return static_cast<signed char>(c) >= 0; });
  require(!ascii || std::equal(text.begin(), text.end(), units, units + length), "ASCII is as it was");
}

void write(Choices& choices, Parcel& parcel, Model& model) {
  const int error = parcel.error();
  const std::size_t start = parcel.position();
  switch (choices.byte() % 7) {
    case 0: {
      const auto value = choices.number<std::int32_t>();
      if (parcel.write_i32(value) == 0) model.write(&value, sizeof(value));
      break;
    }
    case 1: {
      const auto value = choices.number<std::int64_t>();
      if (parcel.write_i64(value) == 0) model.write(&value, sizeof(value));
      break;
    }
    case 2: {
      const auto value = choices.number<double>();
      if (parcel.write_f64(value) == 0) model.write(&value, sizeof(value));
      break;
    }
    case 3: {
      const std::string text = choices.bytes();
      if (parcel.write_utf16(text) != 0) break;
      requireWholeText(parcel, start, text);
      const std::vector<std::uint8_t> now = bytesOf(parcel);
      model.write(now.data() + start, parcel.position() - start);
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

void read(std::uint8_t operation, Parcel& parcel) {
  const int error = parcel.error();
  const std::size_t start = parcel.position();
  std::uint32_t index = 0;
  unsigned int length = 1;
  bool nothing = false;  // what a failed read gives
  switch (operation % 5) {
    case 0:
      nothing = parcel.read_i32() == 0;
      break;
    case 1:
      nothing = parcel.read_i64() == 0;
      break;
    case 2:
      nothing = !(parcel.read_f64() != 0);
      break;
    case 3: {
      const std::uint16_t* units = parcel.read_utf16(&length);
      nothing = units == nullptr && length == 0;
      require(units == nullptr || (reinterpret_cast<std::uintptr_t>(units) % 2 == 0 && units[length] == 0),
              "a text is aligned and ends with 0");
      break;
    }
    default:
      nothing = !parcel.read_endpoint_mark(3, &index);
      require(nothing || index < 3, "a mark names an endpoint that came along");
  }
  requireSound(parcel, error);
  require(parcel.error() == 0 || nothing, "what fails gives nothing");
  require(error == 0 || parcel.position() == start, "behind an error nothing is consumed");
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  Choices choices({data, size});
  Parcel written;
  Model model;
  for (int operations = choices.byte() % 16; operations > 0; --operations) write(choices, written, model);

  std::vector<std::uint8_t> reads(choices.byte() % 16);
  for (std::uint8_t& operation : reads) operation = choices.byte();
  for (const Input input : {Input{model.bytes.data(), model.bytes.size()}, choices.rest()}) {
    Parcel parcel;
    parcel.assign(input.data, input.size);
    for (const std::uint8_t operation : reads) read(operation, parcel);
    require(parcel.bytes().size() == input.size, "reading changes nothing");
  }
  return 0;
}

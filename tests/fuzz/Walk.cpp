#include "Walk.h"

#include <map>
#include <type_traits>
#include <utility>

#include "orvel/OrvelIntent.h"
#include "parcel/OrvelBundle.h"

namespace orvel::fuzz {
namespace {

constexpr int kMaxStrings = 1000;
constexpr int kMaxMetadata = 30;

bool isHigh(std::uint32_t unit) {
  return unit >= 0xD800 && unit < 0xDC00;
}
bool isLow(std::uint32_t unit) {
  return unit >= 0xDC00 && unit < 0xE000;
}

void append(std::string& utf8, std::uint32_t code) {
  const auto put = [&utf8](std::uint32_t byte) { utf8 += static_cast<char>(byte); };
  if (code < 0x80) {
    put(code);
  } else if (code < 0x800) {
    put(0xC0 + (code >> 6U));
    put(0x80 + (code & 63U));
  } else if (code < 0x10000) {
    put(0xE0 + (code >> 12U));
    put(0x80 + ((code >> 6U) & 63U));
    put(0x80 + (code & 63U));
  } else {
    put(0xF0 + (code >> 18U));
    put(0x80 + ((code >> 12U) & 63U));
    put(0x80 + ((code >> 6U) & 63U));
    put(0x80 + (code & 63U));
  }
}

}  // namespace

Walk& Walk::when(bool present) {
  static Walk nothing({nullptr, 0});
  nothing.m_failed = true;
  return present ? *this : nothing;
}

Text Walk::text() {
  const std::size_t start = m_at;
  const std::int32_t units = i32();
  if (m_failed || units == -1) return {};
  const auto unit = [this, first = m_at](std::size_t n) {
    std::uint16_t value = 0;
    std::memcpy(&value, m_input.data + first + 2 * n, sizeof(value));
    return std::uint32_t{value};
  };
  const auto count = static_cast<std::size_t>(units);
  const std::size_t padded = units < 0 ? 0 : (count * 2 + 2 + 3) / 4 * 4;
  if (units < 0 || padded > m_input.size - m_at || unit(count) != 0) {
    m_failed = true;
    m_at = start;
    return {};
  }
  Text text;
  for (std::size_t n = 0; n < count && unit(n) != 0; ++n) {
    if (isHigh(unit(n)) && n + 1 < count && isLow(unit(n + 1))) {
      append(text.utf8, 0x10000 + ((unit(n) - 0xD800) << 10U) + (unit(n + 1) - 0xDC00));
      ++n;
    } else {
      text.certain = text.certain && !isHigh(unit(n)) && !isLow(unit(n));
      append(text.utf8, unit(n));
    }
  }
  m_at += padded;
  return text;
}

void Walk::expect(int value) {
  require(value == i32(), "a 32-bit number is the one on the wire");
}

void Walk::expect(bool value) {
  require(value == (i32() != 0), "a flag is true exactly for a number that is not 0");
}

void Walk::expect(long long value) {
  require(value == i64(), "a 64-bit number is the one on the wire");
}

void Walk::expect(double value) {
  const double wanted = f64();  // compared as bits: there are values that do not equal themselves
  // NOLINTNEXTLINE(bugprone-suspicious-memory-comparison,cert-exp42-c,cert-flp37-c)
  require(std::memcmp(&wanted, &value, sizeof(value)) == 0, "a double has the bits on the wire");
}

void Walk::expect(const std::string& value) {
  const Text wanted = text();
  require(!wanted.certain || value == wanted.utf8, "a string is the one on the wire");
  require(value.size() <= wanted.utf8.size(), "surrogates without a partner become three bytes at most");
}

void Walk::expect(const std::vector<std::string>& values) {
  const int announced = i32();
  const int count = announced < 0 ? 0 : std::min(announced, kMaxStrings);
  require(values.size() == static_cast<std::size_t>(count), "an array has its announced size, up to 1,000");
  for (const std::string& value : values) expect(value);
}

void Walk::expect(const service_apis::ComponentName& component) {
  expect(component.package_name);
  when(!component.package_name.empty()).expect(component.class_name);
  require(component.good() == (!component.package_name.empty() && !component.class_name.empty()),
          "a component is good with both its parts");
}

template <typename AnyBundle>
void Walk::expectEntries(const AnyBundle& bundle, std::int32_t count) {
  constexpr bool kLongs = std::is_same_v<AnyBundle, service_apis::Bundle>;
  std::map<std::string, int> integers;
  std::map<std::string, long long> longs;
  std::map<std::string, Text> strings;
  bool certain = true;  // whether the keys are known, and with them how many differ
  for (; count > 0 && !m_failed; --count) {
    const Text key = text();
    certain = certain && key.certain;
    const int tag = i32();
    if (tag == 0) {
      if (Text value = text(); !m_failed) strings.emplace(key.utf8, std::move(value));
    } else if (tag == 1 || tag == 9) {
      if (const int value = i32(); !m_failed) integers.emplace(key.utf8, value);
    } else if (tag == 6 && kLongs) {
      if (const long long value = i64(); !m_failed) longs.emplace(key.utf8, value);
    } else if (tag != -1) {
      break;
    }
  }
  if (!certain) {
    require(bundle.size() <= integers.size() + strings.size(), "a bundle has no more entries than were sent");
    return;
  }
  require(bundle.size() == integers.size() + strings.size(), "a bundle has every entry once");
  for (const auto& [key, value] : integers) {
    require(bundle.get(key, ~value) == value, "the first integer of a key is kept");
  }
  if constexpr (kLongs) {
    for (const auto& [key, value] : longs) {
      require(bundle.get(key, ~value) == value, "the first long integer of a key is kept");
    }
  }
  for (const auto& [key, value] : strings) {
    const std::string kept = bundle.get(key, value.utf8 + "?");
    require(value.certain ? kept == value.utf8 : kept.size() <= value.utf8.size(), "the first string of a key is kept");
  }
}

void Walk::expect(const service_apis::Bundle& bundle) {
  expectEntries(bundle, i32());
}

void Walk::expect(const service_apis::OrvelBundle& bundle) {
  i32();
  expectEntries(bundle, std::min(i32(), kMaxMetadata));
}

void Walk::expect(const service_apis::OrvelIntent& intent) {
  const bool marked = marks(1);
  const bool measured = i32() >= 1;
  Walk& members = when(marked && measured);
  members.expectAll(intent.action, intent.data, intent.text3, intent.package);
  members.when(members.marks(1)).expect(intent.component);
  members.when(members.marks(1)).expect(intent.extras);
  require(intent.categories.empty() && intent.flags == 0, "intents arrive without categories and flags");
}

void Walk::expectSameEnd(vesk_buffer* buffer) const {
  require((vesk_buffer_last_error(buffer) != 0) == m_failed, "a read fails exactly when the bytes end or are damaged");
  require(vesk_buffer_remaining(buffer) == m_input.size - m_at, "a reader leaves what is not its own");
  if (!m_failed) return;
  unsigned int length = 1;
  require(vesk_read_i32(buffer) == 0 && vesk_read_i64(buffer) == 0 && vesk_read_array_length(buffer) == 0 &&
              vesk_read_utf16_string(buffer, &length) == nullptr && length == 0 && vesk_buffer_last_error(buffer) != 0,
          "behind an error there is nothing");
}

}  // namespace orvel::fuzz

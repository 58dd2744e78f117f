#include "Match.h"

#include <android/log.h>

#include <algorithm>
#include <set>
#include <type_traits>

namespace orvel::fuzz {
namespace {

// Every damaged message makes the library log.
[[maybe_unused]] const int kSilent = (__android_log_set_minimum_priority(ANDROID_LOG_SILENT), 0);

bool isHigh(std::uint32_t unit) {
  return unit >= 0xD800 && unit < 0xDC00;
}
bool isLow(std::uint32_t unit) {
  return unit >= 0xDC00 && unit < 0xE000;
}

void append(std::string& utf8, std::uint32_t code) {
  constexpr std::uint32_t kLead[] = {0, 0xC0, 0xE0, 0xF0};
  unsigned tail = code < 0x80 ? 0 : code < 0x800 ? 1 : code < 0x10000 ? 2 : 3;
  utf8 += static_cast<char>(kLead[tail] | code >> (6 * tail));
  while (tail-- > 0) utf8 += static_cast<char>(0x80U | (code >> (6 * tail) & 63U));
}

}  // namespace

bool Match::mark(int count) {
  while (count > 0 && i32() > 0) --count;
  return count == 0;
}

void Match::skipHeader() {
  for (int word = 0; word < 3; ++word) i32();
  text();
}

Match& Match::when(bool present) {
  static Match nothing({nullptr, 0});
  nothing.i32();  // from here on it has failed
  return present ? *this : nothing;
}

std::string Match::text() {
  const Input before = m_left;
  const std::int32_t length = i32();
  if (m_failed || length == -1) return {};
  const auto units = static_cast<std::size_t>(length);
  const std::size_t size = (units * 2 + 2 + 3) / 4 * 4;
  const auto unit = [this](std::size_t n) { return m_left.data[2 * n] + 256U * m_left.data[2 * n + 1]; };
  if (length < 0 || size > m_left.size || unit(units) != 0) {
    m_failed = true;
    m_left = before;
    return {};
  }
  std::string text;
  for (std::size_t n = 0; n < units && unit(n) != 0; ++n) {
    if (isHigh(unit(n)) && isLow(unit(n + 1))) {
      append(text, 0x10000 + ((unit(n) - 0xD800) << 10U) + (unit(n + 1) - 0xDC00));
      ++n;
    } else {
      m_paired = m_paired && !isHigh(unit(n)) && !isLow(unit(n));
      append(text, unit(n));
    }
  }
  skip(size);
  return text;
}

std::pair<std::string, std::string> Match::component() {
  const std::string package = text();
  return {package, package.empty() ? "" : text()};
}

void Match::expect(double value) {
  std::uint64_t bits = 0;  // there are values that do not equal themselves
  std::memcpy(&bits, &value, sizeof(bits));
  require(bits == number<std::uint64_t>(), "a double has the bits on the wire");
}

void Match::expect(const std::string& value) {
  const std::string wanted = text();
  require(!m_paired || value == wanted, "a string is the one on the wire");
  require(value.size() <= wanted.size(), "surrogates without a partner become three bytes at most");
}

void Match::expect(const std::vector<std::string>& values) {
  const auto count = static_cast<std::size_t>(std::clamp(i32(), 0, 1000));
  require(values.size() == count, "an array has its announced size, up to 1,000");
  for (const std::string& value : values) expect(value);
}

void Match::expect(const service_apis::ComponentName& component) {
  const auto [package, name] = this->component();
  require(!m_paired || (component.package_name == package && component.class_name == name),
          "a component is the one on the wire");
  require(component.good() == (!package.empty() && !name.empty()), "a component is good with both its parts");
}

// An entry of an unknown type ends them. An OrvelBundle does not know 64-bit numbers.
template <typename AnyBundle>
void Match::expectEntries(const AnyBundle& bundle, int count) {
  constexpr bool kHasLongs = std::is_same_v<AnyBundle, service_apis::Bundle>;
  std::set<std::pair<int, std::string>> keys;
  std::size_t longs = 0;
  const auto is_kept = [&](int type, const std::string& key, const auto& value, const auto& otherwise) {
    if (m_failed || !keys.insert({type, key}).second) return;
    require(!m_paired || bundle.get(key, otherwise) == value, "the first value of a key is kept");
  };
  for (; count > 0 && !m_failed; --count) {
    const std::string key = text();
    const int type = i32();
    if (type == 0) {
      const std::string value = text();
      is_kept(0, key, value, value + "?");
    } else if (type == 1 || type == 9) {
      const int value = i32();
      is_kept(1, key, value, ~value);
    } else if (kHasLongs && type == 6) {
      const auto value = number<long long>();
      const std::size_t others = keys.size();
      if constexpr (kHasLongs) is_kept(6, key, value, ~value);
      longs += keys.size() - others;
    } else if (type != -1) {
      break;
    }
  }
  const std::size_t size = keys.size() - longs;
  require(bundle.size() == size || (!m_paired && bundle.size() < size), "a bundle has every entry once");
}

void Match::expect(const service_apis::Bundle& bundle) {
  expectEntries(bundle, i32());
}

void Match::expect(const service_apis::OrvelBundle& bundle) {
  constexpr int kMaxMetadata = 30;
  i32();
  expectEntries(bundle, std::min(i32(), kMaxMetadata));
}

void Match::expect(const service_apis::OrvelIntent& intent) {
  const bool marked = mark();
  Match& wire = when(i32() > 0 && marked);
  wire.expectAll(intent.action, intent.data, intent.text3, intent.package);
  wire.when(wire.mark()).expect(intent.component);
  wire.when(wire.mark()).expect(intent.extras);
  require(intent.categories.empty() && intent.flags == 0, "intents arrive without categories and flags");
}

void Match::expectBroadcast(const std::string& action, const std::string& data, const service_apis::Bundle& extras) {
  const bool marked = mark();
  Match& wire = when(i32() > 0 && marked);
  wire.expectAll(action, data);
  for (int unheard = 0; unheard < 2; ++unheard) wire.text();
  if (wire.mark()) wire.component();
  wire.when(wire.mark()).expect(extras);
}

// The fourth text comes before the third.
void Match::expect(const service_apis::OrvelSimDirective& directive) {
  expectAll(directive.directive1, directive.directive2, directive.directive4, directive.directive3,
            directive.directive5, directive.directive6, directive.directive7);
}

// No code is read behind a mark of 0, and none that is cut off is a success.
void Match::expect(service_apis::OrvelSimEventResult_t result) {
  constexpr int kUnknown = 6;
  const int code = i32() == 0 ? kUnknown : i32();
  const bool known = !failed() && code >= 0 && code < kUnknown;
  require(static_cast<int>(result) == (known ? code : kUnknown), "a result is one of seven");
}

void Match::expectSameEnd(vesk_buffer* buffer) const {
  require((vesk_buffer_last_error(buffer) != 0) == m_failed, "a read fails exactly when the bytes end or are damaged");
  require(vesk_buffer_remaining(buffer) == m_left.size, "a reader leaves what is not its own");
  if (!m_failed) return;
  unsigned int length = 1;
  require(vesk_read_i32(buffer) == 0 && vesk_read_i64(buffer) == 0 && vesk_read_array_length(buffer) == 0 &&
              vesk_read_utf16_string(buffer, &length) == nullptr && length == 0 && vesk_buffer_last_error(buffer) != 0,
          "behind an error there is nothing");
}

}  // namespace orvel::fuzz

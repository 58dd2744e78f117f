#include "Match.h"

#include <android/log.h>

#include <algorithm>
#include <cstring>
#include <type_traits>
#include <utility>

namespace orvel::fuzz {
namespace {

// Every damaged message makes the library log.
[[maybe_unused]] const int kSilent = (__android_log_set_minimum_priority(ANDROID_LOG_SILENT), 0);

}  // namespace

Match& Match::when(bool present) {
  static Match nothing({nullptr, 0});
  nothing.i32();  // from here on it has failed
  return present ? *this : nothing;
}

void Match::expect(double value) {
  const double wanted = f64();  // compared as bits: there are values that do not equal themselves
  // NOLINTNEXTLINE(bugprone-suspicious-memory-comparison,cert-exp42-c,cert-flp37-c)
  require(std::memcmp(&wanted, &value, sizeof(value)) == 0, "a double has the bits on the wire");
}

void Match::expect(const std::string& value) {
  const std::string wanted = text();
  require(!paired() || value == wanted, "a string is the one on the wire");
  require(value.size() <= wanted.size(), "surrogates without a partner become three bytes at most");
}

void Match::expect(const std::vector<std::string>& values) {
  const auto count = static_cast<std::size_t>(std::clamp(i32(), 0, kMaxTexts));
  require(values.size() == count, "an array has its announced size, up to 1,000");
  for (const std::string& value : values) expect(value);
}

void Match::expect(const service_apis::ComponentName& component) {
  const auto [package, name] = this->component();
  require(!paired() || (component.package_name == package && component.class_name == name),
          "a component is the one on the wire");
  require(component.good() == (!package.empty() && !name.empty()), "a component is good with both its parts");
}

template <typename AnyBundle>
void Match::expectEntries(const AnyBundle& bundle, const test::Entries& wanted) const {
  const std::size_t size = wanted.numbers.size() + wanted.texts.size();
  if (!paired()) return require(bundle.size() <= size, "a bundle has no more entries than were sent");
  require(bundle.size() == size, "a bundle has every entry once");
  const auto is_kept = [&bundle](const auto& entry, const auto& otherwise) {
    require(bundle.get(entry.first, otherwise) == entry.second, "the first value of a key is kept");
  };
  for (const auto& entry : wanted.numbers) is_kept(entry, ~entry.second);
  for (const auto& entry : wanted.texts) is_kept(entry, entry.second + "?");
  if constexpr (std::is_same_v<AnyBundle, service_apis::Bundle>) {
    for (const auto& entry : wanted.longs) is_kept(entry, ~entry.second);
  }
}

void Match::expect(const service_apis::Bundle& bundle) {
  expectEntries(bundle, entries(i32(), true));
}

void Match::expect(const service_apis::OrvelBundle& bundle) {
  constexpr int kMaxMetadata = 30;
  i32();
  expectEntries(bundle, entries(std::min(i32(), kMaxMetadata), false));
}

void Match::expect(const service_apis::OrvelIntent& intent) {
  const test::Intent wanted = this->intent();
  expectEntries(intent.extras, wanted.extras);
  require(intent.categories.empty() && intent.flags == 0, "intents arrive without categories and flags");
  if (!paired()) return;
  require(intent.action == wanted.action && intent.data == wanted.data && intent.text3 == wanted.text3 &&
              intent.package == wanted.package,
          "the texts of an intent are those on the wire");
  require(
      intent.component.package_name == wanted.component.first && intent.component.class_name == wanted.component.second,
      "the component of an intent is the one on the wire");
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
  require((vesk_buffer_last_error(buffer) != 0) == failed(), "a read fails exactly when the bytes end or are damaged");
  require(vesk_buffer_remaining(buffer) == left(), "a reader leaves what is not its own");
  if (!failed()) return;
  unsigned int length = 1;
  require(vesk_read_i32(buffer) == 0 && vesk_read_i64(buffer) == 0 && vesk_read_array_length(buffer) == 0 &&
              vesk_read_utf16_string(buffer, &length) == nullptr && length == 0 && vesk_buffer_last_error(buffer) != 0,
          "behind an error there is nothing");
}

}  // namespace orvel::fuzz

#include "device/Wire.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <vector>

namespace orvel::sim {
namespace {

TEST(Wire, WhatIsNoTextBecomesTheReplacementCharacterAndLosesNothingElse) {
  const struct {
    const char* what;
    std::u16string units;
    const char* text;
  } rows[] = {
      {"ASCII, and what has two and three bytes", u"a\u00e9\u20ac", "a\u00e9\u20ac"},
      {"the first and the last pair", u"\U00010000\U0010FFFF", "\U00010000\U0010FFFF"},
      {"a first half at the end", {0xD83D}, "\uFFFD"},
      {"a first half before something else", {0xD83D, u'a'}, "\uFFFDa"},
      {"two first halves and a second", {0xD83D, 0xD83D, 0xDE00}, "\uFFFD\U0001F600"},
      {"a second half alone", {0xDE00, u'a'}, "\uFFFDa"},
      {"halves in the wrong order", {0xDE00, 0xD83D}, "\uFFFD\uFFFD"},
      {"neighbours of the halves", {0xD7FF, 0xE000}, "\uD7FF\uE000"},
  };
  for (const auto& row : rows) {
    std::vector<std::uint16_t> units(row.units.begin(), row.units.end());
    EXPECT_EQ(toUtf8(units.data(), units.size()), row.text) << row.what;
  }
}

}  // namespace
}  // namespace orvel::sim

#include "tools/cli/Text.h"

#include <locale.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <cwchar>

namespace orvel::cli {
namespace {

constexpr char32_t kNoCharacter = 0xFFFFFFFF;

// The character that begins at `at`, of `length` bytes; kNoCharacter, of one, for what is no UTF-8.
char32_t characterAt(const std::string& text, std::size_t at, std::size_t& length) {
  const auto byte = [&](std::size_t offset) { return static_cast<unsigned char>(text[at + offset]); };
  const unsigned first = byte(0);
  length = first < 0x80 ? 1 : first >= 0xC2 && first < 0xE0 ? 2 : first >= 0xE0 && first < 0xF0 ? 3 : 4;
  if (length == 1) return first;
  constexpr std::array<char32_t, 5> kLeast = {0, 0, 0x80, 0x800, 0x10000};
  char32_t character = first & (0xFFU >> (length + 1));
  bool valid = first >= 0xC2 && first < 0xF5 && at + length <= text.size();
  for (std::size_t offset = 1; valid && offset < length; ++offset) {
    valid = (byte(offset) & 0xC0U) == 0x80;
    character = (character << 6U) | (byte(offset) & 0x3FU);
  }
  valid = valid && character >= kLeast[length] && character <= 0x10FFFF && (character < 0xD800 || character > 0xDFFF);
  if (valid) return character;
  length = 1;
  return kNoCharacter;
}

// Also those that turn the direction of what follows, or break the line.
bool isControl(char32_t character) {
  return character < 0x20 || (character >= 0x7F && character < 0xA0) || (character >= 0x2028 && character <= 0x202E) ||
         (character >= 0x2066 && character <= 0x2069);
}

// "\x1b" for 'x' and two digits.
std::string escaped(char letter, int digits, std::uint32_t value) {
  std::array<char, 16> text{};
  std::snprintf(text.data(), text.size(), "\\%c%0*x", letter, digits, value);
  return text.data();
}

std::string escaped(char32_t character) {
  switch (character) {
    case '\n':
      return "\\n";
    case '\r':
      return "\\r";
    case '\t':
      return "\\t";
    default:
      return character < 0x80 ? escaped('x', 2, character) : escaped('u', 4, character);
  }
}

// Whatever the language of the terminal is, its text is UTF-8 here.
std::size_t columnsFor(char32_t character) {
  static const locale_t s_locale = newlocale(LC_CTYPE_MASK, "C.UTF-8", nullptr);
  if (s_locale == nullptr) return 1;
  const locale_t before = uselocale(s_locale);
  const int width = wcwidth(static_cast<wchar_t>(character));
  uselocale(before);
  return width < 0 ? 1 : static_cast<std::size_t>(width);
}

// How unlike two words are: the letters to insert, to remove or to exchange.
std::size_t distance(const std::string& a, const std::string& b) {
  std::vector<std::size_t> row(b.size() + 1);
  for (std::size_t j = 0; j <= b.size(); ++j) row[j] = j;
  for (std::size_t i = 1; i <= a.size(); ++i) {
    std::size_t diagonal = row[0]++;
    for (std::size_t j = 1; j <= b.size(); ++j) {
      const std::size_t exchanged = diagonal + (std::tolower(a[i - 1]) == std::tolower(b[j - 1]) ? 0 : 1);
      diagonal = row[j];
      row[j] = std::min({exchanged, row[j] + 1, row[j - 1] + 1});
    }
  }
  return row.back();
}

}  // namespace

std::string printable(const std::string& text) {
  std::string safe;
  std::size_t length = 0;
  for (std::size_t at = 0; at < text.size(); at += length) {
    const char32_t character = characterAt(text, at, length);
    if (character == kNoCharacter) {
      safe += escaped('x', 2, static_cast<unsigned char>(text[at]));
    } else if (isControl(character)) {
      safe += escaped(character);
    } else if (character == '\\') {
      safe += "\\\\";
    } else {
      safe.append(text, at, length);
    }
  }
  return safe;
}

std::string jsonText(const nlohmann::ordered_json& json, int indent) {
  return printableJson(json.dump(indent, ' ', false, nlohmann::ordered_json::error_handler_t::replace));
}

std::string printableJson(const std::string& text) {
  std::string safe;
  std::size_t length = 0;
  for (std::size_t at = 0; at < text.size(); at += length) {
    const char32_t character = characterAt(text, at, length);
    if (isControl(character) && character != '\n') {
      safe += escaped('u', 4, character);
    } else {
      safe.append(text, at, length);
    }
  }
  return safe;
}

std::string shellWord(const std::string& text) {
  const std::string shown = printable(text);
  constexpr char kPlain[] = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789/._-+:,=@";
  if (!text.empty() && text.find_first_not_of(kPlain) == std::string::npos) return text;
  const bool isEscaped = shown != text;
  std::string word = isEscaped ? "$'" : "'";
  for (const char c : shown) word += c == '\'' ? std::string(isEscaped ? "\\'" : "'\\''") : std::string(1, c);
  return word + "'";
}

std::string padded(const std::string& text, std::size_t width, std::size_t gap) {
  const std::size_t taken = widthOf(text);
  return text + std::string(std::max(taken + gap, width) - taken, ' ');
}

std::size_t widthOf(const std::string& text) {
  std::size_t columns = 0;
  std::size_t length = 0;
  for (std::size_t at = 0; at < text.size(); at += length) columns += columnsFor(characterAt(text, at, length));
  return columns;
}

std::string cutTo(const std::string& text, std::size_t columns) {
  std::size_t length = 0;
  std::size_t used = 0;
  std::size_t end = 0;  // of what is left beside the mark
  for (std::size_t at = 0; at < text.size(); at += length) {
    used += columnsFor(characterAt(text, at, length));
    if (used > columns) return columns == 0 ? "" : text.substr(0, end) + "…";
    if (used < columns) end = at + length;
  }
  return text;
}

std::size_t columnsOf(int stream) {
  const char* const given = std::getenv("COLUMNS");
  std::size_t columns = 0;
  if (given != nullptr) std::from_chars(given, given + std::strlen(given), columns);
  winsize size{};
  if (columns == 0 && isatty(stream) != 0 && ioctl(stream, TIOCGWINSZ, &size) == 0) columns = size.ws_col;
  return columns;
}

std::string joined(const std::vector<std::string>& words) {
  std::string text;
  for (const std::string& word : words) text += (text.empty() ? "" : ", ") + word;
  return text;
}

std::string didYouMean(const std::string& word, const std::vector<std::string>& known) {
  const std::string* best = nullptr;
  std::size_t least = std::max<std::size_t>(word.size() / 3, 1) + 1;  // a third of the letters may be wrong
  for (const std::string& name : known) {
    const std::size_t unlike = distance(word, name);
    if (unlike < least) {
      least = unlike;
      best = &name;
    }
  }
  return best == nullptr ? "" : "; did you mean " + *best + "?";
}

}  // namespace orvel::cli

#include "tools/cli/TypedWord.h"

#include <cstring>

namespace orvel::cli {
namespace {

bool isSpace(char c) {
  return c == ' ' || c == '\t' || c == '\n';
}

// The characters that the shell would not leave alone, outside of quotes and between double ones.
constexpr char kSpecial[] = " \t\n\\\"'`$&|;<>()*?[]{}#~!";
constexpr char kSpecialInDouble[] = "\\\"$`";

bool isOneOf(char c, const char* characters) {
  return c != '\0' && std::strchr(characters, c) != nullptr;
}

}  // namespace

TypedWord::TypedWord(const std::string& line, const std::string& breaks) {
  bool between = true;
  for (std::size_t at = 0; at < line.size(); ++at) {
    const char c = line[at];
    if (m_quote == '\0' && isSpace(c)) {
      between = true;
      continue;
    }
    if (between) {
      m_words.emplace_back();
      m_kept = 0;
      between = false;
    }
    std::string& word = m_words.back();
    const char next = at + 1 < line.size() ? line[at + 1] : '\0';
    if (c == '\\' && (m_quote == '\0' || (m_quote == '"' && isOneOf(next, kSpecialInDouble)))) {
      if (next != '\0') word += line[++at];
    } else if (c == m_quote) {
      m_quote = '\0';
      m_kept = word.size();
    } else if (m_quote == '\0' && (c == '"' || c == '\'')) {
      m_quote = c;
      m_kept = word.size();
    } else {
      word += c;
      if (m_quote == '\0' && breaks.find(c) != std::string::npos) m_kept = word.size();
    }
  }
  if (between) {
    m_words.emplace_back();
    m_kept = 0;
  }
}

std::optional<std::string> TypedWord::completedBy(const std::string& candidate) const {
  if (candidate.compare(0, text().size(), text()) != 0) return std::nullopt;
  std::string quoted;
  for (const char c : candidate.substr(m_kept)) {
    if (m_quote == '\'' && c == '\'') {
      quoted += "'\\''";
      continue;
    }
    if (m_quote != '\'' && isOneOf(c, m_quote == '"' ? kSpecialInDouble : kSpecial)) quoted += '\\';
    quoted += c;
  }
  return quoted;
}

}  // namespace orvel::cli

// The command line as it stands in a shell while its last word is being typed.
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <vector>

namespace orvel::cli {

// The word at the end of a line of bash, as that splits and quotes words; nothing is expanded. An immutable value.
class TypedWord {
 public:
  // `line` ends at the cursor; `breaks` is COMP_WORDBREAKS, at whose characters the shell's editor ends what it
  // replaces.
  TypedWord(const std::string& line, const std::string& breaks);

  // What has been typed of it, without quotes.
  const std::string& text() const { return m_words.back(); }

  // The words in front of it, the program first.
  std::vector<std::string> before() const { return {m_words.begin(), m_words.end() - 1}; }

  // What the shell is to put in place of what it replaces, quoted as the word is; nothing for a candidate that does not
  // begin with what has been typed.
  std::optional<std::string> completedBy(const std::string& candidate) const;

 private:
  std::vector<std::string> m_words;
  char m_quote = '\0';     // the one that is open
  std::size_t m_kept = 0;  // so much of the text stands in front of what the shell replaces
};

}  // namespace orvel::cli

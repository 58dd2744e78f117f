#include "tools/cli/TypedWord.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace orvel::cli {
namespace {

constexpr char kBreaks[] = " \t\n\"'><=;|&(:";

TEST(TypedWord, ACandidateReplacesWhatTheShellReplacesInTheQuotesThatAreOpen) {
  const struct {
    const char *what, *line, *candidate;
    const char* completed;  // null: it does not fit
  } rows[] = {
      {"a word is replaced as a whole", "ctl ge", "get", "get"},
      {"even of a line that is empty", "", "name", "name"},
      {"the shell keeps what stands in front of a colon", "ctl watch setting:so", "setting:some_key", "some_key"},
      {"but not where the colon is quoted", "ctl watch \"setting:so", "setting:some_key", "setting:some_key"},
      {"nor where it is escaped", "ctl watch setting\\:so", "setting:some_key", "setting:some_key"},
      {"an equals sign is a break too", "ctl --level=wa", "--level=warning", "warning"},
      {"a quote that closes within a word ends what is kept", "ctl \"a b\"c", "a bcd", "cd"},
      {"a blank is escaped", "sim set Liv", "Living room", "Living\\ room"},
      {"and understood where it is", "sim set Living\\ r", "Living room", "Living\\ room"},
      {"between quotes it is not", "sim set \"Living r", "Living room", "Living room"},
      {"a quote between its like is taken out", "sim set 'it", "it's", "it'\\''s"},
      {"double quotes leave these alone no more", "sim set \"a", "a\"b$c`d\\e'f", "a\\\"b\\$c\\`d\\\\e'f"},
      {"a backslash between double quotes is mostly itself", "sim set \"a\\b", "a\\bc", "a\\\\bc"},
      {"no command is run", "sim set a", "a$(b)|c", "a\\$\\(b\\)\\|c"},
      {"another word does not fit", "ctl get na", "type", nullptr},
      {"nor a shorter one", "ctl get names", "name", nullptr},
  };
  for (const auto& row : rows) {
    const auto completed = TypedWord(row.line, kBreaks).completedBy(row.candidate);
    EXPECT_EQ(completed.value_or("(none)"), row.completed == nullptr ? "(none)" : row.completed) << row.what;
  }
}

TEST(TypedWord, WordsInFrontAreWhatTheProgramWouldGet) {
  const std::vector<std::string> words = {"ctl", "a b", "c d", ""};
  EXPECT_EQ(TypedWord("ctl  'a b' c\\ d\t\"\" e", kBreaks).before(), words);
  EXPECT_EQ(TypedWord("ctl", kBreaks).before().size(), 0U);
}

}  // namespace
}  // namespace orvel::cli

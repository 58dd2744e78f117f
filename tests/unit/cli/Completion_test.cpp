#include "tools/cli/Completion.h"

#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

#include "tools/cli/TypedWord.h"

namespace orvel::cli {
namespace {

using Words = std::vector<std::string>;

// A program with one of each.
class Completion : public ::testing::Test {
 protected:
  Completion() {
    m_app.fallthrough();
    m_app.add_flag("--json", m_flag);
    m_app.add_option("--level", m_text)->check(CLI::IsMember({"low", "high"}));
    m_app.add_flag("--secret", m_flag)->group("");
    m_app.add_subcommand("hidden", "")->group("");
    CLI::App* get = m_app.add_subcommand("get", "");
    get->add_option("value", m_text)->check(CLI::IsMember({"name", "type"}))->type_name("");
    get->add_option("--es", m_pairs)->type_name("KEY TEXT")->allow_extra_args(false);
    get->add_option("-p,--package", m_text);
    CLI::App* copy = m_app.add_subcommand("copy", "");
    copy->add_option("from", m_text)->type_name("FILE");
    copy->add_option("key", m_text);
    copy->add_option("rest", m_words);
    m_app.add_subcommand("watch", "")->add_option("kinds", m_words);
    m_app.add_subcommand("set", "")->prefix_command();
  }

  CLI::App m_app{"", "ctl"};
  bool m_flag = false;
  std::string m_text;
  Words m_words;
  std::vector<std::pair<std::string, std::string>> m_pairs;
};

TEST_F(Completion, OffersWhatTheParserWouldTakeAtThatPlace) {
  const Values values = {{"--package", {"@packages"}},
                         {"copy key", {"@settings"}},
                         {"rest", {"@rests"}},
                         {"set", {"@fields"}},
                         {"watch kinds", {"screen", "setting:@settings", "broadcast:"}}};
  const struct {
    const char* line;
    Words words;
    const char *kind, *head;
    Words before;
  } rows[] = {
      {"ctl ", {"get", "copy", "watch", "set"}, "", "", {}},
      {"ctl --level ", {"low", "high"}, "", "", {}},
      {"ctl --level=", {"--level=low", "--level=high"}, "", "", {}},
      {"ctl --level low -", {"--help", "-h", "--json", "--level"}, "", "", {}},
      {"ctl get -", {"--help", "-h", "--es", "--package", "-p", "--help", "-h", "--json", "--level"}, "", "", {}},
      {"ctl get ", {"name", "type"}, "", "", {}},
      {"ctl get --es k v ", {"name", "type"}, "", "", {}},
      {"ctl get --es k ", {}, "", "", {"k"}},
      {"ctl get -- -", {"name", "type"}, "", "", {}},
      {"ctl get --package ", {}, "packages", "", {}},
      {"ctl get --package=x", {}, "packages", "--package=", {}},
      {"ctl copy ", {}, kFileNames, "", {}},
      {"ctl copy f ", {}, "settings", "", {}},
      {"ctl copy f k ", {}, "rests", "", {}},
      {"ctl copy f k r1 --level low r2 ", {}, "rests", "", {"r1", "r2"}},
      {"ctl copy get ", {}, "settings", "", {}},  // a word that is no subcommand here
      {"ctl watch screen setting:s", {"screen", "broadcast:"}, "settings", "setting:", {"screen"}},
      {"ctl set a -3 --x ", {}, "fields", "", {"a", "-3", "--x"}},
      {"ctl set a -", {}, "fields", "", {"a"}},
      {"ctl unknown word ", {}, "", "", {}},
  };
  for (const auto& row : rows) {
    const Candidates found = candidates(m_app, TypedWord(row.line, ""), values);
    EXPECT_EQ(found.words, row.words) << row.line;
    EXPECT_EQ(found.kind, row.kind) << row.line;
    EXPECT_EQ(found.head, row.head) << row.line;
    EXPECT_EQ(found.before, row.before) << row.line;
  }
}

constexpr char kBreaks[] = " \t\n\"'><=;|&(:";

TEST(TypedWord, ACandidateReplacesWhatTheShellReplacesInTheQuotesThatAreOpen) {
  const struct {
    const char *what, *line, *candidate;
    const char* completed;  // null: it does not fit
  } rows[] = {
      {"a word is replaced as a whole", "ctl ge", "get", "get"},
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
  const Words words = {"ctl", "a b", "c d", ""};
  EXPECT_EQ(TypedWord("ctl  'a b' c\\ d\t\"\" e", kBreaks).before(), words);
  EXPECT_EQ(TypedWord("ctl", kBreaks).before().size(), 0U);
}

}  // namespace
}  // namespace orvel::cli

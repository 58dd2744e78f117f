#include "tools/cli/ManPage.h"

#include <gtest/gtest.h>

#include <string>

namespace orvel::cli {
namespace {

TEST(ManPage, HasEachSubcommandOnceAndAsTextWhatRoffWouldTakeForItsOwn) {
  std::string text;
  CLI::App app("Does 'it' with \\fB, \"quotes\" and a - dash.", "ctl");
  app.add_option("-o,--out-file", text, ".file of the result")->type_name("FILE");
  CLI::Option* plain = app.add_flag("--plain", "no colours");
  for (const char* other : {"--tint", "--bold"}) plain->excludes(app.add_flag(other));
  app.add_flag("--secret")->group("");
  app.add_subcommand("hidden", "")->group("");
  app.footer(".so much\n\nFiles:\n  '.ctl'  ~user `x` ^\n  .   a dot\n\nAs a text\n\nExamples:\n  ctl one");
  CLI::App* group = app.add_subcommand("group", "Is a group")->require_subcommand(1);
  for (const char* name : {"one", "two"}) {
    CLI::App* each = group->add_subcommand(name, std::string("Does ") + name)->alias(std::string(name) + "-too");
    each->add_option("value", text, "what")->required()->check(CLI::IsMember({"a", "b"}))->capture_default_str();
    each->add_option("bare", text)->type_name("");
    each->footer("Values:\n  a  first\n  b  second");
  }
  const std::string page = manPage(app, "other");
  for (const char* part : {
           "ctl \\- does \\(aqit\\(aq with \\efB, \\(dqquotes\\(dq and a \\- dash",
           "\\fB\\-o\\fR, \\fB\\-\\-out\\-file\\fR \\fIFILE\\fR\n\\&.file of the result",
           "no colours; not with \\-\\-bold; not with \\-\\-tint\n",
           ".PP\n\\&.so much\n",
           (".SH FILES\n.RS 2\n.nf\n\\(aq.ctl\\(aq  \\(tiuser \\(gax\\(ga \\(ha\n\\&.   a dot\n.fi\n.RE\n.PP\n"
            "As a text\n"),
           ".SH EXAMPLES\n.RS 2\n.nf\nctl one\n.fi\n.RE\n",
           ".SH SEE ALSO\n\\fBother\\fR(1)\n",
           ".SS ctl group\nctl group [OPTIONS] SUBCOMMAND\n.PP\nIs a group.\n.SS ctl group one\n",
           ("ctl group one [OPTIONS] value [bare]\n.br\nAlso \\fBone\\-too\\fR.\n.PP\nDoes one.\n"
            ".TP\n\\fBvalue\\fR\nwhat; one of a, b\n"
            ".PP\nValues:\n.RS 2\n.nf\na  first\nb  second\n.fi\n.RE\n"),
           ".PP\nValues: as for \\fBctl group one\\fR.\n",
       }) {
    EXPECT_NE(page.find(part), std::string::npos) << part << "\nis not in\n" << page;
  }
  for (const char* hidden : {"hidden", "secret"}) EXPECT_EQ(page.find(hidden), std::string::npos) << hidden;
  EXPECT_EQ(page.find("ctl one"), page.rfind("ctl one"));
}

}  // namespace
}  // namespace orvel::cli

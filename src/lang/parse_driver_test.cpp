#include "lang/parse_driver.hpp"

#include <gtest/gtest.h>

#include <sstream>

#include "lang/registry.hpp"
#include "lang/test_families.hpp"

namespace kx::lang {
namespace {

using testing::Call;

class ParserTest : public ::testing::Test {
 protected:
  ParserTest() {
    testing::add_recording_family(registry, "fs", ':', {"cat"}, calls);
    testing::add_recording_family(registry, "fsvctl", ':', {"log", "checkin"}, calls);
    testing::add_recording_family(registry, "fsmk", ':', {"file"}, calls);
    session = std::make_unique<Session>(registry);
  }
  int parse(std::string_view text) {
    out.str("");
    err.str("");
    return parse_string(*session, text, out, err);
  }

  Registry registry;
  std::vector<Call> calls;
  std::unique_ptr<Session> session;
  std::ostringstream out, err;
};

TEST_F(ParserTest, CommandLinesRunAndPrintTheirResults) {
  EXPECT_EQ(parse("fs:cat a.txt\nfsvctl:log b.txt\n"), kAccepted);
  EXPECT_EQ(out.str(), "OK: cat\nOK: log\n");
  ASSERT_EQ(calls.size(), 2u);
  EXPECT_EQ(calls[0].args, "a.txt");
}

TEST_F(ParserTest, DotSpellingIsTheSameCommand) {
  parse("fsvctl.log x\nfsvctl:log x\n");
  ASSERT_EQ(calls.size(), 2u);
  EXPECT_EQ(calls[0].verb, calls[1].verb);
  EXPECT_EQ(calls[0].args, calls[1].args);
}

TEST_F(ParserTest, CdataBodyKeepsNewlinesPipesAndColonsInOneCommand) {
  EXPECT_EQ(
      parse("fsmk:file a.txt <content><![CDATA[line 1 | x\nfs:cat y; }\n]]></content>\nfs:cat z\n"),
      kAccepted);
  ASSERT_EQ(calls.size(), 2u);
  EXPECT_EQ(calls[0].args, "a.txt <content><![CDATA[line 1 | x\nfs:cat y; }\n]]></content>");
  EXPECT_EQ(calls[1].args, "z");
}

TEST_F(ParserTest, UnknownFirstWordIsReportedAndParsingGoesOn) {
  EXPECT_EQ(parse("frobnicate the thing\nfs:cat a\n"), kSyntaxError);
  EXPECT_EQ(err.str(),
            "fs parse error: syntax error — line not understood; plain English works (try: "
            "Kestrune help)\n");
  EXPECT_EQ(out.str(), "OK: cat\n");
}

TEST_F(ParserTest, BrokenStatementDoesNotSwallowTheNextLine) {
  EXPECT_EQ(parse("while (x < ) { x++\nfs:cat after\n"), kSyntaxError);
  EXPECT_EQ(out.str(), "OK: cat\n");
}

TEST_F(ParserTest, OversizedNumberIsASyntaxErrorNotACrash) {
  EXPECT_EQ(parse("x = 99999999999999999999999\nfs:cat a\n"), kSyntaxError);
  EXPECT_EQ(out.str(), "OK: cat\n");
}

TEST_F(ParserTest, InputWithoutFinalNewlineStillRuns) {
  EXPECT_EQ(parse("fs:cat last"), kAccepted);
  EXPECT_EQ(out.str(), "OK: cat\n");
}

TEST_F(ParserTest, ScriptPrintsTheCanonicalTextOfEveryNodeKind) {
  const char* canonical[] = {
      "if (x == 1) y = 2 else y = 3",
      "while (x < 10 && y != 2) x++",
      "do x-- while (x >= 0)",
      "for (i = 0; i <= 3; i++) fs:cat f$i",
      "for (i = 1..5) fs:cat a",
      "x = (1 + 2) * 3",
      "action(deploy, turn(2).$[1])",
      "promote(build, 3..5)",
      "if (name =~ \"*.txt\" || x > 2) y = 1",
  };
  for (const char* text : canonical) {
    EXPECT_EQ(parse(std::string("script ") + text + "\n"), kAccepted) << text;
    EXPECT_EQ(out.str(), std::string(text) + "\n");
  }
  parse("script\n");
  EXPECT_EQ(out.str(), "ERROR: empty script\n");
}

TEST_F(ParserTest, BlocksPrintAsStatementsJoinedBySemicolons) {
  parse("script x = 1; { y = 2\n z = 3 }; fs:cat a\n");
  EXPECT_EQ(out.str(), "x = 1; y = 2; z = 3; fs:cat a\n");
}

TEST_F(ParserTest, LoopsBindVariablesIntoCommandArguments) {
  EXPECT_EQ(parse("for (i = 1..3) fs:cat file$i.txt\n"), kAccepted);
  ASSERT_EQ(calls.size(), 3u);
  EXPECT_EQ(calls[2].args, "file3.txt");
  calls.clear();
  parse("n = 0; while (n < 2) { n++; fsvctl:log v${n} }\n");
  ASSERT_EQ(calls.size(), 2u);
  EXPECT_EQ(calls[0].args, "v1");
  EXPECT_EQ(calls[1].args, "v2");
}

TEST_F(ParserTest, VariablesPersistAcrossLines) {
  parse("x = 5\nif (x > 4) { fs:cat big } else { fs:cat small }\n");
  ASSERT_EQ(calls.size(), 1u);
  EXPECT_EQ(calls[0].args, "big");
}

TEST_F(ParserTest, RunawayLoopStopsAtTheStepLimit) {
  EXPECT_EQ(parse("while (1) x++\nfs:cat after\n"), kAccepted);
  EXPECT_EQ(out.str(), "ERROR: step limit reached (runaway loop?) — script halted\nOK: cat\n");
}

TEST_F(ParserTest, OneCallsArgumentsAreOneCommandLine) {
  ScriptVariables vars;
  EXPECT_EQ(
      run_unit(*session, "fsmk:file a.txt body\nfs:cat b", UnitForm::kArguments, vars, out, err),
      kAccepted);
  ASSERT_EQ(calls.size(), 1u);
  EXPECT_EQ(calls[0].args, "a.txt body\nfs:cat b");
  // Statements split by a newline still run in order, and their variables carry over.
  EXPECT_EQ(run_unit(*session, "x = 1\nx++", UnitForm::kArguments, vars, out, err), kAccepted);
  EXPECT_EQ(run_unit(*session, "if (x > 0) fs:cat f$x", UnitForm::kLines, vars, out, err),
            kAccepted);
  EXPECT_EQ(calls.back().args, "f2");
}

TEST_F(ParserTest, NulBytesAndOversizedUnitsAreRefusedWhole) {
  ScriptVariables vars;
  std::string with_nul("fsmk:file a.txt x\0y", 19);
  EXPECT_EQ(run_unit(*session, with_nul, UnitForm::kLines, vars, out, err), kSyntaxError);
  std::string huge = "fsmk:file a.txt " + std::string(kMaxUnitBytes, 'x');
  EXPECT_EQ(run_unit(*session, huge, UnitForm::kArguments, vars, out, err), kSyntaxError);
  EXPECT_TRUE(calls.empty());
  EXPECT_EQ(out.str().substr(0, 40), "ERROR: the command holds a NUL byte, whi");
}

TEST_F(ParserTest, LongTokensAndDeepNestingNeverEndTheProcess) {
  // A body far beyond the scanner's read size, then the next line as usual.
  std::string body(200000, 'b');
  EXPECT_EQ(parse("fsmk:file a <![CDATA[" + body + "]]>\nfs:cat after\n"), kAccepted);
  ASSERT_EQ(calls.size(), 2u);
  EXPECT_EQ(calls[0].args.size(), body.size() + 14);
  for (const std::string& deep : {std::string(30000, '{'), "x = " + std::string(30000, '(') + "1",
                                  "x = " + std::string(30000, '!') + "1"}) {
    err.str("");
    EXPECT_EQ(parse(deep + "\nfs:cat next\n"), kSyntaxError);
    EXPECT_NE(err.str().find("nesting deeper than 1000 levels"), std::string::npos);
  }
  EXPECT_EQ(calls.back().args, "next");
  EXPECT_EQ(parse("x = " + std::string(900, '(') + "1" + std::string(900, ')') + "\n"), kAccepted);
}

TEST_F(ParserTest, ABlockMayOpenAtTheEndOfALine) {
  EXPECT_EQ(parse("for (i = 1..2) {\n  fs:cat a$i\n}\n"), kAccepted);
  ASSERT_EQ(calls.size(), 2u);
  EXPECT_EQ(calls[1].args, "a2");
}

TEST_F(ParserTest, PromptPrecedesEveryLineAtAConsole) {
  std::string input = "fs:cat a\nfs:cat b\n";
  std::size_t pos = 0;
  // A console hands over one line per read.
  InputReader reader = [&](char* buffer, std::size_t max) {
    std::size_t end = input.find('\n', pos);
    std::size_t n = std::min(max, (end == std::string::npos ? input.size() : end + 1) - pos);
    std::copy_n(input.data() + pos, n, buffer);
    pos += n;
    return n;
  };
  session->cwd = "/w";
  EXPECT_EQ(parse_input(*session, reader, true, out, err), kAccepted);
  EXPECT_EQ(out.str(), "kx/w> OK: cat\nkx/w> OK: cat\nkx/w> \n");
}

}  // namespace
}  // namespace kx::lang

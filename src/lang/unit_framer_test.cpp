#include "lang/unit_framer.hpp"

#include <gtest/gtest.h>

#include <vector>

namespace kx::lang {
namespace {

// Frames `input` fed in pieces of `piece` bytes, to catch state lost between reads.
std::vector<std::string> frame(std::string_view input, std::size_t piece) {
  UnitFramer framer;
  std::vector<std::string> units;
  for (std::size_t at = 0; at < input.size(); at += piece) {
    framer.add(input.substr(at, piece));
    while (auto unit = framer.next()) units.push_back(*unit);
  }
  while (auto unit = framer.finish()) units.push_back(*unit);
  return units;
}

}  // namespace

TEST(UnitFramer, CdataAndBracedStatementsSpanLinesWhateverTheReadSize) {
  std::string input =
      "fs:cat a\n"
      "\n"
      "fsmk:file b <content><![CDATA[one {\n}\n\"two]]></content>\n"
      "for (i = 0; i < 2; i++) {\n  fs:cat \"}\"\n  s = \"{\"\n}\n"
      "fs:write c {not a block\n"
      "last without newline";
  std::vector<std::string> expected = {
      "fs:cat a\n",
      "fsmk:file b <content><![CDATA[one {\n}\n\"two]]></content>\n",
      "for (i = 0; i < 2; i++) {\n  fs:cat \"}\"\n  s = \"{\"\n}\n",
      "fs:write c {not a block\n",
      "last without newline",
  };
  for (std::size_t piece : {1u, 3u, 7u, 4096u}) EXPECT_EQ(frame(input, piece), expected) << piece;
}

TEST(UnitFramer, AnUnclosedBlockIsHandedOverWholeAtTheEnd) {
  EXPECT_EQ(frame("fsmk:file x <![CDATA[a\nb\n", 5),
            std::vector<std::string>{"fsmk:file x <![CDATA[a\nb\n"});
  EXPECT_EQ(frame("{ fs:cat a\n", 64), std::vector<std::string>{"{ fs:cat a\n"});
}

TEST(UnitFramer, StatementStartsMatchTheScanner) {
  for (const char* line : {"x = 1", "i++", "n --", "if (a) fs:cat b", "while(x)", "do { }",
                           "script x = 1", "action(build)", "{ fs:cat a }"})
    EXPECT_TRUE(starts_statement(line)) << line;
  for (const char* line : {"fs:cat a", "x == 1", "x =~ y", "Kestrune: for (a) {", "iffy (x)",
                           "?(keywords()==build*)", "script"})
    EXPECT_EQ(starts_statement(line), std::string_view(line) == "script") << line;
}

}  // namespace kx::lang

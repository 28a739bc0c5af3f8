#include "lang/text.hpp"

#include <gtest/gtest.h>

namespace kx::lang {
namespace {

TEST(GlobMatch, StarAndQuestionMarkCoverTheWholeText) {
  EXPECT_TRUE(glob_match("src/*.cpp", "src/a/b.cpp"));
  EXPECT_TRUE(glob_match("a?c", "abc"));
  EXPECT_TRUE(glob_match("*", ""));
  EXPECT_FALSE(glob_match("a?c", "ac"));
  EXPECT_FALSE(glob_match("*.cpp", "x.cppx"));
  EXPECT_TRUE(glob_match("*x*y*", "..x..x..y"));
}

TEST(GlobMatch, ManyStarsOnALongMissDoNotBlowUp) {
  std::string text(5000, 'a');
  EXPECT_FALSE(glob_match("*a*a*a*a*a*a*a*a*a*a*b", text));
}

TEST(JsonQuoted, EscapesQuotesBackslashesAndControlBytes) {
  EXPECT_EQ(json_quoted("a\"b\\c"), "\"a\\\"b\\\\c\"");
  EXPECT_EQ(json_quoted("l1\nl2\r\t"), "\"l1\\nl2\\r\\t\"");
  EXPECT_EQ(json_quoted(std::string("\x01\x1f", 2)), "\"\\u0001\\u001f\"");
  EXPECT_EQ(json_quoted("é"), "\"é\"");
}

TEST(Printable, TerminalControlsBecomeEscapesAndTheRestStays) {
  EXPECT_EQ(printable("title\x1b]0;PWNED\x07.txt"), "title\\x1b]0;PWNED\\x07.txt");
  EXPECT_EQ(printable("a\nb\tc\rd\x7f"), "a\\nb\\tc\\rd\\x7f");
  EXPECT_EQ(printable("é \\ ok"), "é \\ ok");
  // A listing keeps its own layout, but never a control byte of a name.
  EXPECT_EQ(printable_lines("  f  v1\tesc\x1b[31m\n"), "  f  v1\tesc\\x1b[31m\n");
}

}  // namespace
TEST(ValidUtf8, WellFormedTextIsKeptAndEachBrokenRunBecomesOneReplacement) {
  const std::string ok = "a\xC3\xA9\xE2\x9C\x93\xF0\x9F\x98\x80z";  // a é ✓ 😀 z
  EXPECT_EQ(valid_utf8(ok), ok);
  const std::string r = "\xEF\xBF\xBD";
  EXPECT_EQ(valid_utf8("a\xff\xfe b"), "a" + r + r + " b");
  // A truncated sequence is one run; the byte that broke it starts afresh.
  EXPECT_EQ(valid_utf8("\xE2\x9C"
                       "A"),
            r + "A");
  EXPECT_EQ(valid_utf8("x\xF0\x9F\x98"), "x" + r);
  // Overlong forms, UTF-16 halves and values past U+10FFFF are not characters.
  EXPECT_EQ(valid_utf8("\xC0\xAF"), r + r);
  EXPECT_EQ(valid_utf8("\xE0\x80\xAF"), r + r + r);
  EXPECT_EQ(valid_utf8("\xED\xA0\x80"), r + r + r);
  EXPECT_EQ(valid_utf8("\xF4\x90\x80\x80"), r + r + r + r);
  EXPECT_EQ(valid_utf8("\xF4\x8F\xBF\xBF"), "\xF4\x8F\xBF\xBF");  // U+10FFFF itself
}

}  // namespace kx::lang

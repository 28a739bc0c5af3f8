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

}  // namespace
}  // namespace kx::lang

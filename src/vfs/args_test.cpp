#include "vfs/args.hpp"

#include <gtest/gtest.h>

namespace kst {
namespace {

TEST(Args, PlainWordsAndQuotes) {
  std::string error;
  auto a = parse_args("src/a.txt  \"with blank.txt\" 'q'", error);
  ASSERT_TRUE(a);
  EXPECT_EQ(a->words, (std::vector<std::string>{"src/a.txt", "with blank.txt", "q"}));
}

TEST(Args, ElementsAndCdataMixWithWords) {
  std::string error;
  auto a = parse_args(
      "src/a.txt <content><![CDATA[line1\n</content> <b>x</b>]]></content> <dest>b c</dest>",
      error);
  ASSERT_TRUE(a) << error;
  EXPECT_EQ(a->words, std::vector<std::string>{"src/a.txt"});
  EXPECT_EQ(a->element("content"), "line1\n</content> <b>x</b>");
  EXPECT_EQ(a->element("dest"), "b c");
  EXPECT_EQ(a->get("path", 0), "src/a.txt");
  EXPECT_EQ(a->element("missing"), std::nullopt);
}

TEST(Args, UnclosedElementsAreErrors) {
  std::string error;
  EXPECT_FALSE(parse_args("<path>a.txt", error));
  EXPECT_FALSE(parse_args("<content><![CDATA[abc</content>", error));
  EXPECT_FALSE(parse_args("\"open quote", error));
}

TEST(Args, ALoneAngleBracketIsAWord) {
  std::string error;
  auto a = parse_args("a<b c", error);
  ASSERT_TRUE(a);
  EXPECT_EQ(a->words, (std::vector<std::string>{"a<b", "c"}));
}

}  // namespace
}  // namespace kst

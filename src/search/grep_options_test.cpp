#include "search/grep_options.hpp"

#include <gtest/gtest.h>

namespace kx::search {
namespace {

TEST(SplitGrepWords, QuotesGroupAndBackslashesSurvive) {
  EXPECT_EQ(split_grep_words(R"(-n "a b" '\bx\b' "say \"hi\"" c\.d)"),
            (std::vector<std::string>{"-n", "a b", R"(\bx\b)", "say \"hi\"", R"(c\.d)"}));
  EXPECT_EQ(split_grep_words(R"("")"), (std::vector<std::string>{""}));
}

TEST(ParseGrepOptions, ClustersValuesPatternAndScope) {
  GrepOptions o;
  ASSERT_FALSE(parse_grep_options({"-inA2", "-m", "3", "foo", "src", "-e", "bar", "*.c"}, o));
  EXPECT_TRUE(o.ignore_case && o.line_numbers && o.context);
  EXPECT_EQ(o.after, 2u);
  EXPECT_EQ(o.max_count, 3u);
  EXPECT_EQ(o.patterns, (std::vector<std::string>{"foo", "bar"}));
  EXPECT_EQ(o.scope, (std::vector<std::string>{"src", "*.c"}));

  GrepOptions e;  // with -e first, every plain word is scope; "--" ends flags
  ASSERT_FALSE(parse_grep_options({"-e", "x", "--", "-dir", "--cache=off"}, e));
  EXPECT_EQ(e.scope, (std::vector<std::string>{"-dir", "--cache=off"}));
  GrepOptions s;
  ASSERT_FALSE(parse_grep_options({"--no-cache", "--track=true", "x"}, s));
  EXPECT_EQ(s.cache, false);
  EXPECT_EQ(s.track, true);
}

TEST(ParseGrepOptions, ErrorsAndUsage) {
  auto answer = [](std::vector<std::string> words) {
    GrepOptions o;
    return parse_grep_options(words, o).value_or("(search)");
  };
  EXPECT_EQ(answer({"-A"}), "ERROR: -A needs a number\n");
  EXPECT_EQ(answer({"x", "-C", "-1"}), "ERROR: -C needs a number\n");
  EXPECT_EQ(answer({"-e"}), "ERROR: -e needs a pattern\n");
  EXPECT_EQ(answer({"x", "--exclude"}), "ERROR: --exclude needs a glob\n");
  EXPECT_EQ(answer({"-nZ", "x"}), "ERROR: unknown flag -Z");
  EXPECT_EQ(answer({"--colour", "x"}), "ERROR: unknown flag --colour");
  EXPECT_EQ(answer({"-n"}), kGrepUsage);
  EXPECT_EQ(answer({"x", "--help"}), kGrepUsage);
}

TEST(CombinedPattern, EscapesJoinsAndWraps) {
  GrepOptions o;
  o.patterns = {"a.b", "(c)"};
  o.fixed = true;
  EXPECT_EQ(combined_pattern(o), R"(a\.b|(?:\(c\)))");
  o.words = true;
  EXPECT_EQ(combined_pattern(o), R"(\b(?:a\.b|(?:\(c\)))\b)");
  o.whole_lines = true;  // -x wins over -w
  EXPECT_EQ(combined_pattern(o), R"(^(?:a\.b|(?:\(c\)))$)");
}

}  // namespace
}  // namespace kx::search

#include "memory/verb_args.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace kx::memory {
namespace {

using ::testing::ElementsAre;

TEST(SplitArgs, LastFieldKeepsTheRestWithItsSeparators) {
  EXPECT_THAT(split_args("cli, notes, build, , how to: a, b | c", 5),
              ElementsAre("cli", "notes", "build", "", "how to: a, b | c"));
}

TEST(SplitArgs, FirstSeparatorDecidesBetweenCommaAndBar) {
  EXPECT_THAT(split_args("cli|notes|a, b", 3), ElementsAre("cli", "notes", "a, b"));
  EXPECT_THAT(split_args("cli, a|b, t", 3), ElementsAre("cli", "a|b", "t"));
}

TEST(SplitArgs, FewerFieldsAreReportedAsFewer) {
  EXPECT_THAT(split_args("cli, notes", 3), ElementsAre("cli", "notes"));
  EXPECT_TRUE(split_args("   ", 3).empty());
}

TEST(SplitList, DropsEmptyNames) {
  EXPECT_THAT(split_list(" notes | work;; ", "|;"), ElementsAre("notes", "work"));
}

TEST(ParsePosition, OnlyPlainPositiveNumbers) {
  EXPECT_EQ(parse_position(" 12 "), 12u);
  EXPECT_EQ(parse_position("0"), 0u);
  EXPECT_EQ(parse_position("-1"), 0u);
  EXPECT_EQ(parse_position("1x"), 0u);
  EXPECT_EQ(parse_position("99999999999"), 0u);
}

}  // namespace
}  // namespace kx::memory

#include "memory/tokenizer.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace kx::memory {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

TEST(StripToTokens, FoldsDeduplicatesAndKeepsFirstSeenOrder) {
  EXPECT_THAT(StripToTokens("Hello, WORLD! hello"), ElementsAre("hello", "world"));
  EXPECT_THAT(StripToTokens("b2 a1 B2"), ElementsAre("b2", "a1"));
}

TEST(StripToTokens, SingleCharactersNeverBecomeTokens) {
  EXPECT_THAT(StripToTokens("a b c"), IsEmpty());
  EXPECT_THAT(StripToTokens(""), IsEmpty());
  EXPECT_THAT(StripToTokens("()=>?|"), IsEmpty());
}

TEST(StripToTokens, StopWordsAreKnownButNotFiltered) {
  EXPECT_THAT(StripToTokens("The cat"), ElementsAre("the", "cat"));
  EXPECT_EQ(stop_words().size(), 81u);
  EXPECT_TRUE(stop_words().contains("with"));
}

TEST(StripToTokens, DotJoinsOnlyBetweenWordBytes) {
  EXPECT_THAT(StripToTokens("Report.PDF"), ElementsAre("report.pdf"));
  EXPECT_THAT(StripToTokens("v1.2.3"), ElementsAre("v1.2.3"));
  EXPECT_THAT(StripToTokens("file.txt"), ElementsAre("file.txt"));
  EXPECT_THAT(StripToTokens(".txt"), ElementsAre("txt"));
  EXPECT_THAT(StripToTokens("end."), ElementsAre("end"));
  EXPECT_THAT(StripToTokens("x.y"), ElementsAre("x.y"));
  EXPECT_THAT(StripToTokens("ab..cd"), ElementsAre("ab", "cd"));
  EXPECT_THAT(StripToTokens("ab.-cd"), ElementsAre("ab", "cd"));
}

TEST(StripToTokens, OverlongRunIsDroppedWholeNotTruncated) {
  EXPECT_THAT(StripToTokens(std::string(255, 'q')), ElementsAre(std::string(255, 'q')));
  EXPECT_THAT(StripToTokens(std::string(256, 'q')), IsEmpty());
  // The dot counts towards the limit, and the run after the overflow starts fresh.
  EXPECT_THAT(StripToTokens(std::string(254, 'q') + ".r ok"), ElementsAre("ok"));
}

TEST(StripToTokens, HighBytesSeparate) {
  EXPECT_THAT(StripToTokens("caf\xc3\xa9 ok"), ElementsAre("caf", "ok"));
}

TEST(StripToTokens, OperatorCharactersNeverAppearInTokens) {
  for (const std::string& token : StripToTokens("?(topics()==ab*|x)&&keywords()=>cd|ef"))
    EXPECT_EQ(token.find_first_of("()=>?|&*"), std::string::npos) << token;
}

}  // namespace
}  // namespace kx::memory

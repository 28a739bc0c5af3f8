#include "vfs/emit_plan.hpp"

#include <gtest/gtest.h>

namespace kst {
namespace {

using Kind = AsOfChoice::Kind;

TEST(EmitQueue, NumbersGrowAndAreNotReusedAfterCancel) {
  EmitQueue q;
  EXPECT_EQ(q.add("src", std::nullopt, "bot1", 10).number, 1u);
  EXPECT_EQ(q.add("", 100, "cli", 11).number, 2u);
  EXPECT_TRUE(q.take(1));
  EXPECT_FALSE(q.take(1));
  EXPECT_EQ(q.add("doc", std::nullopt, "cli", 12).number, 3u);
  ASSERT_EQ(q.pending().size(), 2u);
  EXPECT_EQ(q.find(2)->asof, 100);
  EXPECT_EQ(q.find(7), nullptr);
}

TEST(VersionAsOf, PicksTheLastStampAtOrBeforeTheTime) {
  const std::vector<VersionStamp> chain{
      {1, 100, false}, {2, 200, false}, {0, 300, true}, {3, 400, false}};
  EXPECT_EQ(version_as_of(chain, 50).kind, Kind::not_yet_existing);
  EXPECT_EQ(version_as_of(chain, 100).version, 1u);
  EXPECT_EQ(version_as_of(chain, 299).version, 2u);
  EXPECT_EQ(version_as_of(chain, 350).kind, Kind::deleted);
  EXPECT_EQ(version_as_of(chain, std::nullopt).version, 3u);
  EXPECT_EQ(version_as_of({}, std::nullopt).kind, Kind::not_yet_existing);
}

TEST(HumanSeat, BotsAreNotHuman) {
  EXPECT_TRUE(is_human_seat("cli"));
  EXPECT_TRUE(is_human_seat("panel"));
  EXPECT_FALSE(is_human_seat("claude"));
  EXPECT_FALSE(is_human_seat(""));
}

}  // namespace
}  // namespace kst

#include "vfs/emit_plan.hpp"

#include <gtest/gtest.h>

#include <cstdint>
#include <filesystem>
#include <fstream>

namespace kst {
namespace {

using Kind = AsOfChoice::Kind;

TEST(EmitQueue, NumbersGrowAndAreNotReusedAfterCancel) {
  EmitQueue q;
  std::string error;
  EXPECT_EQ(q.add("src", std::nullopt, "bot1", 10, error)->number, 1u);
  EXPECT_EQ(q.add("", 100, "cli", 11, error)->number, 2u);
  EXPECT_TRUE(q.take(1));
  EXPECT_FALSE(q.take(1));
  EXPECT_EQ(q.add("doc", std::nullopt, "cli", 12, error)->number, 3u);
  ASSERT_EQ(q.pending().size(), 2u);
  EXPECT_EQ(q.find(2)->asof, 100);
  EXPECT_EQ(q.find(7), nullptr);
}

// Two processes of one home (a kx command and the resident) share the queue: a
// request outlives its process, numbers stay unique, and one approval wins.
TEST(EmitQueue, AQueueFileIsSharedByEveryProcessOfTheHome) {
  const std::filesystem::path dir =
      std::filesystem::temp_directory_path() /
      ("kx_emits_" + std::to_string(::testing::UnitTest::GetInstance()->random_seed()) + "_" +
       std::to_string(reinterpret_cast<std::uintptr_t>(&dir)));
  std::filesystem::create_directories(dir);
  const auto file = dir / "pending_emits.json";
  std::string error;
  {
    EmitQueue first(file);
    ASSERT_NE(first.add("src/a b\t\"x\"", 100, "cli", 10, error), nullptr);
    ASSERT_NE(first.add("", std::nullopt, "bot1", 11, error), nullptr);
  }
  EmitQueue later(file), resident(file);
  ASSERT_EQ(later.pending().size(), 2u);
  EXPECT_EQ(later.find(1)->scope, "src/a b\t\"x\"");
  EXPECT_EQ(later.find(1)->asof, 100);
  EXPECT_FALSE(later.find(2)->asof.has_value());
  EXPECT_EQ(later.find(2)->requested_by, "bot1");
  EXPECT_TRUE(resident.take(2));
  EXPECT_FALSE(later.take(2));  // taken by the other process already
  EXPECT_EQ(later.add("doc", std::nullopt, "cli", 12, error)->number, 3u);
  EXPECT_TRUE(resident.take(1));
  EXPECT_EQ(resident.add("x", std::nullopt, "cli", 13, error)->number, 4u);  // never reused

  // A damaged file is left as it is, and the queue keeps what it last read.
  std::ofstream(file, std::ios::trunc) << "{not json";
  EXPECT_EQ(later.pending().size(), 2u);
  // A queue that cannot be written refuses the request instead of forgetting it.
  std::filesystem::remove(file);
  std::filesystem::create_directory(file);
  EmitQueue blocked(file);
  EXPECT_EQ(blocked.add("y", std::nullopt, "cli", 14, error), nullptr);
  EXPECT_FALSE(error.empty());
  std::filesystem::remove_all(dir);
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

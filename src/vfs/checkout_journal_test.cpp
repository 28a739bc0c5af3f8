#include "vfs/checkout_journal.hpp"

#include <gtest/gtest.h>

#include <fstream>

namespace kst {
namespace {

class CheckoutJournalTest : public ::testing::Test {
 protected:
  void SetUp() override {
    dir_ = std::filesystem::temp_directory_path() /
           ("kx-journal-" + std::to_string(::testing::UnitTest::GetInstance()->random_seed()) +
            "-" + ::testing::UnitTest::GetInstance()->current_test_info()->name());
    std::filesystem::remove_all(dir_);
  }
  void TearDown() override { std::filesystem::remove_all(dir_); }
  std::filesystem::path dir_;
};

TEST(CheckoutRecordFormat, CompactKeysInOrderWithEscapes) {
  EXPECT_EQ(format_checkout({"cli", "src/a.txt", 1700000000}),
            "{\"leafId\":\"cli\",\"path\":\"src/a.txt\",\"at\":1700000000}\n");
  const CheckoutRecord odd{"bot \"x\"", "dir\\new\nline\x01", 5};
  const std::string line = format_checkout(odd);
  EXPECT_EQ(line,
            "{\"leafId\":\"bot \\\"x\\\"\",\"path\":\"dir\\\\new\\nline\\u0001\",\"at\":5}\n");
  const auto back = parse_checkout(line);
  ASSERT_TRUE(back);
  EXPECT_EQ(back->leaf_id, odd.leaf_id);
  EXPECT_EQ(back->path, odd.path);
  EXPECT_EQ(back->at, 5);
}

TEST(CheckoutRecordFormat, RejectsLinesThatAreNotRecords) {
  EXPECT_FALSE(parse_checkout("{\"leafId\":\"cli\",\"path\":\"a\""));  // torn
  EXPECT_FALSE(parse_checkout("{\"leafId\":\"cli\",\"path\":\"a\",\"at\":\"x\"}"));
  EXPECT_FALSE(parse_checkout("[1,2]"));
  EXPECT_FALSE(parse_checkout(""));
}

TEST_F(CheckoutJournalTest, ReplayKeepsTheLatestRecordPerPathAndSkipsTornLines) {
  CheckoutJournal journal(dir_ / "checkouts.jsonl");
  EXPECT_TRUE(journal.replay().empty());  // no file yet
  ASSERT_TRUE(journal.append({"alice", "a.txt", 1}));
  ASSERT_TRUE(journal.append({"bob", "b.txt", 2}));
  ASSERT_TRUE(journal.append({"carol", "a.txt", 3}));
  {
    std::ofstream torn(journal.file(), std::ios::binary | std::ios::app);
    torn << "{\"leafId\":\"dave\",\"pa";
  }
  const auto open = journal.replay();
  ASSERT_EQ(open.size(), 2u);
  EXPECT_EQ(open[0].leaf_id, "bob");
  EXPECT_EQ(open[1].leaf_id, "carol");
  EXPECT_EQ(open[1].at, 3);
}

TEST_F(CheckoutJournalTest, RewriteReplacesTheWholeJournal) {
  CheckoutJournal journal(dir_ / "checkouts.jsonl");
  journal.append({"alice", "a.txt", 1});
  journal.append({"bob", "b.txt", 2});
  ASSERT_TRUE(journal.rewrite({{"bob", "b.txt", 2}}));
  const auto open = journal.replay();
  ASSERT_EQ(open.size(), 1u);
  EXPECT_EQ(open[0].path, "b.txt");
  EXPECT_FALSE(std::filesystem::exists(dir_ / "checkouts.jsonl.tmp$"));
}

}  // namespace
}  // namespace kst

#include "memory/data_file.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fstream>

#include "memory/context_store.hpp"
#include "memory/test_dir.hpp"

namespace kx::memory {
namespace {

namespace fs = std::filesystem;
using ::testing::ElementsAre;

std::string slurp(const fs::path& path) {
  std::string out;
  EXPECT_TRUE(read_whole_file(path, out)) << path;
  return out;
}

void spit(const fs::path& path, std::string_view bytes) {
  std::ofstream(path, std::ios::binary)
      .write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
}

std::string u32(std::uint32_t v) {
  return {static_cast<char>(v & 0xff), static_cast<char>((v >> 8) & 0xff),
          static_cast<char>((v >> 16) & 0xff), static_cast<char>(v >> 24)};
}
std::string str(std::string_view s) {
  return u32(static_cast<std::uint32_t>(s.size())) + std::string(s);
}

class DataFileTest : public ::testing::Test {
 protected:
  fs::path data() const { return dir_.path() / "data.mem"; }
  std::unique_ptr<ContextStore> open() {
    auto store = std::make_unique<ContextStore>("ctx");
    store->set_data_path(data());
    load_data_file(*store);
    return store;
  }
  TempDir dir_;
};

TEST_F(DataFileTest, AppendWritesMagicThenTheExactRecordLayout) {
  auto store = open();
  ASSERT_EQ(store->append("topic", {"Kw"}, 129, "hi there"), "");
  const std::string expected = "KST2" + u32(129) + str("hi there") + str("topic") + u32(3) +
                               str("Kw") + str("hi") + str("there");
  EXPECT_EQ(slurp(data()), expected);
  ASSERT_EQ(store->append("v", {}, 0, "", {0x3f800000u}), "");
  EXPECT_EQ(slurp(data()),
            expected + u32(kVectorBit) + str("") + str("v") + u32(0) + u32(1) + u32(0x3f800000u));
  EXPECT_EQ(slurp(data()).substr(4), store->heap());
}

TEST_F(DataFileTest, ReloadRebuildsTheSameContext) {
  {
    auto store = open();
    store->append("a", {}, 2, "first memo");
    store->append("a", {}, 65536, "second memo");
    store->append("b", {}, 0, "other", {1, 2});
  }
  auto store = open();
  ASSERT_EQ(store->topic_count(), 2u);
  const TopicNode* a = store->find_topic("a");
  ASSERT_EQ(a->memos.size(), 2u);
  EXPECT_EQ(store->record_at(a->memos[1].offset).flags, 65536u);
  EXPECT_EQ(store->record_at(a->memos[1].offset).content, "second memo");
  EXPECT_EQ(store->embeddings().size(), 1u);
  EXPECT_EQ(store->postings("memo")->size(), 2u);
}

TEST_F(DataFileTest, MissingOrMagicOnlyFileLoadsEmpty) {
  auto missing = std::make_unique<ContextStore>("ctx");
  missing->set_data_path(data());
  EXPECT_FALSE(load_data_file(*missing));
  EXPECT_EQ(missing->topic_count(), 0u);

  spit(data(), "KST2");
  auto store = open();
  EXPECT_EQ(store->topic_count(), 0u);
  EXPECT_EQ(store->used(), 0u);
  EXPECT_EQ(store->capacity(), kHeapStep);
}

TEST_F(DataFileTest, CutLastRecordLoadsTheRestAndIsWrittenBackUnchanged) {
  {
    auto store = open();
    store->append("keep", {}, 0, "kept memo");
    store->append("gone", {}, 0, "to be deleted");
    store->append("cut", {}, 0, "this one is cut short");
  }
  std::string bytes = slurp(data());
  bytes.resize(bytes.size() - 7);
  spit(data(), bytes);

  auto store = open();
  EXPECT_EQ(store->topic_count(), 2u);
  EXPECT_EQ(store->find_topic("cut"), nullptr);
  ASSERT_EQ(store->delete_topic("gone"), "");
  EXPECT_EQ(slurp(crash_net_path(data())), bytes);
  const std::string after = slurp(data());
  EXPECT_TRUE(after.starts_with("KST2"));
  EXPECT_TRUE(after.ends_with(bytes.substr(bytes.size() - 20)));  // the cut tail, unchanged
  EXPECT_EQ(after.substr(4), store->heap());
}

TEST_F(DataFileTest, VectorCountRunningPastTheEndStopsTheLoadThere) {
  const std::string good = u32(0) + str("ok") + str("a") + u32(1) + str("ok");
  const std::string bad = u32(kVectorBit) + str("x") + str("b") + u32(0) + u32(1000) + u32(1);
  spit(data(), "KST2" + good + bad);
  auto store = open();
  EXPECT_EQ(store->topic_count(), 1u);
  EXPECT_EQ(store->used(), good.size() + bad.size());
}

TEST_F(DataFileTest, OldFormatIsConvertedOnFirstLoad) {
  const std::string old = str("old content words") + str("legacy") + u32(1) + str("Stored") +
                          str("second") + str("t2") + u32(0);
  spit(data(), old);
  auto store = open();
  EXPECT_EQ(slurp(crash_net_path(data())), old);
  const std::string converted = slurp(data());
  EXPECT_TRUE(converted.starts_with("KST2"));
  EXPECT_EQ(converted.substr(4), store->heap());
  const TopicNode* legacy = store->find_topic("legacy");
  ASSERT_NE(legacy, nullptr);
  const RecordView record = store->record_at(legacy->memos[0].offset);
  EXPECT_EQ(record.flags, 0u);
  EXPECT_THAT(record.keywords, ElementsAre("Stored", "old", "content", "words"));
  EXPECT_NE(store->find_topic("t2"), nullptr);
}

TEST_F(DataFileTest, EmptyFileIsLeftAsItIs) {
  spit(data(), "");
  auto store = open();
  EXPECT_EQ(store->topic_count(), 0u);
  EXPECT_EQ(slurp(data()), "");
  EXPECT_FALSE(fs::exists(crash_net_path(data())));
}

TEST_F(DataFileTest, CrashNetHoldsTheFileAsItStoodBeforeEachRewrite) {
  auto store = open();
  store->append("a", {}, 0, "one");
  store->append("b", {}, 0, "two");
  store->append("c", {}, 0, "three");
  const std::string before_first = slurp(data());
  ASSERT_EQ(store->delete_topic("a"), "");
  EXPECT_EQ(slurp(crash_net_path(data())), before_first);
  const std::string before_second = slurp(data());
  ASSERT_EQ(store->delete_topic("b"), "");
  EXPECT_EQ(slurp(crash_net_path(data())), before_second);
  EXPECT_FALSE(fs::exists(data().string() + ".tmp"));
}

TEST_F(DataFileTest, InterruptedRewriteLeavesTheOldFileReadable) {
  auto store = open();
  store->append("a", {}, 0, "one");
  store->append("b", {}, 0, "two");
  const std::string before = slurp(data());
  // A rewrite that died before its rename leaves only a stray temp file behind.
  spit(data().string() + ".tmp", "KST2\x01\x02");
  auto reopened = open();
  EXPECT_EQ(reopened->topic_count(), 2u);
  EXPECT_EQ(slurp(data()), before);
}

TEST_F(DataFileTest, FailedWritesKeepTheChangeInMemoryAndReportIt) {
  auto store = open();
  ASSERT_EQ(store->append("a", {}, 0, "one"), "");
  // The rewrite's temp file cannot be created where a directory stands.
  fs::create_directory(data().string() + ".tmp");
  const std::string before = slurp(data());
  EXPECT_NE(store->delete_topic("a"), "");
  EXPECT_EQ(store->find_topic("a"), nullptr);  // in memory the deletion happened
  EXPECT_EQ(slurp(data()), before);            // on disk nothing was half-written

  // While the file is out of step, an add does not append onto the stale file.
  EXPECT_NE(store->append("b", {}, 0, "two"), "");
  EXPECT_NE(store->find_topic("b"), nullptr);
  fs::remove(data().string() + ".tmp");
  ASSERT_EQ(store->append("c", {}, 0, "three"), "");  // heals with a full rewrite
  EXPECT_EQ(slurp(data()).substr(4), store->heap());
}

TEST_F(DataFileTest, FailedAppendReportsAnError) {
  fs::create_directory(data());  // a directory where the file should be
  auto store = std::make_unique<ContextStore>("ctx");
  store->set_data_path(data());
  EXPECT_NE(store->append("a", {}, 0, "one"), "");
  EXPECT_NE(store->find_topic("a"), nullptr);
}

}  // namespace
}  // namespace kx::memory

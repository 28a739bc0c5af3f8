#include "memory/data_file.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fstream>

#include "memory/context_store.hpp"
#include "memory/test_dir.hpp"
#include "platform/durable_file.hpp"
#include "platform/file_handle.hpp"
#include "platform/read_file.hpp"

namespace kx::memory {
namespace {

namespace fs = std::filesystem;
using ::testing::ElementsAre;

std::string slurp(const fs::path& path) {
  std::string out;
  EXPECT_TRUE(platform::read_whole_file(path, out, 0)) << path;
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
  std::vector<fs::path> damaged_copies() const {
    std::vector<fs::path> copies;
    for (const auto& entry : fs::directory_iterator(dir_.path()))
      if (entry.path().filename().string().starts_with("data.mem.damaged-"))
        copies.push_back(entry.path());
    return copies;
  }
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
    EXPECT_EQ(store->append("a", {}, 2, "first memo"), "");
    EXPECT_EQ(store->append("a", {}, 65536, "second memo"), "");
    EXPECT_EQ(store->append("b", {}, 0, "other", {1, 2}), "");
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

TEST_F(DataFileTest, CutFileIsKeptAsideAndRewrittenToTheRecordsRead) {
  {
    auto store = open();
    ASSERT_EQ(store->append("keep", {}, 0, "kept memo"), "");
    ASSERT_EQ(store->append("cut", {}, 0, "this one is cut short"), "");
  }
  std::string bytes = slurp(data());
  bytes.resize(bytes.size() - 7);
  spit(data(), bytes);

  auto store = open();
  const auto warnings = store->take_warnings();
  ASSERT_EQ(warnings.size(), 1u);
  EXPECT_THAT(warnings[0], ::testing::HasSubstr("1 record(s) read"));
  const std::vector<fs::path> copies = damaged_copies();
  ASSERT_EQ(copies.size(), 1u);
  EXPECT_EQ(slurp(copies[0]), bytes);  // the damaged original, byte for byte
  EXPECT_THAT(warnings[0], ::testing::HasSubstr(copies[0].string()));
  EXPECT_EQ(slurp(data()), "KST2" + std::string(store->heap()));

  // What is added now is reachable by the next process.
  ASSERT_EQ(store->append("later", {}, 0, "added after the damage"), "");
  auto reopened = open();
  EXPECT_NE(reopened->find_topic("later"), nullptr);
  EXPECT_NE(reopened->find_topic("keep"), nullptr);
  EXPECT_TRUE(reopened->take_warnings().empty());
}

// Windows will not rename over a file somebody holds open: the mend must then fail
// once, keep one copy, and succeed later without copying the same damage again.
TEST_F(DataFileTest, DamageFoundWhileTheFileIsHeldOpenIsKeptAsideOnce) {
  {
    auto store = open();
    ASSERT_EQ(store->append("keep", {}, 0, "kept memo"), "");
    ASSERT_EQ(store->append("cut", {}, 0, "this one is cut short"), "");
  }
  std::string bytes = slurp(data());
  bytes.resize(bytes.size() - 3);
  spit(data(), bytes);

  auto reader = platform::FileHandle::open(data(), platform::FileHandle::Mode::read);
  ASSERT_TRUE(reader.is_open());
  auto store = open();
  EXPECT_NE(store->find_topic("keep"), nullptr);
  reader.close();
  ASSERT_EQ(store->append("later", {}, 0, "added after the damage"), "");
  const auto warnings = store->take_warnings();
  ASSERT_EQ(warnings.size(), 1u);
  const std::vector<fs::path> copies = damaged_copies();
  ASSERT_EQ(copies.size(), 1u);
  EXPECT_EQ(slurp(copies[0]), bytes);
  auto reopened = open();
  EXPECT_NE(reopened->find_topic("keep"), nullptr);
  EXPECT_NE(reopened->find_topic("later"), nullptr);
  EXPECT_TRUE(reopened->take_warnings().empty());
}

TEST_F(DataFileTest, DamagedMagicIsNotMistakenForTheOldFormat) {
  {
    auto store = open();
    ASSERT_EQ(store->append("a", {}, 0, "one"), "");
    ASSERT_EQ(store->append("b", {}, 0, "two"), "");
  }
  std::string bytes = slurp(data());
  bytes[0] ^= 0x01;  // "JST2"
  spit(data(), bytes);
  auto store = open();
  EXPECT_EQ(store->topic_count(), 2u);
  EXPECT_EQ(store->take_warnings().size(), 1u);
  EXPECT_EQ(slurp(data()).substr(0, 4), "KST2");
}

TEST_F(DataFileTest, VectorCountRunningPastTheEndStopsTheLoadThere) {
  const std::string good = u32(0) + str("ok") + str("a") + u32(1) + str("ok");
  const std::string bad = u32(kVectorBit) + str("x") + str("b") + u32(0) + u32(1000) + u32(1);
  spit(data(), "KST2" + good + bad);
  auto store = open();
  EXPECT_EQ(store->topic_count(), 1u);
  EXPECT_EQ(store->used(), good.size());
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
  EXPECT_EQ(store->append("a", {}, 0, "one"), "");
  EXPECT_EQ(store->append("b", {}, 0, "two"), "");
  EXPECT_EQ(store->append("c", {}, 0, "three"), "");
  const std::string before_first = slurp(data());
  ASSERT_EQ(store->delete_topic("a"), "");
  EXPECT_EQ(slurp(crash_net_path(data())), before_first);
  const std::string before_second = slurp(data());
  ASSERT_EQ(store->delete_topic("b"), "");
  EXPECT_EQ(slurp(crash_net_path(data())), before_second);
  for (const auto& entry : fs::directory_iterator(dir_.path()))
    EXPECT_FALSE(platform::is_write_temp_name(entry.path().filename().string())) << entry.path();
}

TEST_F(DataFileTest, InterruptedRewriteLeavesTheOldFileReadable) {
  auto store = open();
  EXPECT_EQ(store->append("a", {}, 0, "one"), "");
  EXPECT_EQ(store->append("b", {}, 0, "two"), "");
  const std::string before = slurp(data());
  // A rewrite that died before its rename leaves only a stray temp file behind.
  spit(platform::fresh_temp_path(data()), "KST2\x01\x02");
  auto reopened = open();
  EXPECT_EQ(reopened->topic_count(), 2u);
  EXPECT_EQ(slurp(data()), before);
}

TEST_F(DataFileTest, FailedWritesChangeNeitherTheFileNorTheStore) {
  auto store = open();
  ASSERT_EQ(store->append("a", {}, 0, "one"), "");
  // The crash net cannot be renamed over a directory that holds something.
  fs::create_directories(crash_net_path(data()) / "taken");
  const std::string before = slurp(data());
  EXPECT_NE(store->delete_topic("a"), "");
  EXPECT_NE(store->find_topic("a"), nullptr);
  EXPECT_EQ(slurp(data()), before);
  fs::remove_all(crash_net_path(data()));

  fs::rename(data(), dir_.path() / "aside");
  fs::create_directory(data());  // now the append cannot open its file
  EXPECT_NE(store->append("b", {}, 0, "two"), "");
  EXPECT_EQ(store->find_topic("b"), nullptr);
}

TEST_F(DataFileTest, AWriterFirstTakesInWhatAnotherAppendedOrRewrote) {
  auto one = open();
  auto two = open();
  ASSERT_EQ(one->append("a", {}, 0, "from one"), "");
  ASSERT_EQ(two->append("b", {}, 0, "from two"), "");  // appends behind one's record
  EXPECT_NE(two->find_topic("a"), nullptr);
  ASSERT_EQ(one->delete_topic("a"), "");  // a rewrite that must keep two's record
  EXPECT_NE(one->find_topic("b"), nullptr);
  ASSERT_EQ(two->append("c", {}, 0, "after the rewrite"), "");
  EXPECT_EQ(two->find_topic("a"), nullptr);
  auto three = open();
  EXPECT_EQ(three->topic_count(), 2u);
  EXPECT_EQ(slurp(data()).substr(4), two->heap());
}

}  // namespace
}  // namespace kx::memory

#include "memory/index_file.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <fstream>
#include <sstream>

#include "memory/context_dir.hpp"
#include "memory/context_store.hpp"
#include "memory/context_table.hpp"
#include "memory/data_file.hpp"
#include "memory/test_dir.hpp"
#include "platform/durable_file.hpp"
#include "platform/read_file.hpp"

namespace kx::memory {
namespace {

namespace fs = std::filesystem;

std::string slurp(const fs::path& path) {
  std::string out;
  EXPECT_TRUE(platform::read_whole_file(path, out, 0)) << path;
  return out;
}

void spit(const fs::path& path, std::string_view bytes) {
  std::ofstream(path, std::ios::binary | std::ios::trunc)
      .write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
}

// Everything a load derives, in one text: two stores that describe alike answer alike.
// Keywords are asked one by one first (the lazy path), then walked whole.
std::string describe(const ContextStore& store, bool webs = true) {
  std::ostringstream out;
  for (const TopicNode* node = store.most_recent(); node != nullptr; node = node->next) {
    out << "topic " << node->topic << ":";
    for (const MemoEntry& m : node->memos) out << ' ' << m.offset << '/' << m.flags;
    out << '\n';
  }
  for (const char* asked : {"Tokens", "kw1", "memo", "alice", "01", "missing"}) {
    out << "asked " << asked << ":";
    if (const auto postings = store.postings(asked))
      for (const Posting p : *postings) out << ' ' << p.offset;
    out << '\n';
  }
  std::vector<std::string> keywords;
  store.for_each_keyword(
      [&](std::string_view keyword, const PostingList&) { keywords.emplace_back(keyword); });
  std::sort(keywords.begin(), keywords.end());
  for (const std::string& keyword : keywords) {
    const auto postings = store.postings(keyword);
    out << "kw " << keyword << ":";
    if (postings)
      for (const Posting p : *postings) out << ' ' << p.offset << '/' << p.flags;
    out << " related:";
    for (std::string_view r : store.related().related(keyword)) out << ' ' << r;
    out << '\n';
  }
  for (const auto& [offset, vector] : store.embeddings()) out << "vec " << offset << '\n';
  for (const TopicNode* node = store.most_recent(); webs && node != nullptr; node = node->next)
    for (int w = 0; w < 5; ++w)
      for (const std::string& term : store.webs().terms_of(node, static_cast<W>(w)))
        out << "web " << node->topic << ' ' << w << ' ' << term << '\n';
  out << "used " << store.used() << " memos " << store.memo_count() << " keywords "
      << store.keyword_count() << '\n';
  return out.str();
}

class IndexFileTest : public ::testing::Test {
 protected:
  fs::path data() const { return dir_.path() / "data.mem"; }
  fs::path idx() const { return index_path(data()); }
  std::unique_ptr<ContextStore> open(std::uint64_t threshold = 0) {
    auto store = std::make_unique<ContextStore>("ctx");
    store->set_index_threshold(threshold);
    store->set_data_path(data());
    load_data_file(*store);
    return store;
  }
  // What a load that reads every record derives: data.mem alone, in a folder of its own.
  std::string full_load() {
    const fs::path alone = dir_.path() / "alone";
    fs::create_directories(alone);
    fs::copy_file(data(), alone / "data.mem", fs::copy_options::overwrite_existing);
    std::string text;
    {
      ContextStore store("ctx");
      store.set_index_threshold(UINT64_MAX);
      store.set_data_path(alone / "data.mem");
      load_data_file(store);
      EXPECT_FALSE(store.loaded_from_index());
      text = describe(store);
    }
    fs::remove_all(alone);
    return text;
  }
  void fill(ContextStore& store, int memos, int first = 0) {
    for (int i = first; i < first + memos; ++i) {
      const std::string topic = "topic" + std::to_string(i % 7);
      // Cased caller keywords, repeats, related stems, a property and a vector now and then.
      ASSERT_EQ(store.append(topic, {"Tokens", "KW" + std::to_string(i % 3)},
                             static_cast<std::uint32_t>(i % 5 == 0 ? 4 : 0),
                             "memo " + std::to_string(i) +
                                 " about tokenizer tokenized token; alice met bob on 2024-01-0" +
                                 std::to_string(i % 9 + 1),
                             i % 4 == 0 ? Embedding{1, 2, std::uint32_t(i)} : Embedding{}),
                "");
    }
  }
  TempDir dir_;
};

TEST_F(IndexFileTest, ALoadFromTheIndexAnswersAsReadingEveryRecord) {
  {
    auto writer = open(UINT64_MAX);
    fill(*writer, 60);
  }
  const std::string expected = full_load();
  auto first = open();  // reads every record and writes the index
  EXPECT_FALSE(first->loaded_from_index());
  ASSERT_TRUE(fs::exists(idx()));
  EXPECT_EQ(describe(*first), expected);
  auto second = open();
  EXPECT_TRUE(second->loaded_from_index());
  EXPECT_EQ(describe(*second), expected);

  // Appends - its own and another store's - are seen, and the next load takes the
  // records behind the index from data.mem.
  fill(*second, 5, 60);
  auto other = open();
  EXPECT_TRUE(other->loaded_from_index());
  fill(*other, 5, 65);
  ASSERT_EQ(second->refresh(), "");
  const std::string grown = full_load();
  EXPECT_EQ(describe(*second), grown);
  EXPECT_EQ(describe(*other), grown);
  auto third = open();
  EXPECT_TRUE(third->loaded_from_index());
  EXPECT_EQ(describe(*third), grown);

  // Once the records behind the index grow large beside it, a load writes it afresh.
  const auto covered = [&] { return IndexFile::open(idx())->heap_size() + kMagic.size(); };
  EXPECT_LT(covered(), fs::file_size(data()));
  fill(*third, 40, 70);
  const std::string bigger = full_load();
  first.reset(), second.reset(), other.reset(), third.reset();  // none holds the index
  auto fresh = open();
  EXPECT_TRUE(fresh->loaded_from_index());
  EXPECT_EQ(covered(), fs::file_size(data()));
  EXPECT_EQ(describe(*fresh), bigger);
  EXPECT_EQ(describe(*open()), bigger);

  // Removal on a store loaded from the index: the file and a fresh load agree.
  ASSERT_EQ(fresh->delete_memo("topic3", 1), "");
  ASSERT_EQ(fresh->delete_topic("topic5"), "");
  // (Webs kept up to date through removals may differ from webs derived afresh,
  // index or not; they are compared between loads only.)
  auto fourth = open();
  EXPECT_FALSE(fourth->loaded_from_index());  // the rewrite made the index stale
  EXPECT_EQ(describe(*fourth, false), describe(*fresh, false));
  EXPECT_EQ(describe(*fourth), full_load());
}

TEST_F(IndexFileTest, AnIndexThatNoLongerMatchesDataMemIsNotBelieved) {
  {
    auto writer = open(UINT64_MAX);
    fill(*writer, 40);
  }
  open();  // writes the index
  const std::string index = slurp(idx());
  const std::string heap = slurp(data());

  // Rewritten elsewhere to the same size (another process's rewrite bumps the lock's
  // count; an editor's does not): a byte changed inside a memo's text.
  std::string edited = heap;
  edited[heap.find("memo 17") + 5] = '9';
  spit(data(), edited);
  auto after_edit = open(UINT64_MAX);
  EXPECT_FALSE(after_edit->loaded_from_index());
  EXPECT_EQ(describe(*after_edit), full_load());

  // Cut short: the index describes bytes that are gone. The cut record is damage
  // handled as ever (kept aside, warned about).
  spit(data(), heap.substr(0, heap.size() - 30));
  spit(idx(), index);
  auto after_cut = open(UINT64_MAX);
  EXPECT_FALSE(after_cut->loaded_from_index());
  EXPECT_EQ(after_cut->take_warnings().size(), 1u);

  // A rewrite by another store.
  spit(data(), heap);
  spit(idx(), index);
  {
    auto other = open(UINT64_MAX);
    ASSERT_EQ(other->delete_topic("topic2"), "");
  }
  auto after_rewrite = open();
  EXPECT_FALSE(after_rewrite->loaded_from_index());
  EXPECT_EQ(after_rewrite->find_topic("topic2"), nullptr);
  // ... and that load wrote an index that matches again.
  auto again = open();
  EXPECT_TRUE(again->loaded_from_index());
  EXPECT_EQ(describe(*again), full_load());
}

TEST_F(IndexFileTest, ADamagedIndexNeverGivesAWrongAnswer) {
  {
    auto writer = open(UINT64_MAX);
    fill(*writer, 30);
  }
  open();
  const std::string index = slurp(idx());
  const std::string expected = full_load();
  int believed = 0;
  // Every byte of the header and tables, every 7th of the postings; and cuts.
  for (std::size_t at = 0; at < index.size(); at += at < 4096 ? 1 : 7) {
    std::string damaged = index;
    damaged[at] = static_cast<char>(damaged[at] ^ 0x10);
    spit(idx(), damaged);
    auto store = open(UINT64_MAX);
    believed += store->loaded_from_index();
    ASSERT_EQ(describe(*store), expected) << "byte " << at << " of " << index.size();
    ASSERT_TRUE(store->take_warnings().empty());
  }
  for (std::size_t cut : {std::size_t{0}, std::size_t{10}, index.size() / 2, index.size() - 1}) {
    spit(idx(), index.substr(0, cut));
    auto store = open(UINT64_MAX);
    EXPECT_FALSE(store->loaded_from_index());
    ASSERT_EQ(describe(*store), expected);
  }
  // Damage that only a keyword's postings show is found when they are read; the
  // store then derives the keyword index from the records and mends the file.
  EXPECT_GT(believed, 0);
  spit(idx(), index);
  auto store = open(UINT64_MAX);
  EXPECT_TRUE(store->loaded_from_index());
}

TEST_F(IndexFileTest, OpeningAContextRemovesOnlyOurOwnStaleTemporaryFiles) {
  ContextTable table(dir_.path());
  const fs::path context_dir = dir_.path() / context_dir_name("cli", "ctx");
  fs::create_directories(context_dir);
  const fs::path stale = context_dir / ".kx0123456789abcdef.tmp$";
  const fs::path fresh = context_dir / ".kxfedcba9876543210.tmp$";
  const fs::path foreign = context_dir / "notes.tmp$";
  for (const fs::path& p : {stale, fresh, foreign}) spit(p, "x");
  const auto old = fs::file_time_type::clock::now() - std::chrono::hours(2);
  fs::last_write_time(stale, old);
  fs::last_write_time(foreign, old);
  table.open("cli", "ctx");
  EXPECT_FALSE(fs::exists(stale));
  EXPECT_TRUE(fs::exists(fresh));
  EXPECT_TRUE(fs::exists(foreign));
}

}  // namespace
}  // namespace kx::memory

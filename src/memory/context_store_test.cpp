#include "memory/context_store.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <random>
#include <set>

namespace kx::memory {
namespace {

using ::testing::ElementsAre;
using ::testing::UnorderedElementsAre;

std::vector<std::string> topics_of(const ContextStore& store, std::string_view keyword) {
  std::vector<std::string> out;
  if (const auto postings = store.postings(keyword))
    for (const Posting p : *postings) out.push_back(store.slot(p.offset)->topic->topic);
  return out;
}

// Every derived offset must name the start of a live record whose topic matches.
void expect_consistent(const ContextStore& store) {
  std::size_t memos = 0;
  std::uint64_t walked = 0;
  RecordView record;
  while (walked < store.used() && parse_record(store.heap().substr(walked), record)) {
    const RecordSlot* s = store.slot(walked);
    ASSERT_NE(s, nullptr) << "record at " << walked << " not in the record table";
    EXPECT_EQ(s->topic->topic, record.topic);
    EXPECT_EQ(s->topic->memos[s->position].offset, walked);
    for (std::string_view keyword : record.keywords) {
      const auto postings = store.postings(keyword);
      ASSERT_TRUE(postings) << keyword;
      EXPECT_TRUE(std::any_of(postings->begin(), postings->end(),
                              [&](const Posting& p) { return p.offset == walked; }));
    }
    walked += record.size;
    ++memos;
  }
  EXPECT_EQ(walked, store.used());
  EXPECT_EQ(memos, store.memo_count());
  for (const auto& [keyword, postings] : store.keyword_index()) {
    EXPECT_FALSE(postings.empty()) << keyword;
    for (const Posting& p : postings) EXPECT_NE(store.slot(p.offset), nullptr) << keyword;
  }
}

TEST(ContextStore, KeywordsAreCallerFirstThenContentTokensEachOnce) {
  ContextStore store("t");
  const auto offset =
      store.append_record("Build with CMake, then cmake again", {"CMake", "", "build"}, "b", 0, {});
  EXPECT_THAT(store.record_at(offset).keywords,
              ElementsAre("CMake", "build", "with", "cmake", "then", "again"));
}

TEST(ContextStore, EmptyRecordIsStoredWithNoKeywords) {
  ContextStore store("t");
  const auto offset = store.append_record("", {}, "empty", 0, {});
  const RecordView record = store.record_at(offset);
  EXPECT_TRUE(record.keywords.empty());
  EXPECT_EQ(record.size, 4 + 4 + 4 + 5 + 4u);  // flags, content, topic "empty", count
  EXPECT_NE(store.find_topic("empty"), nullptr);
}

TEST(ContextStore, VectorSetsBitThirtyOneEvenWithoutProperties) {
  ContextStore store("t");
  const auto plain = store.append_record("x1", {}, "a", 0, {});
  const auto with_vector = store.append_record("x2", {}, "b", 0, {1, 2, 3});
  EXPECT_EQ(store.record_at(plain).flags, 0u);
  EXPECT_EQ(store.record_at(with_vector).flags, kVectorBit);
  ASSERT_NE(store.embedding(with_vector), nullptr);
  EXPECT_THAT(*store.embedding(with_vector), ElementsAre(1u, 2u, 3u));
  EXPECT_EQ(store.embedding(plain), nullptr);
}

TEST(ContextStore, HeapGrowsInWholeMebibyteSteps) {
  ContextStore store("t");
  store.append_record("small", {}, "a", 0, {});
  EXPECT_EQ(store.capacity(), kHeapStep);
  store.append_record(std::string(3 * kHeapStep, 'z'), {}, "big", 0, {});
  EXPECT_EQ(store.capacity() % kHeapStep, 0u);
  EXPECT_GE(store.capacity(), store.used());
}

TEST(ContextStore, RemovingAMiddleRecordCorrectsEveryLaterOffset) {
  ContextStore store("t");
  store.append_record("alpha shared", {}, "one", 0, {});
  const auto middle = store.append_record("beta shared", {}, "two", 0, {7});
  store.append_record("gamma shared", {}, "three", 4, {9});
  store.append_record("delta shared", {}, "one", 0, {});
  const auto before = store.used();
  const auto size = store.record_at(middle).size;

  store.remove_record(middle);

  EXPECT_EQ(store.used(), before - size);
  EXPECT_EQ(store.find_topic("two"), nullptr);
  EXPECT_FALSE(store.postings("beta"));
  EXPECT_THAT(topics_of(store, "shared"), ElementsAre("one", "three", "one"));
  EXPECT_EQ(store.embeddings().size(), 1u);
  const auto gamma = (*store.postings("gamma"))[0].offset;
  ASSERT_NE(store.embedding(gamma), nullptr);
  EXPECT_THAT(*store.embedding(gamma), ElementsAre(9u));
  EXPECT_EQ(store.record_at(gamma).flags, 4u | kVectorBit);
  expect_consistent(store);
}

TEST(ContextStore, ManyUnevenRecordsStayFindableThroughRemovals) {
  ContextStore store("t");
  std::mt19937 rng(5);
  std::vector<std::uint64_t> offsets;
  for (int i = 0; i < 3000; ++i) {
    const std::size_t size = i % 97 == 0 ? 20000 : rng() % 300;  // a few very large records
    offsets.push_back(
        store.append_record(std::string(size, 'a' + i % 26) + " w" + std::to_string(i % 50), {},
                            "topic" + std::to_string(i % 40), 0, {}));
  }
  for (std::uint64_t offset : offsets) {
    ASSERT_NE(store.slot(offset), nullptr) << offset;
    EXPECT_EQ(store.slot(offset + 1), nullptr) << offset;
  }
  EXPECT_EQ(store.slot(store.used()), nullptr);
  std::vector<std::uint64_t> doomed;
  for (std::size_t i = 0; i < offsets.size(); i += 7) doomed.push_back(offsets[i]);
  store.remove_records(doomed);
  EXPECT_EQ(store.memo_count(), offsets.size() - doomed.size());
  expect_consistent(store);
}

TEST(ContextStore, RemovingMemosRenumbersPositionsAndLastMemoTakesTheTopic) {
  ContextStore store("t");
  store.append_record("first", {}, "list", 1, {});
  store.append_record("second", {}, "list", 2, {});
  store.append_record("third", {}, "list", 4, {});
  TopicNode* list = store.find_topic("list");
  store.remove_record(list->memos[0].offset);
  ASSERT_EQ(list->memos.size(), 2u);
  EXPECT_EQ(store.record_at(list->memos[0].offset).content, "second");
  EXPECT_EQ(store.slot(list->memos[1].offset)->position, 1u);
  expect_consistent(store);

  store.remove_records({list->memos[0].offset, list->memos[1].offset});
  EXPECT_EQ(store.find_topic("list"), nullptr);
  EXPECT_EQ(store.topic_count(), 0u);
  EXPECT_EQ(store.used(), 0u);
  EXPECT_TRUE(store.keyword_index().empty());
  EXPECT_EQ(store.most_recent(), nullptr);
}

TEST(ContextStore, NewKeywordsLinkToRelatedInContextKeywordsBothWays) {
  ContextStore store("t");
  store.append_record("token", {}, "a", 0, {});
  store.append_record("tokenizer tokens", {}, "b", 0, {});
  EXPECT_THAT(store.related().related("token"), UnorderedElementsAre("tokenizer", "tokens"));
  EXPECT_THAT(store.related().related("tokens"), UnorderedElementsAre("token", "tokenizer"));
  // A word that is not in the context still finds its in-context relatives.
  EXPECT_THAT(store.related().related("tokenize"),
              UnorderedElementsAre("token", "tokenizer", "tokens"));
  // A keyword leaving the context leaves its links.
  store.remove_record(store.find_topic("b")->memos[0].offset);
  EXPECT_THAT(store.related().related("tokenize"), ElementsAre("token"));
}

TEST(ContextStore, RecencyPutsNewAndTouchedTopicsFirst) {
  ContextStore store("t");
  store.append_record("x1", {}, "a", 0, {});
  store.append_record("x2", {}, "b", 0, {});
  store.append_record("x3", {}, "c", 0, {});
  EXPECT_EQ(store.most_recent()->topic, "c");
  store.touch(store.find_topic("a"));
  std::vector<std::string> order;
  for (const TopicNode* n = store.most_recent(); n; n = n->next) order.push_back(n->topic);
  EXPECT_THAT(order, ElementsAre("a", "c", "b"));
  store.append_record("x4", {}, "b", 0, {});
  EXPECT_EQ(store.most_recent()->topic, "b");
}

TEST(ContextStore, WebsFollowRecordsInAndOut) {
  ContextStore store("t");
  store.append_record("met @Bob because the build broke", {}, "alice: standup 2023-05-02", 0, {});
  const auto second =
      store.append_record("see src/main.cpp", {}, "alice: standup 2023-05-02", 0, {});
  const TopicNode* node = store.find_topic("alice: standup 2023-05-02");
  EXPECT_THAT(store.webs().terms_of(node, W::who), ElementsAre("alice", "bob"));
  EXPECT_THAT(store.webs().terms_of(node, W::when), ElementsAre("2023-05-02"));
  EXPECT_THAT(store.webs().terms_of(node, W::where), ElementsAre("src/main.cpp"));
  EXPECT_THAT(store.webs().terms_of(node, W::why), ElementsAre("the build broke"));
  EXPECT_THAT(store.webs().terms_of(node, W::what), ElementsAre("alice", "standup"));
  EXPECT_EQ(store.webs().topics_with(W::when, "2023-05").size(), 1u);

  store.remove_record(second);
  EXPECT_TRUE(store.webs().terms_of(node, W::where).empty());
  EXPECT_THAT(store.webs().terms_of(node, W::when),
              ElementsAre("2023-05-02"));  // still from memo 1
  store.remove_record(node->memos[0].offset);
  EXPECT_TRUE(store.webs().topics_with(W::who, "").empty());
}

TEST(ContextStore, LoadSkipsDamagedBytesWhereRecordsParseAgainAndDropsACutTail) {
  ContextStore source("t");
  source.append_record("kept one", {}, "a", 0, {});
  const std::string first(source.heap());
  source.append_record("kept two", {"Two"}, "b", 0, {});
  const std::string second(source.heap().substr(first.size()));

  ContextStore loaded("t");
  std::size_t observed = 0;
  loaded.set_record_observer([&](const std::vector<std::string_view>&) { ++observed; });
  // Garbage between two records, then a record cut short.
  EXPECT_EQ(loaded.load_heap(first + "\xff\xff\x07garbage" + second), 2u);
  EXPECT_EQ(observed, 2u);
  EXPECT_EQ(loaded.heap(), first + second);
  EXPECT_EQ(loaded.load_heap(first + second + "\x05\x00\x00\x00garbage"), 2u);
  EXPECT_EQ(loaded.heap(), first + second);
  // New records go right behind the last one read.
  const auto offset = loaded.append_record("after", {}, "c", 0, {});
  EXPECT_EQ(offset, first.size() + second.size());
}

TEST(ContextStore, KeywordsMatchWhateverTheirCase) {
  ContextStore store("t");
  store.append_record("nothing here", {"MyKW", "mykw"}, "a", 0, {});
  ASSERT_TRUE(store.postings("mykw"));
  ASSERT_TRUE(store.postings("MYKW"));
  EXPECT_EQ((*store.postings("MYKW"))[0].offset, (*store.postings("mykw"))[0].offset);
  EXPECT_EQ(store.postings("mykw")->size(), 1u);  // one record, one posting
  store.remove_record(store.find_topic("a")->memos[0].offset);
  EXPECT_FALSE(store.postings("mykw"));
}

}  // namespace
}  // namespace kx::memory

#pragma once
// One open memory context: the data heap and everything derived from it.
//
// The heap is a single byte buffer (grown in whole 1 MiB steps) holding the
// context's records back to back, exactly as they follow the magic in the data file.
// A record is addressed by its byte offset in the heap. Everything else here - topic
// table, recency list, keyword postings, record table, related-term links, the five
// W webs and the embedding table - is derived from the heap on load and kept in step
// on every append and removal; none of it is persisted.
//
// Invariants: records never overlap and leave no gap; offsets in every derived
// structure name the start of a live record; a topic node exists only while it has
// at least one memo; a keyword exists only while its posting list is non-empty.
//
// REQUIRES: external synchronisation (the interpreter session's lock).
#include <cstdint>
#include <filesystem>
#include <functional>
#include <iterator>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>
#include <vector>

#include "memory/group_sync.hpp"
#include "memory/heap_record.hpp"
#include "memory/index_file.hpp"
#include "memory/related_terms.hpp"
#include "memory/w5_web.hpp"

namespace kx::platform {
class FileLock;
}

namespace kx::memory {

inline constexpr std::uint64_t kHeapStep = 0x100000;  // 1 MiB

using Posting = MemoEntry;

// The postings of one keyword, in the order their records were added or loaded:
// those read from the index file, then those added since.
class PostingList {
 public:
  PostingList(StoredPostings stored, const std::vector<Posting>* extra)
      : stored_(stored), extra_(extra) {}
  std::size_t size() const { return stored_.size() + (extra_ ? extra_->size() : 0); }
  bool empty() const { return size() == 0; }
  Posting operator[](std::size_t i) const {
    if (i < stored_.size()) return {stored_.offset(i), stored_.flags(i)};
    return (*extra_)[i - stored_.size()];
  }

  class iterator {
   public:
    using iterator_category = std::input_iterator_tag;
    using value_type = Posting;
    using difference_type = std::ptrdiff_t;
    using pointer = void;
    using reference = Posting;
    iterator(const PostingList* list, std::size_t at) : list_(list), at_(at) {}
    Posting operator*() const { return (*list_)[at_]; }
    iterator& operator++() {
      ++at_;
      return *this;
    }
    iterator operator++(int) {
      iterator before = *this;
      ++at_;
      return before;
    }
    bool operator==(const iterator& other) const { return at_ == other.at_; }

   private:
    const PostingList* list_;
    std::size_t at_;
  };
  iterator begin() const { return {this, 0}; }
  iterator end() const { return {this, size()}; }

 private:
  StoredPostings stored_;
  const std::vector<Posting>* extra_;
};

struct TopicNode {
  std::string topic;
  std::vector<MemoEntry> memos;  // append order; positions shown to users are 1-based
  TopicNode* prev = nullptr;     // towards the most recently used
  TopicNode* next = nullptr;     // towards the least recently used
};

// Where a record sits: its topic and its 0-based position in the topic's memo list.
struct RecordSlot {
  std::uint64_t offset;
  TopicNode* topic;
  std::uint32_t position;
};

struct StringHash {
  using is_transparent = void;
  std::size_t operator()(std::string_view s) const { return std::hash<std::string_view>{}(s); }
};
template <typename V>
using StringMap = std::unordered_map<std::string, V, StringHash, std::equal_to<>>;

// The index key of a keyword: ASCII letters folded to lower case, as the tokenizer
// folds, so a keyword is found however it was stored or asked. Uses `buffer` only
// when something folds.
std::string_view fold_keyword(std::string_view keyword, std::string& buffer);

// The keywords a record is stored with: the caller's non-empty keywords unchanged,
// then StripToTokens(content), each keyword once (exact bytes), first seen first.
std::vector<std::string> memo_keywords(const std::vector<std::string>& caller,
                                       std::string_view content);

// Told about every record read from the data file, with its keywords.
using RecordObserver = std::function<void(const std::vector<std::string_view>& keywords)>;

class ContextStore {
 public:
  explicit ContextStore(std::string name);
  ~ContextStore();
  ContextStore(const ContextStore&) = delete;
  ContextStore& operator=(const ContextStore&) = delete;

  const std::string& name() const { return name_; }

  // --- persistence: with a data path, changes reach "data.mem" -------------------
  // An empty path keeps the store in memory only. Every write holds the context's
  // lock file ("data.mem.lock") and first takes in what other processes wrote, so no
  // process writes from a stale copy (see context_file.cpp).
  void set_data_path(std::filesystem::path path) {
    data_path_ = std::move(path);
    lock_path_ = data_path_;
    lock_path_ += ".lock";
  }
  const std::filesystem::path& data_path() const { return data_path_; }
  // Each add waits for the disk (true) or reaches the page cache and is synced by
  // `group_sync` a few milliseconds later (false, the default).
  void set_durable(bool each_add) { durable_ = each_add; }
  bool durable() const { return durable_; }
  void set_group_sync(GroupSync* group_sync) { group_sync_ = group_sync; }

  // Brings the heap in step with "data.mem" as it stands: records appended by
  // others are read in, a file rewritten by others is loaded afresh, and a file
  // that does not load whole is copied aside and rewritten to the records read.
  [[nodiscard]] std::string refresh();
  // Sentences ("warning: ...") about damage found since the last call.
  std::vector<std::string> take_warnings() { return std::exchange(warnings_, {}); }

  // Each returns "" on success or an error sentence; a failed write leaves neither
  // the file nor the store changed.
  [[nodiscard]] std::string append(std::string_view topic, const std::vector<std::string>& keywords,
                                   std::uint32_t flags, std::string_view content,
                                   const Embedding& vector = {});
  // Same topic = replace: the old memos go and the new one comes in one rewrite.
  [[nodiscard]] std::string add(std::string_view topic, const std::vector<std::string>& keywords,
                                std::string_view content, const Embedding& vector = {});
  [[nodiscard]] std::string delete_topic(std::string_view topic);
  // Removes the memo at 0-based `position`; the last memo takes the topic with it.
  [[nodiscard]] std::string delete_memo(std::string_view topic, std::uint32_t position);
  // Full rewrite of the data file from the heap as it is, previous file kept at
  // "data.mem.last".
  [[nodiscard]] std::string save();

  // A context whose records take at least this many bytes keeps the derived index
  // file "data.mem.idx" (index_file.hpp), written when a load had to read every record.
  void set_index_threshold(std::uint64_t bytes) { index_threshold_ = bytes; }
  // Whether the records read so far came from the index file (true) or were each read.
  bool loaded_from_index() const { return base_ != nullptr; }

  // A batch holds the lock from begin to end; its changes are written once, whole.
  [[nodiscard]] std::string begin_batch();
  [[nodiscard]] std::string end_batch();

  // --- in-memory operations ------------------------------------------------------
  // Writes one record at the end of the heap and indexes it; returns its offset.
  // Keywords: the caller's non-empty ones, then StripToTokens(content), each once.
  std::uint64_t append_record(std::string_view content, const std::vector<std::string>& keywords,
                              std::string_view topic, std::uint32_t flags, const Embedding& vector);
  // Removes records (heap compaction and offset correction everywhere).
  void remove_records(std::vector<std::uint64_t> offsets);
  void remove_record(std::uint64_t offset) { remove_records({offset}); }

  // Derives the five W webs afresh from every record.
  void rebuild_webs();
  // Drops everything, heap included.
  void reset();
  // Replaces the heap with `heap_bytes` and indexes every record that parses; bytes
  // that do not parse are dropped (see index_from). Returns the number indexed.
  std::size_t load_heap(std::string_view heap_bytes);
  // The same, with the bytes written straight into the heap by `fill` (which gets
  // the destination and must fill exactly `size` bytes, or return false to leave
  // the store empty). Spares a second copy of a large file while loading.
  std::size_t load_heap(std::uint64_t size, const std::function<bool(char*)>& fill);

  // --- reading -----------------------------------------------------------------------
  // Records loaded from the index file are read in place from a mapping of the data
  // file and the keyword index from the index file; what changes them, and the
  // accessors that need the whole of either in memory (heap, keyword_index), copy
  // them in first. Const reads may do that too, and may re-derive the keyword index
  // from the records when the index file turns out damaged: the store is used under
  // external synchronisation only.
  std::string_view heap() const;
  std::uint64_t used() const { return used_; }
  std::uint64_t capacity() const { return mapped_ + capacity_; }

  TopicNode* find_topic(std::string_view topic) const;
  void touch(TopicNode* topic);
  const TopicNode* most_recent() const { return head_; }
  std::size_t topic_count() const { return topics_.size(); }
  std::size_t memo_count() const { return records_.size(); }

  // Parses the record at `offset` (which must be a live record).
  RecordView record_at(std::uint64_t offset) const;
  const RecordSlot* slot(std::uint64_t offset) const;
  std::optional<PostingList> postings(std::string_view keyword) const;
  // Every keyword (folded) with its postings; no order is promised.
  void for_each_keyword(const std::function<void(std::string_view keyword,
                                                 const PostingList& postings)>& visit) const;
  std::size_t keyword_count() const;
  const StringMap<std::vector<Posting>>& keyword_index() const;
  const RelatedTerms& related() const { return related_; }
  // The webs of records loaded from the index file are derived on first use.
  const W5Web& webs() const;
  const Embedding* embedding(std::uint64_t offset) const;
  const std::map<std::uint64_t, Embedding>& embeddings() const { return embeddings_; }

  void set_record_observer(RecordObserver observer) { observer_ = std::move(observer); }

 private:
  void reserve(std::uint64_t bytes);
  // Indexes the records from heap offset `from` to `used_`. At the first that does
  // not parse (`bad_at`) it skips to where records parse again right up to the end
  // (`skipped` bytes dropped), or stops. Trims `used_` to what was indexed. Returns
  // the count indexed.
  std::size_t index_from(std::uint64_t from, std::uint64_t& bad_at, std::uint64_t& skipped);
  void register_record(std::uint64_t offset, const RecordView& record);
  // `link`: give keywords new to the context their related-term links.
  void index_keywords(std::uint64_t offset, const RecordView& record, bool link);
  ContextStore& self() const { return const_cast<ContextStore&>(*this); }
  // The heap bytes from `offset` to the end of the part that holds it.
  std::string_view bytes_at(std::uint64_t offset) const;
  char* owned_at(std::uint64_t offset) { return data_ + (offset - mapped_); }
  // Copies the mapped records into the owned heap and drops the mapping.
  void own_heap();
  // Copies the index file's postings into `index_` and stops using the file.
  void own_index();
  // Whether a keyword's postings in the index file are sound; when they are not the
  // file is given up and the keyword index derived from the records.
  bool base_sound(std::size_t number) const;
  void reindex_from_heap();
  void write_index(std::uint64_t seq, const std::function<void()>& before_rename = {});
  void unlink_recency(TopicNode* node);
  void push_head(TopicNode* node);
  void erase_topic_node(TopicNode* node);
  // context_file.cpp: the file side.
  struct Look;
  const std::filesystem::path& lock_path() const { return lock_path_; }
  // `for_append`: the caller holds the lock and will append through the look's handle.
  Look look(const platform::FileLock* lock, bool for_append = false) const;
  // `again`: the index was just written afresh; do not write it once more.
  bool load_indexed(Look& look, bool again = false);
  [[nodiscard]] std::string take_in(Look& look);
  [[nodiscard]] std::string take_in_first(Look& look);
  void note_damage(std::uint64_t file_bytes, std::uint64_t bad_at, std::uint64_t skipped);
  // `kept`: receives the look's handle when it can take the next append.
  [[nodiscard]] std::string catch_up(platform::FileLock& lock, Look* kept = nullptr);
  [[nodiscard]] std::string mend(platform::FileLock& lock, Look& look);
  [[nodiscard]] std::string rewrite(platform::FileLock& lock);
  [[nodiscard]] std::string write_tail(std::uint64_t from, Look& caught);
  // Under the lock, right after catch_up filled `caught`.
  [[nodiscard]] std::string append_caught_up(Look& caught, std::string_view topic,
                                             const std::vector<std::string>& keywords,
                                             std::uint32_t flags, std::string_view content,
                                             const Embedding& vector);
  // The answer of a write whose lock could not be taken.
  [[nodiscard]] std::string unlockable();

  std::string name_;
  std::filesystem::path data_path_;
  std::filesystem::path lock_path_;  // "data.mem.lock" beside it
  bool durable_ = false;
  GroupSync* group_sync_ = nullptr;
  // What of the file the heap holds: its first `file_size_` bytes as they were at
  // rewrite count `file_seq_`. `file_known_` is false until the first load and after
  // a failed rewrite, which makes the next refresh load afresh.
  bool file_known_ = false;
  std::uint64_t file_size_ = 0;
  std::uint64_t file_seq_ = 0;
  std::string damage_;       // why the file on disk must be mended (empty: it need not)
  bool converting_ = false;  // the file is in the old format: rewrite, not damage
  std::string blocked_;      // damage that could not be kept aside: writes refused
  // The copy made of a damaged file whose rewrite then failed, and which file (rewrite
  // count, size) it is of: the next mend of that same file reuses it.
  std::string kept_copy_;
  std::pair<std::uint64_t, std::uint64_t> kept_copy_of_{};
  std::vector<std::string> warnings_;
  std::unique_ptr<platform::FileLock> batch_lock_;
  bool batch_dirty_ = false;

  // The heap: bytes [0, mapped_) in place in `heap_map_` (behind the magic), the rest
  // in `data_`, whose `capacity_` counts only its own bytes.
  platform::FileMapping heap_map_;
  std::uint64_t mapped_ = 0;
  char* data_ = nullptr;
  std::uint64_t used_ = 0;
  std::uint64_t capacity_ = 0;
  std::uint64_t index_threshold_ = std::uint64_t{16} << 20;
  // Keywords of the records up to mapped_ when loaded from the index file; `index_`
  // then holds only what was added since. A base found damaged is kept mapped, unused,
  // until the next reset: views handed out before stay valid.
  std::unique_ptr<IndexFile> base_;
  std::unique_ptr<IndexFile> retired_base_;
  StringMap<std::vector<Posting>> retired_index_;
  mutable std::vector<std::uint8_t> base_checked_;  // per keyword: postings checksum held
  // Keys of `index_` that are not in the base, in the order they first appeared: with
  // the base's order, the first-seen order a load derives. False once keywords left.
  std::vector<std::string_view> keyword_order_;
  bool order_known_ = true;
  bool webs_ready_ = true;

  StringMap<std::unique_ptr<TopicNode>> topics_;
  TopicNode* head_ = nullptr;
  TopicNode* tail_ = nullptr;
  StringMap<std::vector<Posting>> index_;
  std::vector<RecordSlot> records_;  // ascending offsets (heap order)
  RelatedTerms related_;
  W5Web webs_;
  std::map<std::uint64_t, Embedding> embeddings_;
  RecordObserver observer_;
};

}  // namespace kx::memory

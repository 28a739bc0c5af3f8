#include "memory/context_store.hpp"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <new>
#include <unordered_set>

#include "memory/data_file.hpp"
#include "memory/tokenizer.hpp"
#include "platform/durable_file.hpp"

namespace kx::memory {
namespace {

std::uint64_t round_to_step(std::uint64_t bytes) {
  return std::max<std::uint64_t>(kHeapStep, (bytes + kHeapStep - 1) / kHeapStep * kHeapStep);
}

}  // namespace

std::string_view fold_keyword(std::string_view keyword, std::string& buffer) {
  const auto upper = [](char c) { return c >= 'A' && c <= 'Z'; };
  if (std::none_of(keyword.begin(), keyword.end(), upper)) return keyword;
  buffer.assign(keyword);
  for (char& c : buffer)
    if (upper(c)) c = static_cast<char>(c + 32);
  return buffer;
}

std::vector<std::string> memo_keywords(const std::vector<std::string>& caller,
                                       std::string_view content) {
  std::vector<std::string> keywords;
  std::unordered_set<std::string_view> seen;
  for (const std::string& keyword : caller)
    if (!keyword.empty() && seen.insert(keyword).second) keywords.push_back(keyword);
  std::vector<std::string> tokens = StripToTokens(content);
  keywords.reserve(keywords.size() + tokens.size());
  const std::size_t caller_count = keywords.size();
  for (std::string& token : tokens) {
    // Tokens are distinct among themselves; only the caller's keywords can repeat them.
    const bool dup = caller_count > 0 && seen.contains(token);
    if (!dup) keywords.push_back(std::move(token));
  }
  return keywords;
}

ContextStore::ContextStore(std::string name) : name_(std::move(name)) {}

ContextStore::~ContextStore() {
  std::free(data_);
}

void ContextStore::reserve(std::uint64_t bytes) {
  bytes -= std::min(bytes, mapped_);  // the mapped part needs no room
  if (bytes <= capacity_) return;
  const std::uint64_t capacity = round_to_step(bytes);
  // realloc lets large heaps grow by remapping pages instead of copying them.
  char* grown = static_cast<char*>(std::realloc(data_, capacity));
  if (grown == nullptr) throw std::bad_alloc();
  data_ = grown;
  capacity_ = capacity;
}

void ContextStore::reset() {
  topics_.clear();
  head_ = tail_ = nullptr;
  index_.clear();
  records_.clear();
  related_.clear();
  webs_.clear();
  embeddings_.clear();
  used_ = 0;
  heap_map_.unmap();
  mapped_ = 0;
  base_.reset();
  retired_base_.reset();
  retired_index_.clear();
  base_checked_.clear();
  keyword_order_.clear();
  order_known_ = true;
  webs_ready_ = true;
}

std::string_view ContextStore::bytes_at(std::uint64_t offset) const {
  if (offset < mapped_) return heap_map_.bytes().substr(kMagic.size() + offset, mapped_ - offset);
  return {data_ + (offset - mapped_), static_cast<std::size_t>(used_ - offset)};
}

void ContextStore::own_heap() {
  if (mapped_ == 0) return;
  const std::uint64_t tail = used_ - mapped_;
  const std::uint64_t capacity = round_to_step(used_);
  char* owned = static_cast<char*>(std::malloc(capacity));
  if (owned == nullptr) throw std::bad_alloc();
  std::memcpy(owned, heap_map_.bytes().data() + kMagic.size(), mapped_);
  if (tail > 0) std::memcpy(owned + mapped_, data_, tail);
  std::free(data_);
  data_ = owned;
  capacity_ = capacity;
  heap_map_.unmap();
  mapped_ = 0;
}

std::string_view ContextStore::heap() const {
  self().own_heap();
  return {data_, static_cast<std::size_t>(used_)};
}

// --- recency list ----------------------------------------------------------------

void ContextStore::unlink_recency(TopicNode* node) {
  (node->prev ? node->prev->next : head_) = node->next;
  (node->next ? node->next->prev : tail_) = node->prev;
  node->prev = node->next = nullptr;
}

void ContextStore::push_head(TopicNode* node) {
  node->prev = nullptr;
  node->next = head_;
  (head_ ? head_->prev : tail_) = node;
  head_ = node;
}

void ContextStore::touch(TopicNode* node) {
  if (node == head_) return;
  unlink_recency(node);
  push_head(node);
}

void ContextStore::erase_topic_node(TopicNode* node) {
  if (webs_ready_) webs_.erase_topic(node);
  unlink_recency(node);
  topics_.erase(node->topic);
}

// --- indexing ----------------------------------------------------------------------

void ContextStore::register_record(std::uint64_t offset, const RecordView& record) {
  auto [it, created] = topics_.try_emplace(std::string(record.topic));
  if (created) {
    it->second = std::make_unique<TopicNode>();
    it->second->topic = it->first;
  }
  TopicNode* node = it->second.get();
  node->memos.push_back({offset, record.flags});
  records_.push_back({offset, node, static_cast<std::uint32_t>(node->memos.size() - 1)});
  if (created)
    push_head(node);
  else
    touch(node);

  index_keywords(offset, record, true);
  if (webs_ready_) webs_.add(node, derive_w5(record.topic, record.content));
  if (!record.vector_bytes.empty()) embeddings_[offset] = record.vector();
}

void ContextStore::index_keywords(std::uint64_t offset, const RecordView& record, bool link) {
  std::string folded;
  for (std::string_view keyword : record.keywords) {
    const std::string_view key = fold_keyword(keyword, folded);
    // Look up before inserting: most keywords exist, and a lookup allocates nothing.
    if (auto entry = index_.find(key); entry != index_.end()) {
      // This record's postings go last, so a keyword it repeats (in another case)
      // shows up as its own offset at the back.
      if (entry->second.back().offset != offset) entry->second.push_back({offset, record.flags});
      continue;
    }
    // Records of the base lie below every record indexed here, so a keyword of the
    // base only gains postings behind its stored ones; it is not new to the context.
    const bool in_base = base_ && base_->find(key).has_value();
    auto entry = index_.emplace(std::string(key), std::vector<Posting>{}).first;
    entry->second.push_back({offset, record.flags});
    if (in_base) continue;
    keyword_order_.push_back(entry->first);
    if (link) related_.link(entry->first);
  }
}

std::uint64_t ContextStore::append_record(std::string_view content,
                                          const std::vector<std::string>& keywords,
                                          std::string_view topic, std::uint32_t flags,
                                          const Embedding& vector) {
  const std::vector<std::string> all = memo_keywords(keywords, content);
  const std::size_t size = encoded_record_size(content, topic, all, vector);
  reserve(used_ + size);
  const std::uint64_t offset = used_;
  encode_record(owned_at(offset), flags, content, topic, all, vector);
  used_ += size;
  register_record(offset, record_at(offset));
  return offset;
}

std::size_t ContextStore::load_heap(std::string_view heap_bytes) {
  return load_heap(heap_bytes.size(), [&](char* heap) {
    if (!heap_bytes.empty()) std::memcpy(heap, heap_bytes.data(), heap_bytes.size());
    return true;
  });
}

std::size_t ContextStore::load_heap(std::uint64_t size, const std::function<bool(char*)>& fill) {
  reset();
  reserve(std::max<std::uint64_t>(size, kHeapStep));  // at least one step
  if (!fill(data_)) return 0;
  used_ = size;
  std::uint64_t bad_at = 0, skipped = 0;
  return index_from(0, bad_at, skipped);
}

namespace {

// A record that a resynchronising scan may trust: flags within their defined bits
// and a topic, as every writer of records gives one.
bool plausible(const RecordView& record) {
  return (record.flags & ~(kVectorBit | kPropertyBits)) == 0 && !record.topic.empty();
}

// True when records parse back to back from `at` to exactly the end of `bytes`.
bool chain_reaches_end(std::string_view bytes, std::uint64_t at, RecordView& record) {
  while (at < bytes.size()) {
    if (!parse_record(bytes.substr(at), record) || !plausible(record)) return false;
    at += record.size;
  }
  return true;
}

constexpr std::uint64_t kResyncScanLimit = std::uint64_t{64} << 20;

}  // namespace

std::size_t ContextStore::index_from(std::uint64_t from, std::uint64_t& bad_at,
                                     std::uint64_t& skipped) {
  skipped = 0;
  std::size_t count = 0;
  RecordView record;
  std::uint64_t offset = from;
  for (;;) {
    while (offset < used_ && parse_record(bytes_at(offset), record) &&
           (record.flags & ~(kVectorBit | kPropertyBits)) == 0) {
      register_record(offset, record);
      if (observer_) observer_(record.keywords);
      offset += record.size;
      ++count;
    }
    if (offset >= used_ || skipped > 0) break;
    own_heap();  // damage lies behind the mapped records, which were checked whole
    bad_at = offset;
    // Damage in the middle: records that parse from some later byte right up to the
    // end are still readable, so skip the damaged bytes rather than lose them.
    std::uint64_t resume = offset + 1;
    const std::uint64_t last = std::min(used_, offset + kResyncScanLimit);
    while (resume < last && !chain_reaches_end(heap(), resume, record)) ++resume;
    if (resume >= last) break;
    std::memmove(data_ + offset, data_ + resume, used_ - resume);
    skipped = resume - offset;
    used_ -= skipped;
  }
  used_ = offset;
  return count;
}

void ContextStore::rebuild_webs() {
  webs_ready_ = true;
  webs_.clear();
  for (const RecordSlot& s : records_) {
    const RecordView record = record_at(s.offset);
    webs_.add(s.topic, derive_w5(record.topic, record.content));
  }
}

// --- removal -----------------------------------------------------------------------

void ContextStore::remove_records(std::vector<std::uint64_t> offsets) {
  std::sort(offsets.begin(), offsets.end());
  offsets.erase(std::unique(offsets.begin(), offsets.end()), offsets.end());
  std::erase_if(offsets, [&](std::uint64_t o) { return slot(o) == nullptr; });
  if (offsets.empty()) return;
  own_heap();
  own_index();
  order_known_ = false;

  // 1. Un-index every removed record while its bytes are still in place.
  std::vector<std::uint64_t> sizes;
  std::vector<TopicNode*> touched_topics;
  for (std::uint64_t offset : offsets) {
    const RecordView record = record_at(offset);
    sizes.push_back(record.size);
    TopicNode* node = slot(offset)->topic;
    std::string folded;
    for (std::string_view keyword : record.keywords) {
      auto entry = index_.find(fold_keyword(keyword, folded));
      if (entry == index_.end()) continue;
      auto& list = entry->second;
      auto at = std::lower_bound(list.begin(), list.end(), offset,
                                 [](const Posting& p, std::uint64_t o) { return p.offset < o; });
      if (at != list.end() && at->offset == offset) list.erase(at);
      if (list.empty()) {
        related_.unlink(entry->first);
        index_.erase(entry);
      }
    }
    if (webs_ready_) webs_.remove(node, derive_w5(record.topic, record.content));
    embeddings_.erase(offset);
    touched_topics.push_back(node);
  }
  auto removed = [&](std::uint64_t o) {
    return std::binary_search(offsets.begin(), offsets.end(), o);
  };
  std::erase_if(records_, [&](const RecordSlot& s) { return removed(s.offset); });

  // 2. Renumber the positions of the affected topics; drop topics left empty.
  std::sort(touched_topics.begin(), touched_topics.end());
  touched_topics.erase(std::unique(touched_topics.begin(), touched_topics.end()),
                       touched_topics.end());
  for (TopicNode* node : touched_topics) {
    std::erase_if(node->memos, [&](const MemoEntry& m) { return removed(m.offset); });
    if (node->memos.empty()) {
      erase_topic_node(node);
      continue;
    }
    for (std::uint32_t i = 0; i < node->memos.size(); ++i)
      const_cast<RecordSlot*>(slot(node->memos[i].offset))->position = i;
  }

  // 3. Close the gaps: slide the bytes between removed records down.
  std::uint64_t write = offsets[0];
  for (std::size_t i = 0; i < offsets.size(); ++i) {
    const std::uint64_t from = offsets[i] + sizes[i];
    const std::uint64_t to = i + 1 < offsets.size() ? offsets[i + 1] : used_;
    std::memmove(data_ + write, data_ + from, to - from);
    write += to - from;
  }
  used_ = write;

  // 4. Correct every stored offset behind the first removed record.
  std::vector<std::uint64_t> shift_before(offsets.size() + 1, 0);  // bytes removed below
  for (std::size_t i = 0; i < offsets.size(); ++i) shift_before[i + 1] = shift_before[i] + sizes[i];
  const std::uint64_t first = offsets.front();
  auto moved = [&](std::uint64_t o) {
    const std::size_t below = std::lower_bound(offsets.begin(), offsets.end(), o) - offsets.begin();
    return o - shift_before[below];
  };
  for (auto& [keyword, list] : index_) {
    auto at = std::upper_bound(list.begin(), list.end(), first,
                               [](std::uint64_t o, const Posting& p) { return o < p.offset; });
    for (; at != list.end(); ++at) at->offset = moved(at->offset);
  }
  for (RecordSlot& s : records_)
    if (s.offset > first) s.offset = moved(s.offset);
  for (auto& [name, node] : topics_)
    for (MemoEntry& m : node->memos)
      if (m.offset > first) m.offset = moved(m.offset);
  std::map<std::uint64_t, Embedding> shifted;
  for (auto& [offset, vector] : embeddings_) shifted.emplace(moved(offset), std::move(vector));
  embeddings_ = std::move(shifted);
}

// --- reading -----------------------------------------------------------------------

TopicNode* ContextStore::find_topic(std::string_view topic) const {
  auto it = topics_.find(topic);
  return it == topics_.end() ? nullptr : it->second.get();
}

RecordView ContextStore::record_at(std::uint64_t offset) const {
  RecordView record;
  parse_record(bytes_at(offset), record);
  return record;
}

const RecordSlot* ContextStore::slot(std::uint64_t offset) const {
  // Records are spread fairly evenly over the heap, so a few interpolation steps
  // land next to the slot; a binary search over what is left bounds the bad cases.
  std::size_t lo = 0, hi = records_.size();
  for (int step = 0; step < 3 && hi - lo > 16; ++step) {
    const std::uint64_t first = records_[lo].offset, last = records_[hi - 1].offset;
    if (offset < first || offset > last) return nullptr;
    const double fraction =
        static_cast<double>(offset - first) / static_cast<double>(last - first + 1);
    const std::size_t guess =
        lo + static_cast<std::size_t>(fraction * static_cast<double>(hi - lo));
    const std::size_t from = guess > lo + 8 ? guess - 8 : lo;
    const std::size_t to = std::min(hi, guess + 9);
    if (records_[from].offset > offset)
      hi = from;
    else if (records_[to - 1].offset < offset)
      lo = to;
    else
      lo = from, hi = to;
  }
  auto it = std::lower_bound(records_.begin() + lo, records_.begin() + hi, offset,
                             [](const RecordSlot& s, std::uint64_t o) { return s.offset < o; });
  return it != records_.begin() + hi && it->offset == offset ? &*it : nullptr;
}

std::optional<PostingList> ContextStore::postings(std::string_view keyword) const {
  std::string folded;
  const std::string_view key = fold_keyword(keyword, folded);
  StoredPostings stored;
  if (base_)
    if (const auto number = base_->find(key); number && base_sound(*number))
      stored = base_->postings(*number);
  auto it = index_.find(key);  // after the check: a damaged base refills index_
  const std::vector<Posting>* extra = it == index_.end() ? nullptr : &it->second;
  if (stored.size() == 0 && extra == nullptr) return std::nullopt;
  return PostingList(stored, extra);
}

void ContextStore::for_each_keyword(
    const std::function<void(std::string_view, const PostingList&)>& visit) const {
  if (base_)
    for (std::size_t i = 0; base_ && i < base_->keyword_count(); ++i) (void)base_sound(i);
  if (base_) {
    for (std::size_t i = 0; i < base_->keyword_count(); ++i) {
      const std::string_view key = base_->keyword(i);
      auto it = index_.find(key);
      visit(key, PostingList(base_->postings(i), it == index_.end() ? nullptr : &it->second));
    }
  }
  for (const auto& [key, list] : index_)
    if (!base_ || !base_->find(key)) visit(key, PostingList({}, &list));
}

std::size_t ContextStore::keyword_count() const {
  if (!base_) return index_.size();
  std::size_t count = base_->keyword_count();
  for (const auto& entry : index_)
    if (!base_->find(entry.first)) ++count;
  return count;
}

const StringMap<std::vector<Posting>>& ContextStore::keyword_index() const {
  self().own_index();
  return index_;
}

const W5Web& ContextStore::webs() const {
  if (!webs_ready_) self().rebuild_webs();
  return webs_;
}

bool ContextStore::base_sound(std::size_t number) const {
  if (base_checked_[number] != 0) return true;
  if (base_->postings_sound(number)) {
    base_checked_[number] = 1;
    return true;
  }
  self().reindex_from_heap();
  return false;
}

void ContextStore::reindex_from_heap() {
  // What was handed out stays valid: the old base and postings are kept aside.
  retired_base_ = std::move(base_);
  retired_index_ = std::move(index_);
  index_ = {};
  base_checked_.clear();
  // The keywords are the ones the base named (its names were checked), in the same
  // order, so the related-term links stand.
  keyword_order_.clear();
  order_known_ = true;
  for (const RecordSlot& s : records_) index_keywords(s.offset, record_at(s.offset), false);
  write_index(file_seq_);  // mend the derived file for the next load
}

void ContextStore::own_index() {
  if (!base_) return;
  for (std::size_t i = 0; i < base_->keyword_count(); ++i) {
    if (!base_sound(i)) return;  // the keyword index was derived from the records instead
  }
  for (std::size_t i = 0; i < base_->keyword_count(); ++i) {
    const StoredPostings stored = base_->postings(i);
    std::vector<Posting> list;
    auto it = index_.find(base_->keyword(i));
    list.reserve(stored.size() + (it == index_.end() ? 0 : it->second.size()));
    for (std::size_t j = 0; j < stored.size(); ++j)
      list.push_back({stored.offset(j), stored.flags(j)});
    if (it == index_.end()) {
      index_.emplace(std::string(base_->keyword(i)), std::move(list));
    } else {
      list.insert(list.end(), it->second.begin(), it->second.end());
      it->second = std::move(list);
    }
  }
  base_.reset();
  base_checked_.clear();
  order_known_ = false;
}

const Embedding* ContextStore::embedding(std::uint64_t offset) const {
  auto it = embeddings_.find(offset);
  return it == embeddings_.end() ? nullptr : &it->second;
}

}  // namespace kx::memory

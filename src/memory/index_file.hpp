#pragma once
// The derived index beside a data file, "data.mem.idx": what loading "data.mem" would
// derive from its records - the record table, the topic names and every keyword in
// the order it was first seen, with its postings - laid out to be used in place from
// a mapping, so a large context opens without reading each record.
//
// "data.mem" stays the one source of truth. The index names the records it was made
// from (their byte count, the rewrite count of the lock file and a checksum of those
// bytes) and is used only when all three still hold; the records appended since are
// read from "data.mem" as usual. Every table carries a checksum: the small ones are
// checked on open, a keyword's postings the first time they are read. An index that
// is missing, stale, cut or damaged is never believed; the store then loads from
// "data.mem" and writes a fresh one.
//
// Layout (integers little-endian; every section starts on an 8-byte boundary):
//   header    magic "KXIDX001", then 13 u64: heap bytes, rewrite count, heap checksum,
//             records, topics, keywords, slots, topic bytes, keyword bytes, postings,
//             tables checksum, header checksum (of the bytes before it), reserved
//   records   per record: u64 offset, u32 flags, u32 topic number (heap order)
//   topics    per topic: u32 length and the name (numbered from 0 in this order)
//   keywords  per keyword: u64 name position, u32 name length, u32 posting count,
//             u64 first posting, u64 postings checksum (first-seen order)
//   names     the keyword names back to back
//   slots     an open-addressing table of u32 keyword number + 1 (0 = empty)
//   postings  per posting: u64 offset, u32 flags
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "lang/checksum.hpp"
#include "platform/file_mapping.hpp"

namespace kx::memory {

// One memo of a topic's list, and one posting of a keyword: a record and its flags.
struct MemoEntry {
  std::uint64_t offset;
  std::uint32_t flags;
};

// The index's sums: over the records it was made from, its tables and each list.
using lang::Checksum;
using lang::checksum;

// "<data>.idx" beside the data file.
std::filesystem::path index_path(const std::filesystem::path& data_path);

struct IndexedRecord {
  std::uint64_t offset;
  std::uint32_t flags;
  std::uint32_t topic;  // number of the topic in the topic table
};

// The postings of one keyword as stored: 12 bytes each.
class StoredPostings {
 public:
  StoredPostings() = default;
  StoredPostings(const char* at, std::size_t count) : at_(at), count_(count) {}
  std::size_t size() const { return count_; }
  std::uint64_t offset(std::size_t i) const { return load<std::uint64_t>(i * 12); }
  std::uint32_t flags(std::size_t i) const { return load<std::uint32_t>(i * 12 + 8); }
  std::string_view bytes() const { return {at_, count_ * 12}; }

 private:
  template <typename T>
  T load(std::size_t at) const {
    T value;
    std::memcpy(&value, at_ + at, sizeof value);
    return value;
  }
  const char* at_ = nullptr;
  std::size_t count_ = 0;
};

// What the writer is given: the heap it describes and everything derived from it.
struct IndexContent {
  std::uint64_t heap_size = 0;
  std::uint64_t seq = 0;
  std::uint64_t heap_sum = 0;
  std::vector<IndexedRecord> records;
  std::vector<std::string_view> topics;
  struct Keyword {
    std::string_view name;  // folded, as the index keys it
    // Postings in order: those stored in an older index, then those in memory.
    StoredPostings stored;
    const std::vector<MemoEntry>* extra = nullptr;
  };
  std::vector<Keyword> keywords;
};

// Writes the index to a temporary name and renames it over `path`. `before_rename`
// runs once the bytes are written (and `content` is no longer read): where a mapped
// file cannot be renamed over, it lets go of the old index. "" or an error.
std::string write_index_file(const std::filesystem::path& path, const IndexContent& content,
                             const std::function<void()>& before_rename = {});

class IndexFile {
 public:
  // Maps `path` and checks everything but the postings. nullopt when it is missing,
  // cut or damaged.
  static std::optional<IndexFile> open(const std::filesystem::path& path);

  std::uint64_t heap_size() const { return field(0); }
  std::uint64_t seq() const { return field(1); }
  std::uint64_t heap_sum() const { return field(2); }
  std::size_t record_count() const { return static_cast<std::size_t>(field(3)); }
  std::size_t topic_count() const { return static_cast<std::size_t>(field(4)); }
  std::size_t keyword_count() const { return static_cast<std::size_t>(field(5)); }

  IndexedRecord record(std::size_t i) const;
  // The topic names in topic-number order.
  std::vector<std::string_view> topics() const;
  std::string_view keyword(std::size_t number) const;
  // The number of a keyword (folded), or nullopt.
  std::optional<std::size_t> find(std::string_view keyword) const;
  StoredPostings postings(std::size_t number) const;
  // Whether the keyword's postings still match their checksum and lie in order
  // within the described records.
  bool postings_sound(std::size_t number) const;

 private:
  explicit IndexFile(platform::FileMapping map) : map_(std::move(map)) {}
  std::uint64_t field(std::size_t i) const;
  const char* keyword_entry(std::size_t number) const;

  platform::FileMapping map_;
  std::size_t records_at_ = 0, topics_at_ = 0, keywords_at_ = 0, names_at_ = 0, slots_at_ = 0,
              postings_at_ = 0;
};

}  // namespace kx::memory

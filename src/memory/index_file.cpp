#include "memory/index_file.hpp"

#include <algorithm>
#include <bit>

#include "platform/durable_file.hpp"
#include "platform/file_handle.hpp"

namespace kx::memory {
namespace fs = std::filesystem;

namespace {

constexpr std::string_view kIndexMagic = "KXIDX001";
constexpr std::size_t kFields = 13;
constexpr std::size_t kHeaderSize = 8 + kFields * 8;
constexpr std::size_t kHeaderSummed = 8 + 11 * 8;  // magic and fields before the header checksum
constexpr std::size_t kRecordSize = 16, kKeywordSize = 32, kPostingSize = 12;

std::uint64_t load64(const char* at) {
  std::uint64_t v;
  std::memcpy(&v, at, 8);
  return v;
}
std::uint32_t load32(const char* at) {
  std::uint32_t v;
  std::memcpy(&v, at, 4);
  return v;
}
void put64(std::string& out, std::uint64_t v) {
  out.append(reinterpret_cast<const char*>(&v), 8);
}
void put32(std::string& out, std::uint32_t v) {
  out.append(reinterpret_cast<const char*>(&v), 4);
}
void pad8(std::string& out) {
  out.append((8 - out.size() % 8) % 8, '\0');
}
std::uint64_t padded8(std::uint64_t n) {
  return (n + 7) / 8 * 8;
}

std::size_t slot_count_for(std::size_t keywords) {
  return std::bit_ceil(std::max<std::size_t>(2, keywords * 2));
}

}  // namespace

fs::path index_path(const fs::path& data_path) {
  fs::path path = data_path;
  path += ".idx";
  return path;
}

// --- writing -----------------------------------------------------------------------

namespace {

// Appends through a buffer, so millions of postings cost a few large writes.
class Writer {
 public:
  explicit Writer(platform::FileHandle& file) : file_(file) {}
  void add(std::string_view bytes) {
    if (!ok_) return;
    if (buffer_.size() + bytes.size() > kFlushAt) flush();
    if (bytes.size() > kFlushAt)
      ok_ = file_.append(bytes, reason_);
    else
      buffer_.append(bytes);
  }
  bool finish(std::string& reason) {
    flush();
    reason = reason_;
    return ok_;
  }

 private:
  void flush() {
    if (ok_ && !buffer_.empty()) ok_ = file_.append(buffer_, reason_);
    buffer_.clear();
  }
  static constexpr std::size_t kFlushAt = 1 << 20;
  platform::FileHandle& file_;
  std::string buffer_;
  std::string reason_;
  bool ok_ = true;
};

void encode_extra(const std::vector<MemoEntry>& extra, std::string& out) {
  for (const MemoEntry& p : extra) {
    put64(out, p.offset);
    put32(out, p.flags);
  }
}

}  // namespace

std::string write_index_file(const fs::path& path, const IndexContent& content,
                             const std::function<void()>& before_rename) {
  // Tables first, in memory: the header carries their checksum.
  std::string records, topics, keywords, names, slots;
  records.reserve(content.records.size() * kRecordSize);
  for (const IndexedRecord& r : content.records) {
    put64(records, r.offset);
    put32(records, r.flags);
    put32(records, r.topic);
  }
  for (std::string_view topic : content.topics) {
    put32(topics, static_cast<std::uint32_t>(topic.size()));
    topics.append(topic);
  }
  const std::uint64_t topic_bytes = topics.size();
  pad8(topics);
  std::uint64_t posting_count = 0;
  std::string scratch;
  for (const IndexContent::Keyword& k : content.keywords) {
    const std::size_t count = k.stored.size() + (k.extra ? k.extra->size() : 0);
    Checksum sum;
    sum.update(k.stored.bytes());
    if (k.extra) {
      scratch.clear();
      encode_extra(*k.extra, scratch);
      sum.update(scratch);
    }
    put64(keywords, names.size());
    put32(keywords, static_cast<std::uint32_t>(k.name.size()));
    put32(keywords, static_cast<std::uint32_t>(count));
    put64(keywords, posting_count);
    put64(keywords, sum.value());
    names.append(k.name);
    posting_count += count;
  }
  const std::uint64_t name_bytes = names.size();
  pad8(names);
  const std::size_t slot_total = slot_count_for(content.keywords.size());
  std::vector<std::uint32_t> table(slot_total, 0);
  for (std::size_t i = 0; i < content.keywords.size(); ++i) {
    std::size_t at = checksum(content.keywords[i].name) & (slot_total - 1);
    while (table[at] != 0) at = (at + 1) & (slot_total - 1);
    table[at] = static_cast<std::uint32_t>(i + 1);
  }
  for (std::uint32_t v : table) put32(slots, v);
  pad8(slots);

  Checksum tables;
  for (const std::string* part : {&records, &topics, &keywords, &names, &slots})
    tables.update(*part);
  std::string header(kIndexMagic);
  for (std::uint64_t v :
       {content.heap_size, content.seq, content.heap_sum,
        static_cast<std::uint64_t>(content.records.size()),
        static_cast<std::uint64_t>(content.topics.size()),
        static_cast<std::uint64_t>(content.keywords.size()), static_cast<std::uint64_t>(slot_total),
        topic_bytes, name_bytes, posting_count, tables.value()})
    put64(header, v);
  put64(header, checksum(header));
  put64(header, 0);

  const fs::path temp = platform::fresh_temp_path(path);
  std::string reason;
  bool ok = false;
  {
    platform::FileHandle file =
        platform::FileHandle::open(temp, platform::FileHandle::Mode::append);
    if (!file.is_open()) return "could not create " + temp.string();
    Writer out(file);
    for (const std::string* part : {&header, &records, &topics, &keywords, &names, &slots})
      out.add(*part);
    for (const IndexContent::Keyword& k : content.keywords) {
      out.add(k.stored.bytes());
      if (k.extra) {
        scratch.clear();
        encode_extra(*k.extra, scratch);
        out.add(scratch);
      }
    }
    ok = out.finish(reason);
  }
  if (ok && before_rename) before_rename();
  if (ok) ok = platform::replace_durable(temp, path, reason);
  if (!ok) {
    std::error_code ec;
    fs::remove(temp, ec);
    return "could not write " + path.string() + ": " + reason;
  }
  return {};
}

// --- reading -----------------------------------------------------------------------

std::uint64_t IndexFile::field(std::size_t i) const {
  return load64(map_.bytes().data() + 8 + i * 8);
}

std::optional<IndexFile> IndexFile::open(const fs::path& path) {
  platform::FileHandle file = platform::FileHandle::open(path, platform::FileHandle::Mode::read);
  const auto size = file.is_open() ? file.size() : std::nullopt;
  if (!size || *size < kHeaderSize) return std::nullopt;
  auto map = platform::FileMapping::map(file, *size);
  if (!map) return std::nullopt;
  IndexFile index(std::move(*map));
  const std::string_view bytes = index.map_.bytes();
  if (!bytes.starts_with(kIndexMagic) ||
      checksum(bytes.substr(0, kHeaderSummed)) != index.field(11))
    return std::nullopt;
  // Section sizes, each bounded by the file so that no sum below can overflow.
  const std::uint64_t records = index.field(3), topics = index.field(4), keywords = index.field(5),
                      slots = index.field(6), topic_bytes = index.field(7),
                      name_bytes = index.field(8), postings = index.field(9);
  const std::uint64_t limit = *size;
  if (records > limit / kRecordSize || topics > topic_bytes / 4 + 1 || topic_bytes > limit ||
      keywords > limit / kKeywordSize || slots > limit / 4 || !std::has_single_bit(slots) ||
      slots <= keywords || name_bytes > limit || postings > limit / kPostingSize)
    return std::nullopt;
  std::uint64_t at = kHeaderSize;
  index.records_at_ = at;
  at += records * kRecordSize;
  index.topics_at_ = at;
  at += padded8(topic_bytes);
  index.keywords_at_ = at;
  at += keywords * kKeywordSize;
  index.names_at_ = at;
  at += padded8(name_bytes);
  index.slots_at_ = at;
  at += padded8(slots * 4);
  index.postings_at_ = at;
  at += postings * kPostingSize;
  if (at != *size) return std::nullopt;
  if (checksum(bytes.substr(index.records_at_, index.postings_at_ - index.records_at_)) !=
      index.field(10))
    return std::nullopt;
  // Entries that point outside their sections (a writer's fault, not damage: the
  // checksum holds) are refused as well.
  for (std::size_t i = 0; i < keywords; ++i) {
    const char* entry = index.keyword_entry(i);
    if (load64(entry) + load32(entry + 8) > name_bytes ||
        load64(entry + 16) + load32(entry + 12) > postings)
      return std::nullopt;
  }
  std::uint64_t walked = 0;
  for (std::size_t i = 0; i < topics; ++i) {
    if (walked + 4 > topic_bytes) return std::nullopt;
    walked += 4 + load32(bytes.data() + index.topics_at_ + walked);
  }
  if (walked != topic_bytes) return std::nullopt;
  return index;
}

IndexedRecord IndexFile::record(std::size_t i) const {
  const char* at = map_.bytes().data() + records_at_ + i * kRecordSize;
  return {load64(at), load32(at + 8), load32(at + 12)};
}

std::vector<std::string_view> IndexFile::topics() const {
  std::vector<std::string_view> out;
  out.reserve(topic_count());
  const char* at = map_.bytes().data() + topics_at_;
  for (std::size_t i = 0; i < topic_count(); ++i) {
    const std::uint32_t length = load32(at);
    out.emplace_back(at + 4, length);
    at += 4 + length;
  }
  return out;
}

const char* IndexFile::keyword_entry(std::size_t number) const {
  return map_.bytes().data() + keywords_at_ + number * kKeywordSize;
}

std::string_view IndexFile::keyword(std::size_t number) const {
  const char* entry = keyword_entry(number);
  return {map_.bytes().data() + names_at_ + load64(entry), load32(entry + 8)};
}

std::optional<std::size_t> IndexFile::find(std::string_view keyword_name) const {
  const std::size_t mask = static_cast<std::size_t>(field(6)) - 1;
  const char* slots = map_.bytes().data() + slots_at_;
  std::size_t at = checksum(keyword_name) & mask;
  for (std::size_t probes = 0; probes <= mask; ++probes, at = (at + 1) & mask) {
    const std::uint32_t value = load32(slots + at * 4);
    if (value == 0 || value > keyword_count()) return std::nullopt;
    if (keyword(value - 1) == keyword_name) return value - 1;
  }
  return std::nullopt;
}

StoredPostings IndexFile::postings(std::size_t number) const {
  const char* entry = keyword_entry(number);
  return {map_.bytes().data() + postings_at_ + load64(entry + 16) * kPostingSize,
          load32(entry + 12)};
}

bool IndexFile::postings_sound(std::size_t number) const {
  const StoredPostings list = postings(number);
  if (checksum(list.bytes()) != load64(keyword_entry(number) + 24)) return false;
  // Within the described records, in ascending order. (Whether each names a record
  // start is left to the readers, which look every posting up anyway.)
  for (std::size_t i = 0; i < list.size(); ++i)
    if (list.offset(i) >= heap_size() || (i > 0 && list.offset(i - 1) >= list.offset(i)))
      return false;
  return true;
}

}  // namespace kx::memory

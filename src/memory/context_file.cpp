// The file side of a context store: keeping the heap in step with "data.mem" while
// other processes read and write the same file.
//
// Every append and rewrite holds the lock file "data.mem.lock". Its first eight bytes
// count the rewrites. The heap mirrors the first `file_size_` bytes of the file as of
// rewrite count `file_seq_`; the file only grows between rewrites, so when the count
// is unchanged and the file is longer, the extra bytes are whole records appended by
// someone else, and when the count moved, the file is loaded afresh. A writer takes
// these in under the lock before changing anything, so it never writes from a stale
// copy. Readers hold the lock only to open the file and read its size and count:
// appends only add bytes behind that size and rewrites rename a new file over the
// name, so the open file still shows what was looked at.
#include <algorithm>
#include <cstring>
#include <system_error>
#include <unordered_map>

#include "memory/context_store.hpp"
#include "memory/data_file.hpp"
#include "platform/durable_file.hpp"
#include "platform/file_handle.hpp"
#include "platform/file_mapping.hpp"

namespace kx::memory {
namespace fs = std::filesystem;
using platform::FileHandle;
using platform::FileLock;

struct ContextStore::Look {
  FileHandle file;        // "data.mem" as it was looked at; closed when missing
  bool writable = false;  // `file` may be appended to as well
  std::uint64_t size = 0;
  std::uint64_t seq = 0;
};

ContextStore::Look ContextStore::look(const FileLock* lock, bool for_append) const {
  Look out;
  out.seq = lock != nullptr ? lock->read_counter() : file_seq_;
  // A writer opens the file once for both looking and appending. Where it may not
  // write, it still reads: a file that cannot be opened would look missing.
  if (for_append) {
    out.file = FileHandle::open(data_path_, FileHandle::Mode::update);
    out.writable = out.file.is_open();
  }
  if (!out.file.is_open()) out.file = FileHandle::open(data_path_, FileHandle::Mode::read);
  if (out.file.is_open()) out.size = out.file.size().value_or(0);
  return out;
}

void ContextStore::note_damage(std::uint64_t file_bytes, std::uint64_t bad_at,
                               std::uint64_t skipped) {
  const std::string at = std::to_string(bad_at + kMagic.size());
  if (skipped > 0)
    damage_ = std::to_string(skipped) + " damaged byte(s) at byte " + at + " were skipped";
  else
    damage_ = "its records break off at byte " + at + " of " + std::to_string(file_bytes);
}

std::string ContextStore::take_in(Look& look) {
  const bool afresh = !file_known_ || look.seq != file_seq_ || look.size < file_size_;
  if (afresh) {
    reset();
    file_size_ = 0;
    damage_.clear();
    converting_ = false;
  }
  file_known_ = true;
  file_seq_ = look.seq;
  if (!look.file.is_open() || look.size == 0 || look.size == file_size_) return {};
  if (file_size_ == 0) return take_in_first(look);

  // Records someone else appended.
  const std::uint64_t from = used_, count = look.size - file_size_;
  reserve(used_ + count);
  if (!look.file.read_at(file_size_, owned_at(used_), count)) {
    file_known_ = false;
    return "could not read " + data_path_.string();
  }
  used_ += count;
  std::uint64_t bad_at = 0, skipped = 0;
  index_from(from, bad_at, skipped);
  if (used_ != from + count) note_damage(look.size, bad_at, skipped);
  file_size_ = look.size;
  return {};
}

std::string ContextStore::take_in_first(Look& look) {
  const std::uint64_t size = look.size;
  const std::string unreadable = "could not read " + data_path_.string();
  char magic[4] = {};
  if (size >= kMagic.size() && look.file.read_at(0, magic, sizeof magic) &&
      std::string_view(magic, sizeof magic) == kMagic) {
    if (load_indexed(look)) {
      file_size_ = size;
      return {};
    }
    // The records go straight into the heap.
    const std::uint64_t body = size - kMagic.size();
    bool read = false;
    reset();
    reserve(std::max<std::uint64_t>(body, kHeapStep));
    read = body == 0 || look.file.read_at(kMagic.size(), data_, body);
    if (!read) {
      file_known_ = false;
      return unreadable;
    }
    used_ = body;
    std::uint64_t bad_at = 0, skipped = 0;
    index_from(0, bad_at, skipped);
    if (used_ != body)
      note_damage(size, bad_at, skipped);
    else if (body >= index_threshold_)
      write_index(look.seq);
  } else {
    std::string bytes(static_cast<std::size_t>(size), '\0');
    if (!look.file.read_at(0, bytes.data(), size)) {
      file_known_ = false;
      return unreadable;
    }
    if (guess_layout(bytes) == Layout::damaged_magic) {
      std::uint64_t bad_at = 0, skipped = 0;
      reset();
      used_ = 0;
      load_heap(std::string_view(bytes).substr(kMagic.size()));
      (void)bad_at, (void)skipped;
      damage_ = "it does not begin with " + std::string(kMagic);
    } else {
      bool whole = false;
      reset();
      convert_old_records(*this, bytes, whole);
      converting_ = true;
      if (!whole) damage_ = "an old-format file whose records break off";
    }
  }
  file_size_ = size;
  return {};
}

std::string ContextStore::rewrite(FileLock& lock) {
  std::string error = rewrite_data_file(data_path_, heap());
  const std::uint64_t seq = lock.read_counter() + 1;
  if (error.empty() && !lock.write_counter(seq)) error = "could not update " + lock_path().string();
  if (!error.empty()) {
    // Back to what the file holds: a failed write changes nothing. Only read it here:
    // mending from a failed rewrite would copy the damage aside again and again.
    file_known_ = false;
    Look now = look(&lock);
    if (std::string reload = take_in(now); !reload.empty()) error += "; " + reload;
    return error;
  }
  file_seq_ = seq;
  file_size_ = kMagic.size() + used_;
  file_known_ = true;
  return {};
}

std::string ContextStore::mend(FileLock& lock, Look& look) {
  if (damage_.empty() && !converting_) return {};
  look.file.close();  // Windows renames over a file only when nobody has it open
  std::string kept;
  const std::pair<std::uint64_t, std::uint64_t> damaged_file{file_seq_, file_size_};
  if (!damage_.empty() && !kept_copy_.empty() && kept_copy_of_ == damaged_file) {
    kept = kept_copy_;  // this very file was kept aside before; its rewrite failed
  } else if (!damage_.empty()) {
    const fs::path copy = free_damaged_path(data_path_);
    if (std::string error = copy_durably(data_path_, copy); !error.empty()) {
      if (blocked_.empty())
        warnings_.push_back("warning: data.mem of context '" + name_ + "' did not load whole (" +
                            damage_ + ") and could not be copied aside, so it is left as it is; " +
                            std::to_string(memo_count()) + " record(s) read: " + error);
      blocked_ = "data.mem is damaged and could not be kept aside; nothing is written to it";
      return blocked_;
    }
    kept = copy.string();
    kept_copy_ = kept;
    kept_copy_of_ = damaged_file;
  }
  const std::size_t records = memo_count();
  const std::string why = damage_;
  damage_.clear();
  converting_ = false;
  if (std::string error = rewrite(lock); !error.empty()) {
    if (!why.empty()) blocked_ = "data.mem is damaged and could not be rewritten: " + error;
    return error;
  }
  blocked_.clear();
  kept_copy_.clear();
  if (!why.empty())
    warnings_.push_back("warning: data.mem of context '" + name_ + "' did not load whole (" + why +
                        "); the damaged file is kept as " + kept + "; " + std::to_string(records) +
                        " record(s) read, and data.mem now holds exactly those");
  return {};
}

std::string ContextStore::catch_up(FileLock& lock, Look* kept) {
  Look now = look(&lock, kept != nullptr);
  if (std::string error = take_in(now); !error.empty()) return error;
  if (std::string error = mend(lock, now); !error.empty()) return error;
  if (!blocked_.empty()) return blocked_;
  // The handle names the file the heap now mirrors only when mending rewrote nothing
  // (mend closes it before a rewrite).
  if (kept != nullptr && now.file.is_open() && now.size == file_size_) *kept = std::move(now);
  return {};
}

std::string ContextStore::refresh() {
  if (data_path_.empty()) return {};
  if (batch_lock_) return catch_up(*batch_lock_);
  Look now;
  {
    FileLock lock(lock_path());
    if (!lock.held()) {
      // A context that cannot be locked (a read-only home) is read, never written.
      now = look(nullptr);
      std::string error = take_in(now);
      if (!damage_.empty() && blocked_.empty()) {
        blocked_ = "data.mem is damaged and its context cannot be locked to mend it";
        warnings_.push_back("warning: data.mem of context '" + name_ + "' did not load whole (" +
                            damage_ + "); " + std::to_string(memo_count()) +
                            " record(s) read; it cannot be locked, so it is left as it is");
      }
      return error;
    }
    now = look(&lock);
  }
  if (std::string error = take_in(now); !error.empty()) return error;
  if (damage_.empty() && !converting_) return {};
  now.file.close();  // Windows renames over a file only when nobody has it open
  // Mend under the lock, from a fresh look, so no one's appends are cut off.
  FileLock lock(lock_path());
  file_known_ = false;
  return catch_up(lock);
}

// --- the index file ----------------------------------------------------------------

bool ContextStore::load_indexed(Look& look, bool again) {
  auto index = IndexFile::open(index_path(data_path_));
  if (!index || index->seq() != look.seq || kMagic.size() + index->heap_size() > look.size)
    return false;
  const std::uint64_t covered = index->heap_size();
  // The records it was made from must be the bytes in data.mem now. Read through the
  // file, not the mapping, so that checking touches no page of this process.
  {
    Checksum sum;
    std::string chunk(std::size_t{1} << 20, '\0');
    for (std::uint64_t at = 0; at < covered;) {
      const std::uint64_t n = std::min<std::uint64_t>(chunk.size(), covered - at);
      if (!look.file.read_at(kMagic.size() + at, chunk.data(), n)) return false;
      sum.update(std::string_view(chunk.data(), static_cast<std::size_t>(n)));
      at += n;
    }
    if (sum.value() != index->heap_sum()) return false;
  }
  // Where a mapped index cannot be replaced (Windows), damage found later could not be
  // mended while the store holds the file: check every keyword's postings now.
  if (platform::mappings_block_renames())
    for (std::size_t i = 0; i < index->keyword_count(); ++i)
      if (!index->postings_sound(i)) return false;
  auto map = platform::FileMapping::map(look.file, kMagic.size() + covered);
  if (!map) return false;

  reset();
  heap_map_ = std::move(*map);
  mapped_ = used_ = covered;
  const std::vector<std::string_view> names = index->topics();
  std::vector<TopicNode*> nodes(names.size(), nullptr);
  records_.reserve(index->record_count());
  bool sound = index->record_count() > 0 ? index->record(0).offset == 0 : covered == 0;
  for (std::size_t i = 0; sound && i < index->record_count(); ++i) {
    const IndexedRecord r = index->record(i);
    sound = r.topic < nodes.size() && r.offset < covered &&
            (i == 0 || records_.back().offset < r.offset);
    if (!sound) break;
    TopicNode*& node = nodes[r.topic];
    const bool created = node == nullptr;
    if (created) {
      auto [it, fresh] = topics_.try_emplace(std::string(names[r.topic]));
      if (!fresh) {
        sound = false;
        break;
      }
      it->second = std::make_unique<TopicNode>();
      it->second->topic = it->first;
      node = it->second.get();
    }
    node->memos.push_back({r.offset, r.flags});
    records_.push_back({r.offset, node, static_cast<std::uint32_t>(node->memos.size() - 1)});
    if (created)
      push_head(node);
    else
      touch(node);
    if ((r.flags & kVectorBit) != 0 || observer_) {
      const RecordView record = record_at(r.offset);
      if (!record.vector_bytes.empty()) embeddings_[r.offset] = record.vector();
      if (observer_) observer_(record.keywords);
    }
  }
  if (sound && !records_.empty()) {
    // The last record must end where the described records end.
    RecordView last;
    sound = parse_record(bytes_at(records_.back().offset), last) &&
            records_.back().offset + last.size == covered;
  }
  if (!sound) {
    reset();
    return false;
  }
  for (std::size_t i = 0; i < index->keyword_count(); ++i)
    related_.link(std::string(index->keyword(i)));
  base_checked_.assign(index->keyword_count(), 0);
  base_ = std::make_unique<IndexFile>(std::move(*index));
  webs_ready_ = false;
  // Where others may rename over a mapped file only once it is unmapped, the records
  // are copied in instead of holding data.mem mapped.
  if (platform::mappings_block_renames()) own_heap();

  // Records appended since the index was written.
  const std::uint64_t rest = look.size - kMagic.size() - covered;
  if (rest > 0) {
    reserve(used_ + rest);
    if (!look.file.read_at(kMagic.size() + covered, owned_at(used_), rest)) {
      reset();
      return false;
    }
    used_ += rest;
    std::uint64_t bad_at = 0, skipped = 0;
    index_from(covered, bad_at, skipped);
    if (used_ != covered + rest) {
      note_damage(look.size, bad_at, skipped);
    } else if (!again && rest >= index_threshold_ && rest >= covered / 4) {
      // Many records behind the index: index them all and open that. The old index is
      // let go before the new one takes its name (Windows renames over no mapped file).
      write_index(look.seq, [&] { reset(); });
      return load_indexed(look, true);
    }
  }
  return true;
}

void ContextStore::write_index(std::uint64_t seq, const std::function<void()>& before_rename) {
  if (!order_known_ || data_path_.empty()) return;
  IndexContent content;
  content.heap_size = used_;
  content.seq = seq;
  Checksum sum;
  sum.update(bytes_at(0).substr(0, mapped_));
  if (used_ > mapped_) sum.update(bytes_at(mapped_));
  content.heap_sum = sum.value();
  std::unordered_map<const TopicNode*, std::uint32_t> numbers;
  content.records.reserve(records_.size());
  for (const RecordSlot& s : records_) {
    auto [it, fresh] = numbers.try_emplace(s.topic, static_cast<std::uint32_t>(numbers.size()));
    if (fresh) content.topics.push_back(s.topic->topic);
    content.records.push_back({s.offset, s.topic->memos[s.position].flags, it->second});
  }
  if (base_) {
    for (std::size_t i = 0; i < base_->keyword_count(); ++i) {
      if (!base_sound(i)) return;
      auto it = index_.find(base_->keyword(i));
      content.keywords.push_back(
          {base_->keyword(i), base_->postings(i), it == index_.end() ? nullptr : &it->second});
    }
  }
  for (std::string_view key : keyword_order_)
    content.keywords.push_back({key, {}, &index_.find(key)->second});
  // The index is derived: when it cannot be written, the next load reads every record.
  (void)write_index_file(index_path(data_path_), content, before_rename);
}

// --- writes ------------------------------------------------------------------------

std::string ContextStore::write_tail(std::uint64_t from, Look& caught) {
  // The writable handle of the look just taken under this lock, whose size the heap
  // mirrors, spares opening the file again.
  FileHandle file;
  std::optional<std::uint64_t> size;
  if (caught.writable && caught.file.is_open()) {
    file = std::move(caught.file);
    size = caught.size;
  } else {
    file = FileHandle::open(data_path_, FileHandle::Mode::append);
    if (file.is_open()) size = file.size();
  }
  if (!size) return "could not open " + data_path_.string();
  if (*size != file_size_) {
    file_known_ = false;
    return data_path_.string() + " changed while locked";
  }
  const std::string_view record = bytes_at(from);
  std::string first;  // a new file gets the magic in the same write
  if (*size == 0) first = std::string(kMagic) + std::string(record);
  const std::string_view bytes = *size == 0 ? std::string_view(first) : record;
  std::string reason;
  bool ok = file.append(bytes, reason);
  if (ok && durable_ && !file.sync()) {
    ok = false;
    reason = "could not sync it";
  }
  if (!ok) {
    // A torn tail would hide every later record: cut it off again.
    if (!file.truncate(*size)) file_known_ = false;
    return "could not write " + data_path_.string() + ": " + reason;
  }
  if (durable_ && *size == 0)
    (void)platform::sync_directory(data_path_.parent_path());  // the new name, too
  if (!durable_ && group_sync_ != nullptr) group_sync_->note(data_path_);
  file_size_ = *size + bytes.size();
  return {};
}

std::string ContextStore::append_caught_up(Look& caught, std::string_view topic,
                                           const std::vector<std::string>& keywords,
                                           std::uint32_t flags, std::string_view content,
                                           const Embedding& vector) {
  const std::uint64_t from = used_;
  const std::uint64_t offset = append_record(content, keywords, topic, flags, vector);
  if (std::string error = write_tail(from, caught); !error.empty()) {
    remove_record(offset);
    return error;
  }
  return {};
}

std::string ContextStore::append(std::string_view topic, const std::vector<std::string>& keywords,
                                 std::uint32_t flags, std::string_view content,
                                 const Embedding& vector) {
  if (data_path_.empty() || batch_lock_) {
    append_record(content, keywords, topic, flags, vector);
    batch_dirty_ = batch_lock_ != nullptr;
    return {};
  }
  FileLock lock(lock_path());
  if (!lock.held()) return unlockable();
  Look now;
  if (std::string error = catch_up(lock, &now); !error.empty()) return error;
  return append_caught_up(now, topic, keywords, flags, content, vector);
}

std::string ContextStore::unlockable() {
  std::string error = "could not lock " + lock_path().string();
  // What a separate refresh would have found and said before the write was tried.
  if (std::string read = refresh(); !read.empty()) error += "; " + read;
  return error;
}

std::string ContextStore::add(std::string_view topic, const std::vector<std::string>& keywords,
                              std::string_view content, const Embedding& vector) {
  auto replace = [&] {
    if (TopicNode* node = find_topic(topic)) {
      std::vector<std::uint64_t> offsets;
      for (const MemoEntry& m : node->memos) offsets.push_back(m.offset);
      remove_records(std::move(offsets));
    }
    append_record(content, keywords, topic, 0, vector);
  };
  if (data_path_.empty() || batch_lock_) {
    replace();
    batch_dirty_ = batch_lock_ != nullptr;
    return {};
  }
  FileLock lock(lock_path());
  if (!lock.held()) return unlockable();
  Look now;
  if (std::string error = catch_up(lock, &now); !error.empty()) return error;
  if (find_topic(topic) == nullptr)
    return append_caught_up(now, topic, keywords, 0, content, vector);
  now.file.close();  // Windows renames over a file only when nobody has it open
  // The old memos leave and the new one arrives in one rewrite: never a moment
  // without the topic.
  replace();
  return rewrite(lock);
}

std::string ContextStore::delete_topic(std::string_view topic) {
  return delete_memo(topic, UINT32_MAX);
}

std::string ContextStore::delete_memo(std::string_view topic, std::uint32_t position) {
  auto remove = [&]() -> bool {
    TopicNode* node = find_topic(topic);
    if (node == nullptr) return false;
    std::vector<std::uint64_t> offsets;
    for (std::uint32_t i = 0; i < node->memos.size(); ++i)
      if (position == UINT32_MAX || i == position) offsets.push_back(node->memos[i].offset);
    if (offsets.empty()) return false;
    remove_records(std::move(offsets));
    return true;
  };
  if (data_path_.empty() || batch_lock_) {
    if (!remove()) return "no memo at that position";
    batch_dirty_ = batch_lock_ != nullptr;
    return {};
  }
  FileLock lock(lock_path());
  if (!lock.held()) return "could not lock " + lock_path().string();
  if (std::string error = catch_up(lock); !error.empty()) return error;
  if (!remove()) return "no memo at that position";
  return rewrite(lock);
}

std::string ContextStore::save() {
  if (data_path_.empty()) return {};
  if (batch_lock_) {
    batch_dirty_ = true;
    return {};
  }
  FileLock lock(lock_path());
  if (!lock.held()) return "could not lock " + lock_path().string();
  if (!blocked_.empty()) return blocked_;
  return rewrite(lock);
}

std::string ContextStore::begin_batch() {
  if (data_path_.empty() || batch_lock_) return {};
  auto lock = std::make_unique<FileLock>(lock_path());
  if (!lock->held()) return "could not lock " + lock_path().string();
  if (std::string error = catch_up(*lock); !error.empty()) return error;
  batch_lock_ = std::move(lock);
  batch_dirty_ = false;
  return {};
}

std::string ContextStore::end_batch() {
  if (!batch_lock_) return {};
  std::unique_ptr<FileLock> lock = std::move(batch_lock_);
  if (!batch_dirty_) return {};
  batch_dirty_ = false;
  return rewrite(*lock);
}

}  // namespace kx::memory

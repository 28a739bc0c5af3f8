#pragma once
// RAM copies of files grep read from disk, so that the next search need not read
// them again. A copy is used only while the file's size and modification time are
// unchanged (a stat, not a read). The cache is bounded in bytes: past the bound
// the least recently used copies go first. Thread-safe.
#include <cstdint>
#include <filesystem>
#include <list>
#include <memory>
#include <mutex>
#include <string>
#include <unordered_map>

namespace kx::search {

struct FileStamp {
  std::uint64_t size = 0;
  std::int64_t mtime = 0;
  bool operator==(const FileStamp&) const = default;
};

class GrepCache {
 public:
  explicit GrepCache(std::uint64_t limit_bytes) : limit_(limit_bytes) {}

  // The cached text when its stamp still matches, else nullptr.
  std::shared_ptr<const std::string> find(const std::string& path, const FileStamp& stamp);
  // Keeps `text`, evicting the least recently used copies past the limit. A text
  // larger than the whole limit is not kept.
  void put(const std::string& path, const FileStamp& stamp,
           std::shared_ptr<const std::string> text);
  void erase(const std::string& path);

  std::uint64_t bytes() const;
  std::size_t files() const;
  void set_limit(std::uint64_t limit_bytes);

 private:
  struct Entry {
    FileStamp stamp;
    std::shared_ptr<const std::string> text;
    std::list<std::string>::iterator age;  // position in recent_
  };
  void evict_locked();

  mutable std::mutex mutex_;
  std::uint64_t limit_;
  std::uint64_t bytes_ = 0;
  std::unordered_map<std::string, Entry> entries_;
  std::list<std::string> recent_;  // most recently used first
};

}  // namespace kx::search

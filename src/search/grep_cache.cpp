#include "search/grep_cache.hpp"

namespace kx::search {

std::shared_ptr<const std::string> GrepCache::find(const std::string& path,
                                                   const FileStamp& stamp) {
  std::lock_guard lock(mutex_);
  auto it = entries_.find(path);
  if (it == entries_.end()) return nullptr;
  if (!(it->second.stamp == stamp)) {
    bytes_ -= it->second.text->size();
    recent_.erase(it->second.age);
    entries_.erase(it);
    return nullptr;
  }
  recent_.splice(recent_.begin(), recent_, it->second.age);
  return it->second.text;
}

void GrepCache::put(const std::string& path, const FileStamp& stamp,
                    std::shared_ptr<const std::string> text) {
  std::lock_guard lock(mutex_);
  if (auto it = entries_.find(path); it != entries_.end()) {
    bytes_ -= it->second.text->size();
    recent_.erase(it->second.age);
    entries_.erase(it);
  }
  if (text->size() > limit_) return;
  bytes_ += text->size();
  recent_.push_front(path);
  entries_.emplace(path, Entry{stamp, std::move(text), recent_.begin()});
  evict_locked();
}

void GrepCache::erase(const std::string& path) {
  std::lock_guard lock(mutex_);
  auto it = entries_.find(path);
  if (it == entries_.end()) return;
  bytes_ -= it->second.text->size();
  recent_.erase(it->second.age);
  entries_.erase(it);
}

void GrepCache::evict_locked() {
  while (bytes_ > limit_ && !recent_.empty()) {
    auto it = entries_.find(recent_.back());
    bytes_ -= it->second.text->size();
    entries_.erase(it);
    recent_.pop_back();
  }
}

std::uint64_t GrepCache::bytes() const {
  std::lock_guard lock(mutex_);
  return bytes_;
}

std::size_t GrepCache::files() const {
  std::lock_guard lock(mutex_);
  return entries_.size();
}

void GrepCache::set_limit(std::uint64_t limit_bytes) {
  std::lock_guard lock(mutex_);
  limit_ = limit_bytes;
  evict_locked();
}

}  // namespace kx::search

#include "vfs/store_set.hpp"

#include <iostream>

#include "vfs/store_key.hpp"

namespace kst {

namespace fs = std::filesystem;

StoreSet::StoreSet(fs::path home) : home_(std::move(home)), report_(&std::cerr) {}

fs::path StoreSet::config_file() const {
  return home_ / "config" / "versioncontroldirs.cfg";
}

fs::path StoreSet::watched_files_file() const {
  return home_ / "config" / "watchedfiles.cfg";
}

Store* StoreSet::active() const {
  std::lock_guard guard(mutex_);
  return active_;
}

void StoreSet::set_active(Store* store) {
  std::lock_guard guard(mutex_);
  active_ = store;
}

Store* StoreSet::find(const fs::path& root) const {
  std::lock_guard guard(mutex_);
  for (const auto& s : stores_)
    if (s->disk_root() == root) return s.get();
  return nullptr;
}

Store* StoreSet::containing(const fs::path& path) const {
  std::lock_guard guard(mutex_);
  Store* best = nullptr;
  for (const auto& s : stores_) {
    auto rel = path.lexically_relative(s->disk_root());
    if (rel.empty() || *rel.begin() == "..") continue;
    if (best == nullptr || s->disk_root().string().size() > best->disk_root().string().size())
      best = s.get();
  }
  return best;
}

std::vector<Store*> StoreSet::all() const {
  std::lock_guard guard(mutex_);
  std::vector<Store*> out;
  for (const auto& s : stores_) out.push_back(s.get());
  return out;
}

Store& StoreSet::add(const fs::path& root, Policy policy) {
  std::lock_guard guard(mutex_);
  stores_.push_back(
      std::make_unique<Store>(root, mirror_dir() / store_key(root.string()), std::move(policy)));
  return *stores_.back();
}

}  // namespace kst

#include "vfs/store_set.hpp"

#include <algorithm>
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

fs::path StoreSet::tracked_trees_file() const {
  return home_ / "config" / "grep_tracked.cfg";
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

std::unique_ptr<Store> StoreSet::make_store(const fs::path& root, Policy policy) const {
  auto store =
      std::make_unique<Store>(root, mirror_dir() / store_key(root.string()), std::move(policy));
  store->exclude(home_);
  return store;
}

Store& StoreSet::adopt(std::unique_ptr<Store> store) {
  std::unique_lock guard(mutex_);
  for (auto& s : stores_) {
    if (s->disk_root() == store->disk_root()) {
      // Handlers may still hold the old address: keep the object, swap its contents.
      std::lock_guard store_guard(s->mutex());
      s->replace_with(std::move(*store));
      return *s;
    }
  }
  stores_.push_back(std::move(store));
  Store& added = *stores_.back();
  std::vector<std::function<void(Store&)>> callbacks = on_add_;
  guard.unlock();
  for (const auto& callback : callbacks) callback(added);
  return added;
}

bool StoreSet::retire(Store& store, Store* next_active) {
  std::unique_lock guard(mutex_);
  auto it = std::find_if(stores_.begin(), stores_.end(),
                         [&](const std::unique_ptr<Store>& s) { return s.get() == &store; });
  if (it == stores_.end()) return false;
  retired_.push_back(std::move(*it));
  stores_.erase(it);
  if (active_ == &store) active_ = next_active;
  std::vector<std::function<void(Store&)>> callbacks = on_remove_;
  guard.unlock();
  for (const auto& callback : callbacks) callback(store);
  // An empty tree of the same root and policy: the RAM of the files is given back.
  auto empty = make_store(store.disk_root(), store.policy());
  std::lock_guard store_guard(store.mutex());
  store.replace_with(std::move(*empty));
  return true;
}

void StoreSet::on_add(std::function<void(Store&)> callback) {
  std::lock_guard guard(mutex_);
  on_add_.push_back(std::move(callback));
}

void StoreSet::on_remove(std::function<void(Store&)> callback) {
  std::lock_guard guard(mutex_);
  on_remove_.push_back(std::move(callback));
}

}  // namespace kst

#include "vfs/store_watchers.hpp"

namespace kst {

StoreWatchers::StoreWatchers(std::filesystem::path home, bool live, std::ostream& report)
    : home_(std::move(home)), live_(live), report_(report) {}

StoreWatchers::~StoreWatchers() {
  // Threads end before the stores they watch go.
  for (auto& w : watchers_) w->stop();
}

void StoreWatchers::add(Store& store) {
  if (!store.versioned()) return;
  auto lock_file = home_ / ".watchlocks" / (store.mirror_root().filename().string() + ".lock");
  auto watcher = std::make_unique<TreeWatcher>(store, lock_file, report_);
  std::string failure = watcher->start(live_);
  if (!failure.empty() && store.policy().watch)
    report_ << "[watch] " << store.disk_root().string() << ": " << failure << "\n";
  std::lock_guard guard(mutex_);
  watchers_.push_back(std::move(watcher));
  stores_.push_back(&store);
}

void StoreWatchers::remove(const Store& store) {
  std::unique_ptr<TreeWatcher> ending;
  {
    std::lock_guard guard(mutex_);
    for (std::size_t i = 0; i < stores_.size(); ++i) {
      if (stores_[i] != &store) continue;
      ending = std::move(watchers_[i]);
      watchers_.erase(watchers_.begin() + static_cast<std::ptrdiff_t>(i));
      stores_.erase(stores_.begin() + static_cast<std::ptrdiff_t>(i));
      break;
    }
  }
  // Joined outside the lock: the thread may be reporting through follower() meanwhile.
  if (ending) ending->stop();
}

bool StoreWatchers::follower(const Store& store) const {
  std::lock_guard guard(mutex_);
  for (std::size_t i = 0; i < stores_.size(); ++i)
    if (stores_[i] == &store) return watchers_[i]->follower();
  return false;
}

}  // namespace kst

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

bool StoreWatchers::follower(const Store& store) const {
  std::lock_guard guard(mutex_);
  for (std::size_t i = 0; i < stores_.size(); ++i)
    if (stores_[i] == &store) return watchers_[i]->follower();
  return false;
}

}  // namespace kst

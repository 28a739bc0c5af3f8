#include "vfs/config_follow.hpp"

#include "vfs/file_families.hpp"

namespace kst {

ConfigFollower::ConfigFollower(std::shared_ptr<StoreSet> stores,
                               std::shared_ptr<FileWatches> watches)
    : stores_(std::move(stores)), watches_(std::move(watches)) {}

void ConfigFollower::mark_seen() {
  std::lock_guard guard(mutex_);
  (void)dirs_.may_have_changed(stores_->config_file());
  (void)files_.may_have_changed(stores_->watched_files_file());
}

void ConfigFollower::follow(std::ostream& report) {
  std::lock_guard guard(mutex_);
  if (dirs_.may_have_changed(stores_->config_file()))
    kx::vfs::follow_enrolled_dirs(*stores_, report);
  if (files_.may_have_changed(stores_->watched_files_file())) watches_->follow_config(report);
}

}  // namespace kst

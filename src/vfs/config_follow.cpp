#include "vfs/config_follow.hpp"

#include <system_error>

#include "vfs/file_families.hpp"

namespace kst {

namespace fs = std::filesystem;

ConfigFollower::ConfigFollower(std::shared_ptr<StoreSet> stores,
                               std::shared_ptr<FileWatches> watches)
    : stores_(std::move(stores)), watches_(std::move(watches)) {}

std::optional<ConfigFollower::Stamp> ConfigFollower::stamp_of(const fs::path& file) {
  std::error_code ec;
  const auto size = fs::file_size(file, ec);
  if (ec) return std::nullopt;
  const auto time = fs::last_write_time(file, ec);
  if (ec) return std::nullopt;
  return Stamp{size, static_cast<std::int64_t>(time.time_since_epoch().count())};
}

void ConfigFollower::mark_seen() {
  std::lock_guard guard(mutex_);
  dirs_seen_ = stamp_of(stores_->config_file());
  files_seen_ = stamp_of(stores_->watched_files_file());
}

void ConfigFollower::follow(std::ostream& report) {
  std::lock_guard guard(mutex_);
  // Stamps are taken before reading: a change that lands during the reading moves the
  // stamp again and is followed next time.
  if (auto now = stamp_of(stores_->config_file()); now != dirs_seen_) {
    dirs_seen_ = now;
    kx::vfs::follow_enrolled_dirs(*stores_, report);
  }
  if (auto now = stamp_of(stores_->watched_files_file()); now != files_seen_) {
    files_seen_ = now;
    watches_->follow_config(report);
  }
}

}  // namespace kst

#include "vfs/tree_watcher.hpp"

#include <chrono>
#include <set>
#include <system_error>

#include "platform/dir_watch.hpp"
#include "vfs/outside_change.hpp"

namespace kst {

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

namespace {

// A notification burst is handled at the latest after this long, even while writes go on.
constexpr auto kLongestBurst = std::chrono::milliseconds(1000);
constexpr int kWaitMs = 250;

// Looks at each notified path once: a file, or every file below a directory (one that
// appeared, or one that went away with its files).
void absorb_paths(Store& store, const std::vector<fs::path>& paths, std::ostream& warn) {
  std::set<std::string> seen;
  for (const auto& path : paths) {
    std::string rel = path.lexically_relative(store.disk_root()).generic_string();
    if (rel.empty() || rel == "." || rel.starts_with("..")) continue;
    if (!store.excluded().empty()) {
      std::string skip = store.excluded().lexically_relative(store.disk_root()).generic_string();
      if (rel == skip || rel.starts_with(skip + "/")) continue;
    }
    if (!seen.insert(rel).second) continue;
    std::error_code ec;
    bool directory = fs::is_directory(fs::symlink_status(path, ec));
    bool known_directory;
    {
      std::lock_guard guard(store.mutex());
      known_directory = store.is_directory_path(rel);
    }
    if (directory || known_directory)
      absorb_tree(store, rel, warn);
    else
      absorb_outside(store, rel, warn);
  }
}

}  // namespace

TreeWatcher::TreeWatcher(Store& store, fs::path lock_file, std::ostream& report)
    : store_(store), lock_file_(std::move(lock_file)), report_(report) {}

TreeWatcher::~TreeWatcher() {
  stop();
}

bool TreeWatcher::try_own() {
  std::error_code ec;
  fs::create_directories(lock_file_.parent_path(), ec);
  lock_ = kx::platform::try_lock_file(lock_file_);
  follower_ = !lock_.has_value();
  return lock_.has_value();
}

std::string TreeWatcher::start(bool live) {
  if (!store_.policy().watch) return "oob watch is off by policy (watch=off)";
  if (store_.disk_root().empty()) return "no disk root to watch";
  if (running_) return "";
  if (try_own()) {
    // Files that appeared while nothing watched get their baseline now, so that the
    // next change to them is a version of its own instead of replacing version 1.
    (void)take_baselines(store_, report_);
    absorb_tree(store_, "", report_);
  } else if (live) {
    // Only a process that lives on follows the tree; for a one-shot command who owns
    // the watch is no news.
    report_ << "[watch] " << store_.disk_root().string()
            << ": watcher owned by another Kestrune process — read-only follower\n";
  }
  if (!live) return "";
  running_ = true;
  thread_ = std::thread([this] { run(); });
  return "";
}

void TreeWatcher::stop() {
  running_ = false;
  if (thread_.joinable()) thread_.join();
}

void TreeWatcher::wait_steps(int steps) {
  for (int i = 0; i < steps && running_; ++i)
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
}

void TreeWatcher::run() {
  std::unique_ptr<kx::platform::DirWatch> watch;
  while (running_) {
    if (!lock_) {
      // A follower: the owner may end; then this process takes the watch over.
      wait_steps(10);
      if (!running_ || !try_own()) continue;
      report_ << "[watch] " << store_.disk_root().string() << ": now the owner of the watch\n";
      (void)take_baselines(store_, report_);
      absorb_tree(store_, "", report_);
    }
    if (!watch) {
      std::string reason;
      watch = kx::platform::watch_directory(store_.disk_root(), true, store_.excluded(), reason);
      if (!watch) {
        // Unwatchable (no notifications here, or the system's table is full): poll.
        absorb_tree(store_, "", report_);
        wait_steps(10);
        continue;
      }
      // Changes made between the start-up scan and the first notification.
      absorb_tree(store_, "", report_);
    }
    kx::platform::DirChanges changes;
    if (!watch->wait(kWaitMs, changes)) continue;
    auto first = Clock::now();
    while (running_ && Clock::now() - first < kLongestBurst && watch->wait(kSettleMs, changes)) {
    }
    if (changes.overflow)
      absorb_tree(store_, "", report_);
    else
      absorb_paths(store_, changes.paths, report_);
  }
}

}  // namespace kst

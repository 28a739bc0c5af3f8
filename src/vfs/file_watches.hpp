#pragma once
// Single-file watches: one file outside every store, followed on its own after the
// `watch` verb, listed in watchedfiles.cfg so that every start follows it again.
//
// Its history is kept as a store keeps a file's: the mirror copy
//   <home>/.versioncontrol/<store key of the file's directory>/<name>
// with ".<name>.oldversions/<name>.xx<N>" beside it, a "<name>.tombstone" marker while
// the file is gone, and one edit-log record per change in that mirror root's
// ".oldversions/edits.jsonl". Enrolling the directory later therefore continues the
// same chain.
//
// As with tree watches, one process of the machine owns each file's watch (the lock
// "<home>/.watchlocks/file_<store key of the file>.lock"); the others only list it.
#include <atomic>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <mutex>
#include <optional>
#include <ostream>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "platform/instance_lock.hpp"
#include "vfs/single_file_history.hpp"
#include "vfs/store_set.hpp"

namespace kst {

class FileWatch {
 public:
  FileWatch(std::filesystem::path file, std::filesystem::path mirror,
            std::filesystem::path lock_file, std::ostream& report);
  ~FileWatch();
  FileWatch(const FileWatch&) = delete;
  FileWatch& operator=(const FileWatch&) = delete;

  // Takes the watch when no other process holds it and records what changed since the
  // mirror was written. With `live`, keeps following the file on a thread of its own.
  void start(bool live);
  // Ends the thread within one wait period and lets go of the lock.
  void stop();

  const std::filesystem::path& file() const { return file_; }
  const std::filesystem::path& mirror() const { return mirror_; }
  bool follower() const { return !owner_; }

  // Compares the file with its mirror copy and records a difference (new bytes, a
  // delete, a return). Only the owner writes. Returns whether a change was recorded.
  bool check();

 private:
  bool try_own();
  void run();
  void wait_steps(int steps);

  std::filesystem::path file_;
  std::filesystem::path mirror_;
  std::filesystem::path lock_file_;
  std::ostream& report_;
  std::mutex check_mutex_;
  std::optional<kx::platform::InstanceLock> lock_;
  std::atomic<bool> owner_{false};
  std::atomic<bool> running_{false};
  std::thread thread_;
  // Size and time of the file when last looked at: the once-a-second look reads it
  // only when they moved. Guarded by check_mutex_.
  std::optional<FileStamp> seen_;
};

class FileWatches {
 public:
  // `live`: follow changes on threads (the resident, a session); otherwise catch up
  // once per file.
  FileWatches(std::shared_ptr<StoreSet> stores, bool live, std::ostream& report);
  ~FileWatches();

  // The verbs; `cwd` resolves a relative path.
  std::string watch(std::string_view args, const std::filesystem::path& cwd);
  std::string unwatch(std::string_view args, const std::filesystem::path& cwd);
  std::string list() const;

  // Follows every file of watchedfiles.cfg. A line ("[watchedfiles] <file> ->
  // <outcome>") is reported only for a file whose outcome changed since the last start.
  void resume(std::ostream& report);
  // Brings the list in line with watchedfiles.cfg as another process left it: files
  // listed there are followed (as resume does), files no longer listed are let go.
  void follow_config(std::ostream& report);

 private:
  std::filesystem::path mirror_of(const std::filesystem::path& file) const;
  std::unique_ptr<FileWatch> make_watch(const std::filesystem::path& file) const;
  bool write_config() const;
  // Starts watching every listed file not watched yet; at a start it reports only
  // what changed since the last start.
  void add_listed(std::ostream& report, bool at_start);

  std::shared_ptr<StoreSet> stores_;
  bool live_;
  std::ostream& report_;
  mutable std::mutex mutex_;
  std::vector<std::unique_ptr<FileWatch>> watches_;  // in the order they were added
};

}  // namespace kst

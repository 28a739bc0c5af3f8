#pragma once
// One store: an enrolled directory's node tree in RAM, its mirror root under the
// home's ".versioncontrol/<store key>/", its policy and its lock.
//
// The store's own bookkeeping lives in "<mirror root>/.oldversions/" — a name no user
// file can have, since ".oldversions" is a reserved suffix:
//   edits.jsonl   the edit log (see edit_log.cpp)
//   store.lock    held while one write (its lock check included) runs, across processes
//
// Lock order, everywhere: the store's mutex, then store.lock (ProcessLock), then the
// check-out journal's checkouts.lock. Nothing that holds a later one takes an earlier one.
#include <cstdint>
#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <ostream>
#include <string>

#include "platform/durable_file.hpp"
#include "vfs/node.hpp"
#include "vfs/policy.hpp"

namespace kst {

struct SaveRequest;
struct SaveResult;
class Store;

// Seams for the lock and check-in layer. All run with the store's mutex and its
// ProcessLock held.
struct SaveHooks {
  // Before anything is written. A returned message refuses the save ("file is locked (x)").
  std::function<std::optional<std::string>(const Store&, const std::string& path,
                                           const SaveRequest&)>
      before_save;
  // After a successful save, once the edit log has its record.
  std::function<void(Store&, const std::string& path, const SaveRequest&, const SaveResult&)>
      after_save;
  // After a file moved from one store path to another (fs:move): its lock, queue and
  // dirty flag follow it.
  std::function<void(Store&, const std::string& from, const std::string& to)> after_move;
  // After the policy of the store changed: reconciles locks on files the new policy no
  // longer admits and returns how many there were.
  std::function<std::size_t(Store&)> policy_changed;
};

class Store {
 public:
  Store(std::filesystem::path disk_root, std::filesystem::path mirror_root, Policy policy);

  const std::filesystem::path& disk_root() const { return disk_root_; }
  const std::filesystem::path& mirror_root() const { return mirror_root_; }
  std::filesystem::path machinery_dir() const { return mirror_root_ / ".oldversions"; }
  std::filesystem::path edit_log_file() const { return machinery_dir() / "edits.jsonl"; }
  const Policy& policy() const { return policy_; }
  void set_policy(Policy policy) { policy_ = std::move(policy); }
  bool versioned() const { return policy_.mode == StoreMode::kVersioned; }

  // Every operation on the tree, the index or the disk layout holds this lock.
  std::recursive_mutex& mutex() const { return mutex_; }

  Directory& root() { return *root_; }
  const Directory& root() const { return *root_; }

  // Files by store path ("src/a.txt"), in path order.
  const std::map<std::string, File*>& files() const { return files_; }
  File* find_file(const std::string& path) const;
  // The node at a store path ("" is the root), file or directory.
  iFileSystemObj* find_node(const std::string& path) const;
  bool is_directory_path(const std::string& path) const;

  // The file node at `path`, created with its directories when missing.
  File& make_file(const std::string& path);
  Directory& make_directory(const std::string& path);
  // Detaches the file node from the tree and index; returns it.
  std::unique_ptr<iFileSystemObj> detach_file(const std::string& path);
  // Puts a detached file node at `path`.
  File& attach_file(const std::string& path, std::unique_ptr<iFileSystemObj> node);

  std::filesystem::path disk_path(const std::string& path) const { return disk_root_ / path; }
  // Empty for files that have no mirror copy ("turnlog-" files).
  std::filesystem::path mirror_path(const std::string& path) const;

  // Reads the tree from the disk root: live files admitted by the policy, tombstoned
  // files from their markers, archive listings, up to 64 versions per file in RAM.
  // Warnings go to `warn`. Returns false with `reason` when there is no disk root.
  bool load(std::ostream& warn, std::string& reason);

  // A directory the walk never enters (the program's home when it lies inside the tree).
  void exclude(std::filesystem::path dir) { excluded_ = std::move(dir); }
  const std::filesystem::path& excluded() const { return excluded_; }
  // Takes over the tree, index and policy of a freshly loaded store of the same root;
  // hooks stay. REQUIRES: this store's mutex held.
  void replace_with(Store&& other);

  SaveHooks hooks;

  // How far into the edit log this process has applied records (its own and other
  // processes'). Guarded by mutex().
  std::uint64_t followed_log_bytes = 0;

  // Holds store.lock against other processes until destroyed. Nests within one
  // process (the file lock is taken once, by the outermost guard), so a write may call
  // another that takes it too. REQUIRES: mutex() held for the guard's whole life.
  class ProcessLock {
   public:
    explicit ProcessLock(Store& store);
    ~ProcessLock();
    ProcessLock(const ProcessLock&) = delete;
    ProcessLock& operator=(const ProcessLock&) = delete;

   private:
    Store& store_;
  };

 private:
  void index_file(const std::string& path, File* file);

  std::filesystem::path disk_root_;
  std::filesystem::path mirror_root_;
  std::filesystem::path excluded_;
  Policy policy_;
  mutable std::recursive_mutex mutex_;
  std::unique_ptr<Directory> root_;
  std::map<std::string, File*> files_;
  std::unique_ptr<kx::platform::FileLock> process_lock_;  // guarded by mutex_
  int process_lock_depth_ = 0;
};

}  // namespace kst

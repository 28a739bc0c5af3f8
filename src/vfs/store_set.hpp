#pragma once
// Every store of the process and which one is active (the one most recently
// enrolled or re-targeted). Stores are created by enrollment and live as long as
// the process, unenrolled ones included: their addresses are stable.
#include <filesystem>
#include <functional>
#include <memory>
#include <mutex>
#include <ostream>
#include <string>
#include <vector>

#include "vfs/store.hpp"

namespace kst {

class StoreSet {
 public:
  // `home` is the program's home directory (mirror and configuration live under it).
  explicit StoreSet(std::filesystem::path home);

  const std::filesystem::path& home() const { return home_; }
  std::filesystem::path mirror_dir() const { return home_ / ".versioncontrol"; }
  std::filesystem::path config_file() const;         // config/versioncontroldirs.cfg
  std::filesystem::path watched_files_file() const;  // config/watchedfiles.cfg
  std::filesystem::path tracked_trees_file() const;  // config/grep_tracked.cfg

  // The active store, or nullptr when nothing is enrolled.
  Store* active() const;
  void set_active(Store* store);
  // The store whose disk root is `root` (canonical form), or nullptr.
  Store* find(const std::filesystem::path& root) const;
  // The store whose disk root holds `path`, deepest first, or nullptr.
  Store* containing(const std::filesystem::path& path) const;
  std::vector<Store*> all() const;

  // A new, unloaded store for `root` (not yet in the set).
  std::unique_ptr<Store> make_store(const std::filesystem::path& root, Policy policy) const;
  // Takes a loaded store into the set, replacing one with the same root; returns it.
  Store& adopt(std::unique_ptr<Store> store);

  // Takes a store out of the set (unenrollment); false when it is not in it. The
  // on_remove callbacks run first (its watch ends), then its tree is emptied: a handler
  // still holding the address finds no files rather than freed memory. When it was
  // active, `next_active` (which must be in the set, or null) becomes active.
  bool retire(Store& store, Store* next_active);

  // Called with every store that joins the set from now on, outside the set's lock and
  // before the store serves a command (the lock layer installs its save hooks there).
  void on_add(std::function<void(Store&)> callback);
  // Called with every store that leaves the set, outside the set's lock.
  void on_remove(std::function<void(Store&)> callback);

  // Where warnings and progress lines go (standard error in the program).
  std::ostream& report() const { return *report_; }
  void set_report(std::ostream& out) { report_ = &out; }

 private:
  std::filesystem::path home_;
  mutable std::mutex mutex_;
  std::vector<std::unique_ptr<Store>> stores_;
  std::vector<std::unique_ptr<Store>> retired_;
  Store* active_ = nullptr;
  std::vector<std::function<void(Store&)>> on_add_;
  std::vector<std::function<void(Store&)>> on_remove_;
  std::ostream* report_;
};

}  // namespace kst

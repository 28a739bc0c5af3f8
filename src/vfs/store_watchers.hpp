#pragma once
// The tree watches of every store of a process, started as stores join the set.
#include <filesystem>
#include <memory>
#include <mutex>
#include <ostream>
#include <vector>

#include "vfs/store.hpp"
#include "vfs/tree_watcher.hpp"

namespace kst {

class StoreWatchers {
 public:
  // `live`: keep watching on threads (the resident, an interactive or piped session);
  // otherwise only catch up once when a store joins (a one-shot command).
  StoreWatchers(std::filesystem::path home, bool live, std::ostream& report);
  ~StoreWatchers();

  // Starts the watch of a store that joined the set; a failure is reported, not fatal.
  void add(Store& store);
  // Ends the watch of a store that left the set and lets go of its watch lock.
  void remove(const Store& store);
  // Whether this process is a read-only follower for `store`.
  bool follower(const Store& store) const;

 private:
  std::filesystem::path home_;
  bool live_;
  std::ostream& report_;
  mutable std::mutex mutex_;
  std::vector<std::unique_ptr<TreeWatcher>> watchers_;
  std::vector<const Store*> stores_;
};

}  // namespace kst

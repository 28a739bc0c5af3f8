#pragma once
// The watch of one store's tree: follows outside changes into the version chain.
//
// Exactly one process of the machine owns a store's watch: the one holding the watch
// lock file "<home>/.watchlocks/<store key>.lock". The others are read-only followers:
// they write nothing for outside changes and pick up what the owner recorded from the
// edit log. A follower that outlives the owner takes the watch over.
#include <atomic>
#include <filesystem>
#include <optional>
#include <ostream>
#include <string>
#include <thread>

#include "platform/instance_lock.hpp"
#include "vfs/store.hpp"

namespace kst {

// Quiet time after the last change notification before files are looked at, so that a
// burst of writes becomes one version.
inline constexpr int kSettleMs = 150;

class TreeWatcher {
 public:
  TreeWatcher(Store& store, std::filesystem::path lock_file, std::ostream& report);
  ~TreeWatcher();
  TreeWatcher(const TreeWatcher&) = delete;
  TreeWatcher& operator=(const TreeWatcher&) = delete;

  // Takes the watch when no other process holds it and catches up with what changed
  // while nobody watched. With `live`, keeps following changes on a thread of its own.
  // Returns the failure text ("oob watch is off by policy (watch=off)", ...), or "".
  std::string start(bool live);
  // Ends the thread within one wait period.
  void stop();
  bool follower() const { return follower_; }
  bool running() const { return running_; }

 private:
  bool try_own();
  void run();
  void wait_steps(int steps);

  Store& store_;
  std::filesystem::path lock_file_;
  std::ostream& report_;
  std::optional<kx::platform::InstanceLock> lock_;
  std::atomic<bool> running_{false};
  std::atomic<bool> follower_{false};
  std::thread thread_;
};

}  // namespace kst

#pragma once
// Group commit for data files: an append reaches the page cache at once (safe from
// a killed process) and is flushed to the disk by a background thread a few
// milliseconds later, together with whatever else was appended meanwhile. So a
// burst of adds costs one sync instead of one each.
#include <chrono>
#include <condition_variable>
#include <filesystem>
#include <mutex>
#include <set>
#include <thread>

namespace kx::memory {

inline constexpr std::chrono::milliseconds kGroupSyncDelay{5};

class GroupSync {
 public:
  GroupSync() = default;
  ~GroupSync();  // syncs what is pending
  GroupSync(const GroupSync&) = delete;
  GroupSync& operator=(const GroupSync&) = delete;

  // `file` holds appended bytes not yet on the disk.
  void note(const std::filesystem::path& file);
  // Syncs every noted file now.
  void flush();

 private:
  void run();

  std::mutex mutex_;
  std::condition_variable wake_;
  std::set<std::filesystem::path> pending_;
  bool stopping_ = false;
  std::thread thread_;  // started by the first note
};

}  // namespace kx::memory

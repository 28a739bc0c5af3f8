#include "memory/group_sync.hpp"

#include "platform/durable_file.hpp"

namespace kx::memory {

GroupSync::~GroupSync() {
  {
    std::lock_guard lock(mutex_);
    stopping_ = true;
  }
  wake_.notify_all();
  if (thread_.joinable()) thread_.join();
  flush();
}

void GroupSync::note(const std::filesystem::path& file) {
  bool idle = false;
  {
    std::lock_guard lock(mutex_);
    idle = pending_.empty();
    pending_.insert(file);
    if (!thread_.joinable()) thread_ = std::thread([this] { run(); });
  }
  // Only a syncer with nothing pending waits for work; one already counting down
  // takes this file along. Waking it for every add cost a thread switch per add.
  if (idle) wake_.notify_all();
}

void GroupSync::flush() {
  std::set<std::filesystem::path> files;
  {
    std::lock_guard lock(mutex_);
    files.swap(pending_);
  }
  // A failed sync leaves the bytes in the page cache, where the kernel writes them
  // back on its own; there is no caller left to tell.
  for (const auto& file : files) (void)platform::sync_file(file);
}

void GroupSync::run() {
  std::unique_lock lock(mutex_);
  while (!stopping_) {
    wake_.wait(lock, [&] { return stopping_ || !pending_.empty(); });
    if (stopping_) break;
    // Let the rest of a burst arrive, then sync it all at once.
    wake_.wait_for(lock, kGroupSyncDelay, [&] { return stopping_; });
    lock.unlock();
    flush();
    lock.lock();
  }
}

}  // namespace kx::memory

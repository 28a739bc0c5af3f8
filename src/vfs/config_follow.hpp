#pragma once
// Another kx process (a local run, a second session) may enroll, unenroll, watch or
// unwatch while this one lives on. It records the change in versioncontroldirs.cfg or
// watchedfiles.cfg; this process looks at the two files' stamps before a line runs and,
// when one moved, brings its stores or its watched files in line with it.
#include <filesystem>
#include <memory>
#include <mutex>
#include <ostream>

#include "platform/file_stamp.hpp"
#include "vfs/file_watches.hpp"
#include "vfs/store_set.hpp"

namespace kst {

class ConfigFollower {
 public:
  ConfigFollower(std::shared_ptr<StoreSet> stores, std::shared_ptr<FileWatches> watches);

  // Takes the files as they are now as seen (after the start read them).
  void mark_seen();
  // Two stats when nothing moved; report lines go to `report`.
  void follow(std::ostream& report);

 private:
  std::shared_ptr<StoreSet> stores_;
  std::shared_ptr<FileWatches> watches_;
  std::mutex mutex_;
  kx::platform::FileChangeCheck dirs_, files_;
};

}  // namespace kst

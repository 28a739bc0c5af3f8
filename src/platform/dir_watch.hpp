#pragma once
// Change notifications for a directory, or a whole tree below it. The caller learns
// which paths changed (or that events were lost) and looks at the files itself:
// notifications say where to look, never what the bytes are.
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

namespace kx::platform {

struct DirChanges {
  std::vector<std::filesystem::path> paths;  // absolute: files or directories that changed
  bool overflow = false;  // the system dropped events: every file must be looked at
};

class DirWatch {
 public:
  virtual ~DirWatch() = default;
  // Waits up to `timeout_ms` for changes and appends them to `out`. False when nothing
  // arrived in time.
  virtual bool wait(int timeout_ms, DirChanges& out) = 0;
};

// Watches `dir` (with every directory below it when `recursive`, also those created
// later), never entering `skip`. Nothing, with `reason`, when the system cannot watch
// it: the caller polls instead.
std::unique_ptr<DirWatch> watch_directory(const std::filesystem::path& dir, bool recursive,
                                          const std::filesystem::path& skip, std::string& reason);

}  // namespace kx::platform

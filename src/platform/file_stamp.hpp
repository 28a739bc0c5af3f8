#pragma once
// Whether a file another process may rewrite has changed since it was last read, told
// by its size and modification time. A file written within the clock tick of a look
// could change again without moving either, so until a look comes a second after the
// file's time it counts as possibly changed.
#include <cstdint>
#include <filesystem>
#include <optional>

namespace kx::platform {

class FileChangeCheck {
 public:
  // True the first time and whenever the file may differ from what the caller read
  // after the last true answer (a missing file is a state too). Look before reading:
  // a change that lands during the read moves the stamp again.
  bool may_have_changed(const std::filesystem::path& file);
  // The next look answers true whatever the stamp (the caller wrote the file itself).
  void forget() { settled_ = false; }

 private:
  struct Stamp {
    std::uint64_t size = 0;
    std::filesystem::file_time_type mtime{};
    bool operator==(const Stamp&) const = default;
  };
  std::optional<Stamp> seen_;  // none: the file was missing
  bool settled_ = false;       // `seen_` tells whether the file changed
};

}  // namespace kx::platform

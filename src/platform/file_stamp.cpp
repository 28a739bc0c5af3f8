#include "platform/file_stamp.hpp"

#include <chrono>
#include <system_error>

namespace kx::platform {

bool FileChangeCheck::may_have_changed(const std::filesystem::path& file) {
  std::error_code ec;
  std::optional<Stamp> now;
  const auto mtime = std::filesystem::last_write_time(file, ec);
  if (!ec) {
    const auto size = std::filesystem::file_size(file, ec);
    if (!ec) now = Stamp{size, mtime};
  }
  if (settled_ && now == seen_) return false;
  seen_ = now;
  // A later write moves the time only once the clock has passed the file's; a second
  // is far beyond any file system's tick.
  settled_ =
      !now || now->mtime < std::filesystem::file_time_type::clock::now() - std::chrono::seconds(1);
  return true;
}

}  // namespace kx::platform

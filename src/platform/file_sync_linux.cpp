#include <fcntl.h>
#include <unistd.h>

#include "platform/file_sync.hpp"

namespace kx::platform {
namespace {

bool sync_path(const std::filesystem::path& path, int flags) {
  const int fd = ::open(path.c_str(), flags | O_CLOEXEC);
  if (fd < 0) return false;
  const bool ok = ::fsync(fd) == 0;
  ::close(fd);
  return ok;
}

}  // namespace

bool sync_file(const std::filesystem::path& file) {
  return sync_path(file, O_RDONLY);
}

bool sync_directory(const std::filesystem::path& dir) {
  return sync_path(dir, O_RDONLY | O_DIRECTORY);
}

}  // namespace kx::platform

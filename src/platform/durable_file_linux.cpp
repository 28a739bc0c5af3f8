#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstring>

#include "platform/durable_file.hpp"

namespace kx::platform {
namespace {

bool write_all(int fd, std::string_view data, std::string& reason) {
  while (!data.empty()) {
    ssize_t n = ::write(fd, data.data(), data.size());
    if (n < 0) {
      if (errno == EINTR) continue;
      reason = std::strerror(errno);
      return false;
    }
    data.remove_prefix(static_cast<std::size_t>(n));
  }
  return true;
}

bool write_with_flags(const std::filesystem::path& path, std::span<const std::string_view> parts,
                      int flags, std::string& reason) {
  int fd = ::open(path.c_str(), flags | O_WRONLY | O_CREAT | O_CLOEXEC, 0644);
  if (fd < 0) {
    reason = std::strerror(errno);
    return false;
  }
  bool ok = true;
  for (std::size_t i = 0; ok && i < parts.size(); ++i) ok = write_all(fd, parts[i], reason);
  if (ok && ::fsync(fd) != 0) {
    reason = std::strerror(errno);
    ok = false;
  }
  if (::close(fd) != 0 && ok) {
    reason = std::strerror(errno);
    ok = false;
  }
  return ok;
}

bool write_with_flags(const std::filesystem::path& path, std::string_view data, int flags,
                      std::string& reason) {
  const std::string_view parts[] = {data};
  return write_with_flags(path, parts, flags, reason);
}

}  // namespace

std::size_t max_path_bytes() {
  return PATH_MAX - 1;
}

bool write_new_file_durable(const std::filesystem::path& path, std::string_view data,
                            std::string& reason) {
  return write_with_flags(path, data, O_EXCL | O_NOFOLLOW, reason);
}

bool write_new_file_durable(const std::filesystem::path& path,
                            std::span<const std::string_view> parts, std::string& reason) {
  return write_with_flags(path, parts, O_EXCL | O_NOFOLLOW, reason);
}

// POSIX renames over open files, so there is nothing to wait for.
bool replace_durable(const std::filesystem::path& from, const std::filesystem::path& to,
                     std::string& reason) {
  if (::rename(from.c_str(), to.c_str()) != 0) {
    reason = std::strerror(errno);
    return false;
  }
  // The rename is what a crash must not lose: flush the directory entry too.
  if (!sync_directory(to.parent_path().empty() ? "." : to.parent_path())) {
    reason = "directory sync failed";
    return false;
  }
  return true;
}

bool write_file_durable(const std::filesystem::path& path, std::string_view data,
                        std::string& reason) {
  return write_with_flags(path, data, O_TRUNC, reason);
}

bool append_file_durable(const std::filesystem::path& path, std::string_view data,
                         std::string& reason) {
  return write_with_flags(path, data, O_APPEND, reason);
}

FileLock::FileLock(const std::filesystem::path& path) {
  int fd = ::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644);
  if (fd < 0) return;
  while (::flock(fd, LOCK_EX) != 0) {
    if (errno != EINTR) {
      ::close(fd);
      return;
    }
  }
  handle_ = fd;
}

std::uint64_t FileLock::read_counter() const {
  unsigned char bytes[8] = {};
  if (handle_ == -1 || ::pread(static_cast<int>(handle_), bytes, sizeof bytes, 0) != 8) return 0;
  return decode_counter(bytes);
}

bool FileLock::write_counter(std::uint64_t value) {
  unsigned char bytes[8];
  encode_counter(value, bytes);
  return handle_ != -1 && ::pwrite(static_cast<int>(handle_), bytes, sizeof bytes, 0) == 8;
}

FileLock::~FileLock() {
  if (handle_ != -1) ::close(static_cast<int>(handle_));
}

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

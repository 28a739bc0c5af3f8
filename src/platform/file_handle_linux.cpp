#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "platform/file_handle.hpp"

namespace kx::platform {

FileHandle FileHandle::open(const std::filesystem::path& path, Mode mode) {
  const int flags = mode == Mode::read     ? O_RDONLY
                    : mode == Mode::update ? (O_RDWR | O_APPEND)
                                           : (O_WRONLY | O_APPEND | O_CREAT);
  const int fd = ::open(path.c_str(), flags | O_CLOEXEC, 0644);
  return FileHandle(fd < 0 ? -1 : fd);
}

FileHandle& FileHandle::operator=(FileHandle&& other) noexcept {
  if (this != &other) {
    close();
    handle_ = other.handle_;
    other.handle_ = -1;
  }
  return *this;
}

void FileHandle::close() {
  if (handle_ != -1) ::close(static_cast<int>(handle_));
  handle_ = -1;
}

std::optional<std::uint64_t> FileHandle::size() const {
  struct stat st {};
  if (handle_ == -1 || ::fstat(static_cast<int>(handle_), &st) != 0) return std::nullopt;
  return static_cast<std::uint64_t>(st.st_size);
}

bool FileHandle::read_at(std::uint64_t offset, char* out, std::uint64_t n) const {
  while (n > 0) {
    const std::size_t want = static_cast<std::size_t>(std::min<std::uint64_t>(n, 1u << 30));
    const ssize_t got = ::pread(static_cast<int>(handle_), out, want, static_cast<off_t>(offset));
    if (got < 0 && errno == EINTR) continue;
    if (got <= 0) return false;
    out += got;
    offset += static_cast<std::uint64_t>(got);
    n -= static_cast<std::uint64_t>(got);
  }
  return true;
}

bool FileHandle::append(std::string_view data, std::string& reason) {
  while (!data.empty()) {
    const ssize_t n = ::write(static_cast<int>(handle_), data.data(), data.size());
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) {
      reason = n < 0 ? std::strerror(errno) : "nothing written";
      return false;
    }
    data.remove_prefix(static_cast<std::size_t>(n));
  }
  return true;
}

bool FileHandle::truncate(std::uint64_t size) {
  return ::ftruncate(static_cast<int>(handle_), static_cast<off_t>(size)) == 0;
}

bool FileHandle::sync() {
  return ::fdatasync(static_cast<int>(handle_)) == 0;
}

}  // namespace kx::platform

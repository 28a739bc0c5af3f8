// FICLONE shares the extents (btrfs, xfs, bcachefs); elsewhere copy_file_range copies
// inside the kernel, and a plain copy is the last resort.
#include <fcntl.h>
#include <linux/fs.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <system_error>

#include "platform/file_clone.hpp"

namespace kx::platform {

bool clone_file(const std::filesystem::path& from, const std::filesystem::path& to,
                std::string& reason) {
  int in = ::open(from.c_str(), O_RDONLY | O_CLOEXEC);
  if (in < 0) {
    reason = std::strerror(errno);
    return false;
  }
  int out = ::open(to.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
  if (out < 0) {
    reason = std::strerror(errno);
    ::close(in);
    return false;
  }
  bool ok = ::ioctl(out, FICLONE, in) == 0;
  if (!ok) {
    struct stat st {};
    ok = ::fstat(in, &st) == 0;
    for (off_t left = st.st_size; ok && left > 0;) {
      ssize_t n = ::copy_file_range(in, nullptr, out, nullptr, static_cast<size_t>(left), 0);
      if (n <= 0) {
        ok = false;
        break;
      }
      left -= n;
    }
    if (!ok) {
      // copy_file_range refused (an old kernel, a file system pair it cannot do).
      ok = ::ftruncate(out, 0) == 0 && ::lseek(in, 0, SEEK_SET) == 0;
      char buffer[1 << 16];
      for (ssize_t n; ok && (n = ::read(in, buffer, sizeof buffer)) != 0;) {
        if (n < 0 || ::write(out, buffer, static_cast<size_t>(n)) != n) ok = false;
      }
    }
  }
  if (!ok) reason = std::strerror(errno);
  ::close(in);
  if (::close(out) != 0 && ok) {
    reason = std::strerror(errno);
    ok = false;
  }
  return ok;
}

}  // namespace kx::platform

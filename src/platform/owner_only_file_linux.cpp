#include <fcntl.h>
#include <sys/random.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "platform/durable_file.hpp"
#include "platform/owner_only_file.hpp"

namespace kx::platform {
namespace {

bool fail(std::string& reason, const char* what) {
  reason = std::string(what) + ": " + std::strerror(errno);
  return false;
}

}  // namespace

bool write_owner_only_file(const std::filesystem::path& path, std::string_view data,
                           std::string& reason) {
  std::filesystem::path temp = path;
  temp += ".tmp" + std::to_string(::getpid());
  ::unlink(temp.c_str());
  // O_EXCL: a file planted under the temporary name (perhaps readable by others)
  // is never written into.
  int fd = ::open(temp.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC | O_NOFOLLOW, 0600);
  if (fd < 0) return fail(reason, "create");
  bool ok = ::fchmod(fd, 0600) == 0 || fail(reason, "chmod");
  for (std::string_view rest = data; ok && !rest.empty();) {
    ssize_t n = ::write(fd, rest.data(), rest.size());
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) ok = fail(reason, "write");
    if (n > 0) rest.remove_prefix(static_cast<std::size_t>(n));
  }
  if (ok && ::fsync(fd) != 0) ok = fail(reason, "fsync");
  if (::close(fd) != 0 && ok) ok = fail(reason, "close");
  if (ok && ::rename(temp.c_str(), path.c_str()) != 0) ok = fail(reason, "rename");
  if (!ok) {
    ::unlink(temp.c_str());
    return false;
  }
  if (!sync_directory(path.parent_path().empty() ? "." : path.parent_path())) {
    reason = "directory sync failed";
    return false;
  }
  return true;
}

bool restrict_to_owner(const std::filesystem::path& path, std::string& reason) {
  return ::chmod(path.c_str(), 0600) == 0 || fail(reason, "chmod");
}

bool readable_by_others(const std::filesystem::path& path) {
  struct stat st {};
  if (::stat(path.c_str(), &st) != 0) return false;
  return (st.st_mode & 077) != 0 || st.st_uid != ::geteuid();
}

bool secure_random(unsigned char* out, std::size_t size) {
  while (size > 0) {
    ssize_t n = ::getrandom(out, size, 0);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    out += n;
    size -= static_cast<std::size_t>(n);
  }
  return true;
}

}  // namespace kx::platform

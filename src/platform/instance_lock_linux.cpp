// The lock is an exclusive flock on "Kestrune_resident_daemon_<port>.lock" in the
// user's runtime directory (else /tmp). The file itself is never removed: removing
// it would let a second process lock a fresh inode while the first still holds the
// old one.
#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <cerrno>
#include <string>

#include "platform/env.hpp"
#include "platform/instance_lock.hpp"

namespace kx::platform {

InstanceLock& InstanceLock::operator=(InstanceLock&& other) noexcept {
  if (this != &other) {
    release();
    handle_ = other.handle_;
    other.handle_ = -1;
  }
  return *this;
}

void InstanceLock::release() {
  if (handle_ >= 0) {
    ::flock(static_cast<int>(handle_), LOCK_UN);
    ::close(static_cast<int>(handle_));
  }
  handle_ = -1;
}

std::filesystem::path instance_lock_path(std::uint16_t port) {
  // A runtime directory inherited from another session (su, sudo, a service) may
  // not exist: a lock that cannot be made would read as held, and boot would quietly
  // step aside for a resident that is not there.
  std::filesystem::path dir = get_env_nonempty("XDG_RUNTIME_DIR").value_or("/tmp");
  std::error_code ec;
  if (!std::filesystem::is_directory(dir, ec)) dir = "/tmp";
  return dir / ("Kestrune_resident_daemon_" + std::to_string(port) + ".lock");
}

std::optional<InstanceLock> try_lock_instance(std::uint16_t port) {
  return try_lock_file(instance_lock_path(port));
}

std::optional<InstanceLock> try_lock_file(const std::filesystem::path& file) {
  std::string path = file.string();
  int fd = ::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
  if (fd < 0) return std::nullopt;
  int rc;
  do {
    rc = ::flock(fd, LOCK_EX | LOCK_NB);
  } while (rc != 0 && errno == EINTR);
  if (rc != 0) {
    ::close(fd);
    return std::nullopt;
  }
  return InstanceLock(fd);
}

}  // namespace kx::platform

// The lock is the named mutex "Global\Kestrune_resident_daemon_<port>": its
// existence, not its ownership, is what counts; the system removes it when the
// last handle closes, also when the holder dies.
#include <windows.h>

#include <string>

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
  if (handle_ >= 0) ::CloseHandle(reinterpret_cast<HANDLE>(handle_));
  handle_ = -1;
}

std::filesystem::path instance_lock_path(std::uint16_t port) {
  return "Global\\Kestrune_resident_daemon_" + std::to_string(port);
}

std::optional<InstanceLock> try_lock_instance(std::uint16_t port) {
  std::string name = instance_lock_path(port).string();
  HANDLE mutex = ::CreateMutexA(nullptr, FALSE, name.c_str());
  if (mutex == nullptr) return std::nullopt;
  if (::GetLastError() == ERROR_ALREADY_EXISTS) {
    ::CloseHandle(mutex);
    return std::nullopt;
  }
  return InstanceLock(reinterpret_cast<std::intptr_t>(mutex));
}

// No sharing: a second open fails with a sharing violation while the holder lives.
std::optional<InstanceLock> try_lock_file(const std::filesystem::path& path) {
  HANDLE file = ::CreateFileW(path.c_str(), GENERIC_WRITE, 0, nullptr, OPEN_ALWAYS,
                              FILE_ATTRIBUTE_TEMPORARY, nullptr);
  if (file == INVALID_HANDLE_VALUE) return std::nullopt;
  return InstanceLock(reinterpret_cast<std::intptr_t>(file));
}

}  // namespace kx::platform

#pragma once
// The single-instance lock of a port: holding it is what makes a process the
// resident for that port. The system releases it when the holder dies.
#include <cstdint>
#include <filesystem>
#include <optional>

namespace kx::platform {

class InstanceLock {
 public:
  InstanceLock() = default;
  explicit InstanceLock(std::intptr_t handle) : handle_(handle) {}
  InstanceLock(InstanceLock&& other) noexcept : handle_(other.handle_) { other.handle_ = -1; }
  InstanceLock& operator=(InstanceLock&& other) noexcept;
  InstanceLock(const InstanceLock&) = delete;
  InstanceLock& operator=(const InstanceLock&) = delete;
  ~InstanceLock() { release(); }

  void release();

 private:
  std::intptr_t handle_ = -1;
};

// Takes the lock of `port`; nothing when another process holds it (or the lock
// could not be created at all).
std::optional<InstanceLock> try_lock_instance(std::uint16_t port);

// Takes a lock held by opening `path` (created when missing) exclusively; nothing when
// another process holds it. Released, like the port's, when the holder dies.
std::optional<InstanceLock> try_lock_file(const std::filesystem::path& path);

// Where the lock of `port` lives (for messages and tests).
std::filesystem::path instance_lock_path(std::uint16_t port);

}  // namespace kx::platform

#pragma once
// Writes that survive a crash of the process or the machine: the data is on the
// disk (fsync) before the call returns success.
#include <cstdint>
#include <filesystem>
#include <string>
#include <string_view>

namespace kx::platform {

// Creates or truncates `path`, writes `data` and fsyncs it. On failure returns false,
// sets `reason`, and the file may hold part of the data (callers write to a
// temporary name and rename).
bool write_file_durable(const std::filesystem::path& path, std::string_view data,
                        std::string& reason);

// Appends `data` to `path` (created when missing) with one write and fsyncs it.
bool append_file_durable(const std::filesystem::path& path, std::string_view data,
                         std::string& reason);

// Flushes an existing file's data to the device. False when it cannot be opened or synced.
bool sync_file(const std::filesystem::path& file);

// Flushes a directory's entries after a rename into it (a no-op where the file
// system has no such step). False on failure.
bool sync_directory(const std::filesystem::path& dir);

// An exclusive advisory lock on a file, held until the object is destroyed. It keeps
// two processes from interleaving the steps of one save; the kernel drops it when the
// holder dies.
// The counter's bytes in the lock file: little-endian, the same on every platform.
inline void encode_counter(std::uint64_t value, unsigned char (&bytes)[8]) {
  for (unsigned char& b : bytes) {
    b = static_cast<unsigned char>(value & 0xff);
    value >>= 8;
  }
}
inline std::uint64_t decode_counter(const unsigned char (&bytes)[8]) {
  std::uint64_t value = 0;
  for (int i = 7; i >= 0; --i) value = (value << 8) | bytes[i];
  return value;
}

class FileLock {
 public:
  explicit FileLock(const std::filesystem::path& path);  // blocks until held
  ~FileLock();
  FileLock(const FileLock&) = delete;
  FileLock& operator=(const FileLock&) = delete;
  bool held() const { return handle_ != -1; }
  // A counter kept in the lock file's first eight bytes, for the holder to read and
  // bump: it tells other processes that the guarded files changed in a way their
  // sizes do not show. 0 for a fresh lock file.
  std::uint64_t read_counter() const;
  [[nodiscard]] bool write_counter(std::uint64_t value);

 private:
  std::intptr_t handle_ = -1;  // a descriptor or a HANDLE
};

}  // namespace kx::platform

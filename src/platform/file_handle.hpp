#pragma once
// An open file for positioned reads, appends and truncation, closed when destroyed.
// Readers open it sharing everything (Windows included), so a writer can still
// append to it or rename a new file over its name while it is open.
#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>

namespace kx::platform {

class FileHandle {
 public:
  // append creates a missing file; update reads and appends an existing one.
  enum class Mode { read, append, update };

  FileHandle() = default;
  static FileHandle open(const std::filesystem::path& path, Mode mode);
  FileHandle(FileHandle&& other) noexcept : handle_(other.handle_) { other.handle_ = -1; }
  FileHandle& operator=(FileHandle&& other) noexcept;
  FileHandle(const FileHandle&) = delete;
  FileHandle& operator=(const FileHandle&) = delete;
  ~FileHandle() { close(); }

  bool is_open() const { return handle_ != -1; }
  void close();
  std::optional<std::uint64_t> size() const;
  // Reads exactly `n` bytes at `offset`; false on an error or a short file.
  [[nodiscard]] bool read_at(std::uint64_t offset, char* out, std::uint64_t n) const;
  // Writes `data` at the end of the file. On failure part of it may have landed.
  [[nodiscard]] bool append(std::string_view data, std::string& reason);
  [[nodiscard]] bool truncate(std::uint64_t size);
  [[nodiscard]] bool sync();
  // The descriptor or HANDLE, for other platform calls on the same open file.
  std::intptr_t native() const { return handle_; }

 private:
  explicit FileHandle(std::intptr_t handle) : handle_(handle) {}
  std::intptr_t handle_ = -1;  // a descriptor or a HANDLE
};

}  // namespace kx::platform

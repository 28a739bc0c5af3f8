#pragma once
// A read-only view of the first bytes of an open file, mapped into memory: a large
// file is used in place instead of copied, and only the pages that are touched are
// read. The view stays valid while the object lives, even after the file handle it
// was made from is closed.
#include <cstdint>
#include <optional>
#include <string_view>

#include "platform/file_handle.hpp"

namespace kx::platform {

class FileMapping {
 public:
  FileMapping() = default;
  // Maps the first `size` bytes of `file` (opened for reading; `size` must not exceed
  // its length). Size 0 gives an empty view. nullopt when the system refuses.
  [[nodiscard]] static std::optional<FileMapping> map(const FileHandle& file, std::uint64_t size);
  FileMapping(FileMapping&& other) noexcept : data_(other.data_), size_(other.size_) {
    other.data_ = nullptr;
    other.size_ = 0;
  }
  FileMapping& operator=(FileMapping&& other) noexcept;
  FileMapping(const FileMapping&) = delete;
  FileMapping& operator=(const FileMapping&) = delete;
  ~FileMapping() { unmap(); }

  std::string_view bytes() const { return {data_, static_cast<std::size_t>(size_)}; }
  void unmap();

 private:
  FileMapping(const char* data, std::uint64_t size) : data_(data), size_(size) {}
  const char* data_ = nullptr;
  std::uint64_t size_ = 0;
};

// Whether the system refuses to rename a file over one that is mapped (Windows): there
// a mapping of a file that others may replace must not outlive one read of it.
bool mappings_block_renames();

}  // namespace kx::platform

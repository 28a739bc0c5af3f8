#include <sys/mman.h>

#include "platform/file_mapping.hpp"

namespace kx::platform {

std::optional<FileMapping> FileMapping::map(const FileHandle& file, std::uint64_t size) {
  if (size == 0) return FileMapping();
  if (!file.is_open()) return std::nullopt;
  void* at = ::mmap(nullptr, static_cast<std::size_t>(size), PROT_READ, MAP_SHARED,
                    static_cast<int>(file.native()), 0);
  if (at == MAP_FAILED) return std::nullopt;
  return FileMapping(static_cast<const char*>(at), size);
}

void FileMapping::unmap() {
  if (data_ != nullptr) ::munmap(const_cast<char*>(data_), static_cast<std::size_t>(size_));
  data_ = nullptr;
  size_ = 0;
}

bool mappings_block_renames() {
  return false;
}

}  // namespace kx::platform

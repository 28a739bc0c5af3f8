#include <windows.h>

#include "platform/file_mapping.hpp"

namespace kx::platform {

std::optional<FileMapping> FileMapping::map(const FileHandle& file, std::uint64_t size) {
  if (size == 0) return FileMapping();
  if (!file.is_open()) return std::nullopt;
  HANDLE section = ::CreateFileMappingW(reinterpret_cast<HANDLE>(file.native()), nullptr,
                                        PAGE_READONLY, static_cast<DWORD>(size >> 32),
                                        static_cast<DWORD>(size & 0xffffffffu), nullptr);
  if (section == nullptr) return std::nullopt;
  // The view keeps the section alive; its handle is not needed any more.
  void* at = ::MapViewOfFile(section, FILE_MAP_READ, 0, 0, static_cast<SIZE_T>(size));
  ::CloseHandle(section);
  if (at == nullptr) return std::nullopt;
  return FileMapping(static_cast<const char*>(at), size);
}

void FileMapping::unmap() {
  if (data_ != nullptr) ::UnmapViewOfFile(data_);
  data_ = nullptr;
  size_ = 0;
}

bool mappings_block_renames() {
  return true;
}

}  // namespace kx::platform

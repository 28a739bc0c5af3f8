#include <windows.h>

#include <string>
#include <system_error>

#include "platform/process_info.hpp"

namespace kx::platform {

std::filesystem::path executable_path() {
  std::wstring buffer(MAX_PATH, L'\0');
  for (;;) {
    DWORD n = ::GetModuleFileNameW(nullptr, buffer.data(), static_cast<DWORD>(buffer.size()));
    if (n == 0) return {};
    if (n < buffer.size()) {
      buffer.resize(n);
      return std::filesystem::path(buffer);
    }
    buffer.resize(buffer.size() * 2);
  }
}

std::optional<std::uint64_t> free_physical_memory() {
  MEMORYSTATUSEX status{};
  status.dwLength = sizeof status;
  if (!::GlobalMemoryStatusEx(&status)) return std::nullopt;
  return status.ullAvailPhys;
}

void keep_freed_memory_for_reuse() {
  // The process heap already keeps freed blocks of this size committed for reuse.
}

}  // namespace kx::platform

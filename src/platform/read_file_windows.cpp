#include <windows.h>

#include "platform/read_file.hpp"

namespace kx::platform {

bool read_whole_file(const std::filesystem::path& path, std::string& out, std::uint64_t size_hint) {
  HANDLE file = ::CreateFileW(path.c_str(), GENERIC_READ,
                              FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr,
                              OPEN_EXISTING, FILE_FLAG_SEQUENTIAL_SCAN, nullptr);
  if (file == INVALID_HANDLE_VALUE) return false;
  out.resize(size_hint > 0 ? static_cast<std::size_t>(size_hint) + 1 : 65536);
  std::size_t total = 0;
  for (;;) {
    std::size_t room = out.size() - total;
    DWORD want = room > (1u << 30) ? (1u << 30) : static_cast<DWORD>(room);
    DWORD got = 0;
    if (!::ReadFile(file, out.data() + total, want, &got, nullptr)) {
      ::CloseHandle(file);
      return false;
    }
    total += got;
    if (got < want) break;
    if (total == out.size()) out.resize(out.size() * 2);
  }
  ::CloseHandle(file);
  out.resize(total);
  return true;
}

}  // namespace kx::platform

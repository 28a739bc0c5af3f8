// CopyFileW lets the file system share blocks where it can (ReFS block cloning).
#include <windows.h>

#include <system_error>

#include "platform/file_clone.hpp"

namespace kx::platform {

bool clone_file(const std::filesystem::path& from, const std::filesystem::path& to,
                std::string& reason) {
  if (::CopyFileW(from.c_str(), to.c_str(), FALSE)) return true;
  reason = std::system_category().message(static_cast<int>(::GetLastError()));
  return false;
}

}  // namespace kx::platform

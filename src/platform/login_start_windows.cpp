#include <windows.h>

#include "platform/login_start.hpp"

namespace kx::platform {
namespace {

constexpr const char* kRunKey = "Software\\Microsoft\\Windows\\CurrentVersion\\Run";
constexpr const char* kValueName = "Kestrune";

}  // namespace

std::string login_start_text(const std::filesystem::path& program) {
  return "\"" + program.string() + "\" boot";
}

std::optional<std::string> login_start_entry() {
  char buffer[1024];
  DWORD size = sizeof buffer;
  DWORD type = 0;
  if (::RegGetValueA(HKEY_CURRENT_USER, kRunKey, kValueName, RRF_RT_REG_SZ, &type, buffer, &size) !=
      ERROR_SUCCESS)
    return std::nullopt;
  return std::string(buffer);
}

bool register_login_start(const std::filesystem::path& program) {
  if (program.empty()) return false;
  std::string text = login_start_text(program);
  if (login_start_entry() == text) return true;
  HKEY key = nullptr;
  if (::RegCreateKeyExA(HKEY_CURRENT_USER, kRunKey, 0, nullptr, 0, KEY_SET_VALUE, nullptr, &key,
                        nullptr) != ERROR_SUCCESS)
    return false;
  LONG written =
      ::RegSetValueExA(key, kValueName, 0, REG_SZ, reinterpret_cast<const BYTE*>(text.c_str()),
                       static_cast<DWORD>(text.size() + 1));
  ::RegCloseKey(key);
  return written == ERROR_SUCCESS;
}

}  // namespace kx::platform

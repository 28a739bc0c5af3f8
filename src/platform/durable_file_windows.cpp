#include <windows.h>

#include <string>

#include "platform/durable_file.hpp"

namespace kx::platform {
namespace {

std::string last_error_text() {
  return "system error " + std::to_string(::GetLastError());
}

bool write_with_access(const std::filesystem::path& path, std::span<const std::string_view> parts,
                       DWORD access, DWORD disposition, DWORD flags, std::string& reason) {
  HANDLE file = ::CreateFileW(path.c_str(), access, FILE_SHARE_READ, nullptr, disposition,
                              FILE_ATTRIBUTE_NORMAL | flags, nullptr);
  if (file == INVALID_HANDLE_VALUE) {
    reason = last_error_text();
    return false;
  }
  bool ok = true;
  for (std::string_view data : parts) {
    while (ok && !data.empty()) {
      DWORD chunk = data.size() > 1u << 30 ? 1u << 30 : static_cast<DWORD>(data.size());
      DWORD written = 0;
      if (!::WriteFile(file, data.data(), chunk, &written, nullptr)) {
        reason = last_error_text();
        ok = false;
      }
      data.remove_prefix(written);
    }
  }
  if (ok && !::FlushFileBuffers(file)) {
    reason = last_error_text();
    ok = false;
  }
  ::CloseHandle(file);
  return ok;
}

bool write_with_access(const std::filesystem::path& path, std::string_view data, DWORD access,
                       DWORD disposition, DWORD flags, std::string& reason) {
  const std::string_view parts[] = {data};
  return write_with_access(path, parts, access, disposition, flags, reason);
}

}  // namespace

// Paths are passed without the "\\?\" prefix, so the classic limit holds.
std::size_t max_path_bytes() {
  return MAX_PATH - 1;
}

bool write_new_file_durable(const std::filesystem::path& path,
                            std::span<const std::string_view> parts, std::string& reason) {
  // CREATE_NEW fails on any existing entry, a reparse point (link) included, so a
  // planted link is never written through.
  return write_with_access(path, parts, GENERIC_WRITE, CREATE_NEW, FILE_FLAG_OPEN_REPARSE_POINT,
                           reason);
}

bool write_new_file_durable(const std::filesystem::path& path, std::string_view data,
                            std::string& reason) {
  const std::string_view parts[] = {data};
  return write_new_file_durable(path, parts, reason);
}

bool replace_durable(const std::filesystem::path& from, const std::filesystem::path& to,
                     std::string& reason) {
  // Windows refuses to replace a file that is open, even one opened with
  // FILE_SHARE_DELETE; a reader elsewhere lets go within one read, so wait a little.
  for (DWORD pause = 1;; pause *= 2) {
    if (::MoveFileExW(from.c_str(), to.c_str(), MOVEFILE_REPLACE_EXISTING | MOVEFILE_WRITE_THROUGH))
      return true;
    const DWORD error = ::GetLastError();
    if ((error != ERROR_ACCESS_DENIED && error != ERROR_SHARING_VIOLATION) || pause > 512) {
      reason = "system error " + std::to_string(error);
      return false;
    }
    ::Sleep(pause);
  }
}

bool write_file_durable(const std::filesystem::path& path, std::string_view data,
                        std::string& reason) {
  return write_with_access(path, data, GENERIC_WRITE, CREATE_ALWAYS, 0, reason);
}

bool append_file_durable(const std::filesystem::path& path, std::string_view data,
                         std::string& reason) {
  return write_with_access(path, data, FILE_APPEND_DATA, OPEN_ALWAYS, 0, reason);
}

FileLock::FileLock(const std::filesystem::path& path) {
  HANDLE file =
      ::CreateFileW(path.c_str(), GENERIC_READ | GENERIC_WRITE, FILE_SHARE_READ | FILE_SHARE_WRITE,
                    nullptr, OPEN_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr);
  if (file == INVALID_HANDLE_VALUE) return;
  OVERLAPPED whole{};
  if (!::LockFileEx(file, LOCKFILE_EXCLUSIVE_LOCK, 0, MAXDWORD, MAXDWORD, &whole)) {
    ::CloseHandle(file);
    return;
  }
  handle_ = reinterpret_cast<std::intptr_t>(file);
}

std::uint64_t FileLock::read_counter() const {
  unsigned char bytes[8] = {};
  OVERLAPPED at{};
  DWORD got = 0;
  if (handle_ == -1 ||
      !::ReadFile(reinterpret_cast<HANDLE>(handle_), bytes, sizeof bytes, &got, &at) || got != 8)
    return 0;
  return decode_counter(bytes);
}

bool FileLock::write_counter(std::uint64_t value) {
  unsigned char bytes[8];
  encode_counter(value, bytes);
  OVERLAPPED at{};
  DWORD written = 0;
  return handle_ != -1 &&
         ::WriteFile(reinterpret_cast<HANDLE>(handle_), bytes, sizeof bytes, &written, &at) &&
         written == 8;
}

FileLock::~FileLock() {
  if (handle_ != -1) ::CloseHandle(reinterpret_cast<HANDLE>(handle_));
}

bool sync_file(const std::filesystem::path& file) {
  HANDLE handle = ::CreateFileW(file.c_str(), GENERIC_WRITE, FILE_SHARE_READ | FILE_SHARE_WRITE,
                                nullptr, OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr);
  if (handle == INVALID_HANDLE_VALUE) return false;
  bool ok = ::FlushFileBuffers(handle) != 0;
  ::CloseHandle(handle);
  return ok;
}

// NTFS makes a completed rename durable with the file's own metadata.
bool sync_directory(const std::filesystem::path&) {
  return true;
}

}  // namespace kx::platform

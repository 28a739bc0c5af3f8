#include <windows.h>

#include <algorithm>

#include "platform/file_handle.hpp"

namespace kx::platform {
namespace {

HANDLE as_handle(std::intptr_t h) {
  return reinterpret_cast<HANDLE>(h);
}

}  // namespace

FileHandle FileHandle::open(const std::filesystem::path& path, Mode mode) {
  const DWORD access = mode == Mode::read ? GENERIC_READ : (GENERIC_WRITE | GENERIC_READ);
  const DWORD disposition = mode == Mode::append ? OPEN_ALWAYS : OPEN_EXISTING;
  HANDLE file =
      ::CreateFileW(path.c_str(), access, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE,
                    nullptr, disposition, FILE_ATTRIBUTE_NORMAL, nullptr);
  return FileHandle(file == INVALID_HANDLE_VALUE ? -1 : reinterpret_cast<std::intptr_t>(file));
}

FileHandle& FileHandle::operator=(FileHandle&& other) noexcept {
  if (this != &other) {
    close();
    handle_ = other.handle_;
    other.handle_ = -1;
  }
  return *this;
}

void FileHandle::close() {
  if (handle_ != -1) ::CloseHandle(as_handle(handle_));
  handle_ = -1;
}

std::optional<std::uint64_t> FileHandle::size() const {
  LARGE_INTEGER size{};
  if (handle_ == -1 || !::GetFileSizeEx(as_handle(handle_), &size)) return std::nullopt;
  return static_cast<std::uint64_t>(size.QuadPart);
}

bool FileHandle::read_at(std::uint64_t offset, char* out, std::uint64_t n) const {
  while (n > 0) {
    const DWORD want = static_cast<DWORD>(std::min<std::uint64_t>(n, 1u << 30));
    OVERLAPPED at{};
    at.Offset = static_cast<DWORD>(offset & 0xffffffffu);
    at.OffsetHigh = static_cast<DWORD>(offset >> 32);
    DWORD got = 0;
    if (!::ReadFile(as_handle(handle_), out, want, &got, &at) || got == 0) return false;
    out += got;
    offset += got;
    n -= got;
  }
  return true;
}

bool FileHandle::append(std::string_view data, std::string& reason) {
  LARGE_INTEGER end{};
  if (!::SetFilePointerEx(as_handle(handle_), end, nullptr, FILE_END)) {
    reason = "system error " + std::to_string(::GetLastError());
    return false;
  }
  while (!data.empty()) {
    const DWORD chunk = static_cast<DWORD>(std::min<std::size_t>(data.size(), 1u << 30));
    DWORD written = 0;
    if (!::WriteFile(as_handle(handle_), data.data(), chunk, &written, nullptr) || written == 0) {
      reason = "system error " + std::to_string(::GetLastError());
      return false;
    }
    data.remove_prefix(written);
  }
  return true;
}

bool FileHandle::truncate(std::uint64_t size) {
  LARGE_INTEGER at{};
  at.QuadPart = static_cast<LONGLONG>(size);
  return ::SetFilePointerEx(as_handle(handle_), at, nullptr, FILE_BEGIN) &&
         ::SetEndOfFile(as_handle(handle_));
}

bool FileHandle::sync() {
  return ::FlushFileBuffers(as_handle(handle_)) != 0;
}

}  // namespace kx::platform

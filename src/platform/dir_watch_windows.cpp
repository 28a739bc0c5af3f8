// One overlapped ReadDirectoryChangesW on the directory; the system watches the
// subtree itself. A completed read of zero bytes means its buffer overflowed.
#include <windows.h>

#include <system_error>

#include "platform/dir_watch.hpp"

namespace kx::platform {

namespace fs = std::filesystem;

namespace {

constexpr DWORD kFilter = FILE_NOTIFY_CHANGE_FILE_NAME | FILE_NOTIFY_CHANGE_DIR_NAME |
                          FILE_NOTIFY_CHANGE_SIZE | FILE_NOTIFY_CHANGE_LAST_WRITE;

class ChangesWatch final : public DirWatch {
 public:
  ChangesWatch(HANDLE dir, HANDLE event, fs::path root, bool recursive, fs::path skip)
      : dir_(dir),
        event_(event),
        root_(std::move(root)),
        recursive_(recursive),
        skip_(std::move(skip)) {}

  ~ChangesWatch() override {
    if (pending_) {
      ::CancelIoEx(dir_, &overlapped_);
      DWORD ignored = 0;
      ::GetOverlappedResult(dir_, &overlapped_, &ignored, TRUE);
    }
    ::CloseHandle(event_);
    ::CloseHandle(dir_);
  }

  bool issue() {
    ::ResetEvent(event_);
    overlapped_ = OVERLAPPED{};
    overlapped_.hEvent = event_;
    pending_ = ::ReadDirectoryChangesW(dir_, buffer_, sizeof buffer_, recursive_ ? TRUE : FALSE,
                                       kFilter, nullptr, &overlapped_, nullptr) != 0;
    return pending_;
  }

  bool wait(int timeout_ms, DirChanges& out) override {
    if (!pending_ && !issue()) {
      // The read cannot be issued any more (the directory went away): look everywhere.
      ::Sleep(static_cast<DWORD>(timeout_ms));
      out.overflow = true;
      return true;
    }
    if (::WaitForSingleObject(event_, static_cast<DWORD>(timeout_ms)) != WAIT_OBJECT_0)
      return false;
    DWORD bytes = 0;
    BOOL done = ::GetOverlappedResult(dir_, &overlapped_, &bytes, FALSE);
    pending_ = false;
    if (!done || bytes == 0) {
      out.overflow = true;
    } else {
      for (const char* at = buffer_;;) {
        auto* info = reinterpret_cast<const FILE_NOTIFY_INFORMATION*>(at);
        std::wstring name(info->FileName, info->FileNameLength / sizeof(WCHAR));
        fs::path path = root_ / fs::path(name);
        if (skip_.empty() || path.native().rfind(skip_.native(), 0) != 0)
          out.paths.push_back(std::move(path));
        if (info->NextEntryOffset == 0) break;
        at += info->NextEntryOffset;
      }
    }
    issue();
    return true;
  }

 private:
  HANDLE dir_;
  HANDLE event_;
  fs::path root_;
  bool recursive_;
  fs::path skip_;
  bool pending_ = false;
  OVERLAPPED overlapped_{};
  alignas(DWORD) char buffer_[16384];
};

}  // namespace

std::unique_ptr<DirWatch> watch_directory(const fs::path& dir, bool recursive, const fs::path& skip,
                                          std::string& reason) {
  HANDLE handle = ::CreateFileW(
      dir.c_str(), FILE_LIST_DIRECTORY, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE,
      nullptr, OPEN_EXISTING, FILE_FLAG_BACKUP_SEMANTICS | FILE_FLAG_OVERLAPPED, nullptr);
  if (handle == INVALID_HANDLE_VALUE) {
    reason = std::system_category().message(static_cast<int>(::GetLastError()));
    return nullptr;
  }
  HANDLE event = ::CreateEventW(nullptr, TRUE, FALSE, nullptr);
  if (event == nullptr) {
    reason = std::system_category().message(static_cast<int>(::GetLastError()));
    ::CloseHandle(handle);
    return nullptr;
  }
  auto watch = std::make_unique<ChangesWatch>(handle, event, dir, recursive, skip);
  if (!watch->issue()) {
    reason = std::system_category().message(static_cast<int>(::GetLastError()));
    return nullptr;
  }
  return watch;
}

}  // namespace kx::platform

#include <windows.h>
// tlhelp32 needs windows.h first.
#include <tlhelp32.h>

#include <thread>

#include "platform/parent_watch.hpp"

namespace kx::platform {
namespace {

DWORD parent_process_id() {
  DWORD self = ::GetCurrentProcessId();
  DWORD parent = 0;
  HANDLE snapshot = ::CreateToolhelp32Snapshot(TH32CS_SNAPPROCESS, 0);
  if (snapshot == INVALID_HANDLE_VALUE) return 0;
  PROCESSENTRY32 entry{};
  entry.dwSize = sizeof entry;
  for (BOOL more = ::Process32First(snapshot, &entry); more;
       more = ::Process32Next(snapshot, &entry)) {
    if (entry.th32ProcessID == self) {
      parent = entry.th32ParentProcessID;
      break;
    }
  }
  ::CloseHandle(snapshot);
  return parent;
}

}  // namespace

void end_with_parent() {
  DWORD parent = parent_process_id();
  if (parent == 0) return;
  HANDLE handle = ::OpenProcess(SYNCHRONIZE, FALSE, parent);
  if (handle == nullptr) {
    // A parent id that no longer opens: the parent has already gone.
    if (::GetLastError() == ERROR_INVALID_PARAMETER) ::ExitProcess(0);
    return;
  }
  // Process ids are reused, so wait on the handle rather than polling the id.
  std::thread([handle] {
    ::WaitForSingleObject(handle, INFINITE);
    ::ExitProcess(0);
  }).detach();
}

}  // namespace kx::platform

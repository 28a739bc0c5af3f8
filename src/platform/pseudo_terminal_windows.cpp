// A pseudo console fed by two pipes. The started process runs in a job object so
// that terminate() ends its whole tree. A pseudo console keeps its output pipe
// open after the process ends, so a waiter thread closes the console when the
// process ends; the reader then sees the end of the pipe.
// Pseudo consoles arrived with Windows 10 1809 (NTDDI 0x0A000006).
#ifndef _WIN32_WINNT
#define _WIN32_WINNT 0x0A00
#endif
#ifndef NTDDI_VERSION
#define NTDDI_VERSION 0x0A000006
#endif
#include <windows.h>

#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "platform/pseudo_terminal.hpp"

namespace kx::platform {
namespace {

COORD size_of(int cols, int rows) {
  return COORD{static_cast<SHORT>(cols), static_cast<SHORT>(rows)};
}

class WindowsPseudoTerminal final : public PseudoTerminal {
 public:
  WindowsPseudoTerminal(HPCON console, HANDLE input, HANDLE output, HANDLE process, HANDLE job)
      : console_(console), input_(input), output_(output), process_(process), job_(job) {
    waiter_ = std::thread([this] {
      ::WaitForSingleObject(process_, INFINITE);
      close_console();
    });
  }
  ~WindowsPseudoTerminal() override {
    terminate();
    waiter_.join();
    ::CloseHandle(input_);
    ::CloseHandle(output_);
    ::CloseHandle(process_);
    ::CloseHandle(job_);
  }

  long read(char* buffer, std::size_t capacity) override {
    DWORD n = 0;
    if (!::ReadFile(output_, buffer, static_cast<DWORD>(capacity), &n, nullptr)) return 0;
    return static_cast<long>(n);
  }

  bool write(std::string_view bytes) override {
    while (!bytes.empty()) {
      DWORD n = 0;
      if (!::WriteFile(input_, bytes.data(), static_cast<DWORD>(bytes.size()), &n, nullptr) ||
          n == 0)
        return false;
      bytes.remove_prefix(n);
    }
    return true;
  }

  bool resize(int cols, int rows) override {
    std::lock_guard guard(lock_);
    return console_ != nullptr && SUCCEEDED(::ResizePseudoConsole(console_, size_of(cols, rows)));
  }

  bool ended_within(int millis) override {
    return ::WaitForSingleObject(process_, static_cast<DWORD>(millis)) == WAIT_OBJECT_0;
  }

  int exit_code() override {
    ::WaitForSingleObject(process_, INFINITE);
    DWORD code = 0;
    ::GetExitCodeProcess(process_, &code);
    return static_cast<int>(code);
  }

  void terminate() override {
    ::TerminateJobObject(job_, 0);
    close_console();
  }

 private:
  void close_console() {
    std::lock_guard guard(lock_);
    if (console_ != nullptr) ::ClosePseudoConsole(console_);
    console_ = nullptr;
  }

  std::mutex lock_;
  HPCON console_;
  HANDLE input_, output_, process_, job_;
  std::thread waiter_;
};

void close_all(std::initializer_list<HANDLE> handles) {
  for (HANDLE handle : handles)
    if (handle != nullptr && handle != INVALID_HANDLE_VALUE) ::CloseHandle(handle);
}

}  // namespace

std::string default_terminal_command() {
  return "cmd.exe";
}

std::unique_ptr<PseudoTerminal> start_pseudo_terminal(const std::string& command, int cols,
                                                      int rows) {
  HANDLE input_read = nullptr, input_write = nullptr, output_read = nullptr, output_write = nullptr;
  if (!::CreatePipe(&input_read, &input_write, nullptr, 0)) return nullptr;
  if (!::CreatePipe(&output_read, &output_write, nullptr, 0)) {
    close_all({input_read, input_write});
    return nullptr;
  }
  HPCON console = nullptr;
  HRESULT made = ::CreatePseudoConsole(size_of(cols, rows), input_read, output_write, 0, &console);
  // The console holds its own duplicates of its ends.
  close_all({input_read, output_write});
  if (FAILED(made)) {
    close_all({input_write, output_read});
    return nullptr;
  }

  SIZE_T list_size = 0;
  ::InitializeProcThreadAttributeList(nullptr, 1, 0, &list_size);
  std::vector<char> list_storage(list_size);
  auto list = reinterpret_cast<LPPROC_THREAD_ATTRIBUTE_LIST>(list_storage.data());
  STARTUPINFOEXA startup{};
  startup.StartupInfo.cb = sizeof startup;
  // A program started from a process whose standard handles are a log file or a pipe
  // would inherit those instead of talking to the pseudo console: null handles make
  // the system connect it. Console handles are replaced by the system itself.
  DWORD mode = 0;
  if (!::GetConsoleMode(::GetStdHandle(STD_OUTPUT_HANDLE), &mode))
    startup.StartupInfo.dwFlags = STARTF_USESTDHANDLES;
  PROCESS_INFORMATION process{};
  HANDLE job = ::CreateJobObjectA(nullptr, nullptr);
  if (job != nullptr) {
    // A resident that goes away takes its sessions with it, as a closed pty does.
    JOBOBJECT_EXTENDED_LIMIT_INFORMATION limits{};
    limits.BasicLimitInformation.LimitFlags = JOB_OBJECT_LIMIT_KILL_ON_JOB_CLOSE;
    ::SetInformationJobObject(job, JobObjectExtendedLimitInformation, &limits, sizeof limits);
  }
  std::string line = command.empty() ? default_terminal_command() : command;
  bool started = job != nullptr && ::InitializeProcThreadAttributeList(list, 1, 0, &list_size) &&
                 ::UpdateProcThreadAttribute(list, 0, PROC_THREAD_ATTRIBUTE_PSEUDOCONSOLE, console,
                                             sizeof console, nullptr, nullptr);
  if (started) {
    startup.lpAttributeList = list;
    started = ::CreateProcessA(nullptr, line.data(), nullptr, nullptr, FALSE,
                               EXTENDED_STARTUPINFO_PRESENT | CREATE_SUSPENDED, nullptr, nullptr,
                               &startup.StartupInfo, &process);
    ::DeleteProcThreadAttributeList(list);
  }
  if (!started) {
    ::ClosePseudoConsole(console);
    close_all({input_write, output_read, job});
    return nullptr;
  }
  // In the job before it runs, so that nothing it starts escapes the job.
  ::AssignProcessToJobObject(job, process.hProcess);
  ::ResumeThread(process.hThread);
  ::CloseHandle(process.hThread);
  return std::make_unique<WindowsPseudoTerminal>(console, input_write, output_read,
                                                 process.hProcess, job);
}

}  // namespace kx::platform

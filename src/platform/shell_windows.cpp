#include <windows.h>

#include <atomic>
#include <string>
#include <thread>

#include "platform/env.hpp"
#include "platform/shell.hpp"

namespace kx::platform {
namespace {

bool has_program_extension(const std::string& name) {
  auto dot = name.find_last_of('.');
  if (dot == std::string::npos) return false;
  std::string ext = name.substr(dot);
  for (auto& c : ext) c = static_cast<char>(::tolower(static_cast<unsigned char>(c)));
  return ext == ".com" || ext == ".exe" || ext == ".bat" || ext == ".cmd";
}

bool is_file(const std::string& path) {
  DWORD attributes = ::GetFileAttributesA(path.c_str());
  return attributes != INVALID_FILE_ATTRIBUTES && !(attributes & FILE_ATTRIBUTE_DIRECTORY);
}

}  // namespace

bool is_program_on_path(std::string_view name) {
  if (name.empty()) return false;
  std::string word(name);
  static const char* kExtensions[] = {"", ".com", ".exe", ".bat", ".cmd"};
  auto found_in = [&](const std::string& dir) {
    for (const char* ext : kExtensions) {
      std::string candidate = dir.empty() ? word + ext : dir + "\\" + word + ext;
      if (has_program_extension(candidate) && is_file(candidate)) return true;
    }
    return false;
  };
  if (word.find_first_of("\\/:") != std::string::npos) return found_in("");
  std::string path = get_env("PATH").value_or("");
  std::size_t start = 0;
  while (start <= path.size()) {
    std::size_t end = path.find(';', start);
    if (end == std::string::npos) end = path.size();
    if (end > start && found_in(path.substr(start, end - start))) return true;
    start = end + 1;
  }
  return false;
}

ShellOutcome run_shell(std::string_view command, const std::filesystem::path& cwd,
                       std::chrono::milliseconds timeout, std::size_t output_cap) {
  ShellOutcome outcome;
  SECURITY_ATTRIBUTES inherit{sizeof(SECURITY_ATTRIBUTES), nullptr, TRUE};
  HANDLE read_end = nullptr, write_end = nullptr;
  if (!::CreatePipe(&read_end, &write_end, &inherit, 0)) {
    outcome.failure = "pipe";
    return outcome;
  }
  ::SetHandleInformation(read_end, HANDLE_FLAG_INHERIT, 0);
  // The child reads from an empty source: it sees end of input at once.
  HANDLE null_in = ::CreateFileA("NUL", GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE, &inherit,
                                 OPEN_EXISTING, 0, nullptr);

  std::string line = "cmd.exe /d /s /c \"" + std::string(command) + "\"";
  STARTUPINFOA startup{};
  startup.cb = sizeof startup;
  startup.dwFlags = STARTF_USESTDHANDLES;
  startup.hStdInput = null_in;
  startup.hStdOutput = write_end;
  startup.hStdError = write_end;
  PROCESS_INFORMATION process{};
  std::string dir = cwd.string();
  BOOL started = ::CreateProcessA(nullptr, line.data(), nullptr, nullptr, TRUE,
                                  CREATE_SUSPENDED | CREATE_NO_WINDOW, nullptr,
                                  dir.empty() ? nullptr : dir.c_str(), &startup, &process);
  ::CloseHandle(write_end);
  if (null_in != INVALID_HANDLE_VALUE) ::CloseHandle(null_in);
  if (!started) {
    outcome.failure = std::to_string(::GetLastError());
    ::CloseHandle(read_end);
    return outcome;
  }
  // Every descendant belongs to the job from its first instruction.
  HANDLE job = ::CreateJobObjectA(nullptr, nullptr);
  if (job != nullptr) ::AssignProcessToJobObject(job, process.hProcess);
  ::ResumeThread(process.hThread);

  std::atomic<bool> reader_done{false};
  std::thread reader([&] {
    char buffer[8192];
    DWORD got = 0;
    while (::ReadFile(read_end, buffer, sizeof buffer, &got, nullptr) && got > 0) {
      std::size_t room =
          output_cap > outcome.output.size() ? output_cap - outcome.output.size() : 0;
      if (got > room) outcome.truncated = true;
      outcome.output.append(buffer, std::min<std::size_t>(room, got));
    }
    reader_done = true;
  });

  DWORD wait = ::WaitForSingleObject(process.hProcess, static_cast<DWORD>(timeout.count()));
  if (wait == WAIT_TIMEOUT) {
    outcome.timed_out = true;
    if (job != nullptr) ::TerminateJobObject(job, 1);
    ::TerminateProcess(process.hProcess, 1);
  }
  // The command is over: what it wrote is drained for a short grace, then
  // descendants that outlived it (holding the pipe open) go with the job.
  for (int i = 0; i < kDrainGraceMillis / 10 && !reader_done; ++i) ::Sleep(10);
  if (job != nullptr) ::TerminateJobObject(job, 1);
  for (int i = 0; i < 100 && !reader_done; ++i) ::Sleep(50);  // up to 5 s for the reader
  if (!reader_done) ::CancelIoEx(read_end, nullptr);
  reader.join();

  DWORD code = 1;
  ::GetExitCodeProcess(process.hProcess, &code);
  outcome.exit_code = outcome.timed_out ? 1 : static_cast<int>(code);
  if (job != nullptr) ::CloseHandle(job);
  ::CloseHandle(read_end);
  ::CloseHandle(process.hThread);
  ::CloseHandle(process.hProcess);
  return outcome;
}

}  // namespace kx::platform

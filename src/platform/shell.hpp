#pragma once
// Running one command line through the system shell, with its whole process tree
// bounded in time.
#include <chrono>
#include <filesystem>
#include <string>
#include <string_view>

namespace kx::platform {

inline constexpr int kDrainGraceMillis = 200;

struct ShellOutcome {
  std::string output;      // standard output and standard error, interleaved
  int exit_code = 0;       // meaningful when the command ended by itself
  bool timed_out = false;  // the tree was killed at the deadline
  bool truncated = false;  // output beyond the cap was dropped
  std::string failure;     // non-empty when the command could not be started
};

// Runs `command` with /bin/sh -c (cmd.exe /d /s /c on Windows) in `cwd`, standard
// input at end-of-file. The run ends when the shell ends (or at the time-out):
// output still in the pipe is drained for kDrainGraceMillis, then the whole tree
// is killed, descendants that left the process group included. Output is capped
// at `output_cap` bytes.
ShellOutcome run_shell(std::string_view command, const std::filesystem::path& cwd,
                       std::chrono::milliseconds timeout, std::size_t output_cap);

// Whether `name` is an executable regular file found on PATH (or an explicit path).
bool is_program_on_path(std::string_view name);

}  // namespace kx::platform

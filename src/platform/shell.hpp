#pragma once
// Running one command line through the system shell, with its whole process tree
// bounded in time.
#include <chrono>
#include <filesystem>
#include <string>
#include <string_view>

namespace kx::platform {

struct ShellOutcome {
  std::string output;      // standard output and standard error, interleaved
  int exit_code = 0;       // meaningful when the command ended by itself
  bool timed_out = false;  // the tree was killed at the deadline
  bool truncated = false;  // output beyond the cap was dropped
  std::string failure;     // non-empty when the command could not be started
};

// Runs `command` with /bin/sh -c (cmd.exe /d /s /c on Windows) in `cwd`, standard
// input at end-of-file, the child leading its own process group. On time-out the
// whole group is killed. Output is capped at `output_cap` bytes.
ShellOutcome run_shell(std::string_view command, const std::filesystem::path& cwd,
                       std::chrono::milliseconds timeout, std::size_t output_cap);

// Whether `name` is an executable regular file found on PATH (or an explicit path).
bool is_program_on_path(std::string_view name);

}  // namespace kx::platform

#include "platform/shell.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <fstream>
#include <thread>

namespace kx::platform {
namespace {

using namespace std::chrono_literals;

// The same behaviour asked of each platform's own shell.
struct Commands {
  const char* both_streams_exit_3;
  const char* reads_input_then_done;
  const char* sleeps_then_never;
  const char* prints_lots;
  const char* real_program;
  const char* leaves_background_child;
};
#ifdef _WIN32
constexpr Commands kCommands = {"echo one& echo two>&2& exit 3",
                                "more & echo done",
                                "ping -n 30 127.0.0.1 >NUL & echo never",
                                "for /L %i in (1,1,400) do @echo yyyyyyyy",
                                "cmd",
                                "start /b ping -n 60 127.0.0.1 >NUL & echo hi"};
#else
constexpr Commands kCommands = {"echo one; echo two >&2; exit 3",
                                "cat; echo done",
                                "sleep 30 & sleep 30; echo never",
                                "yes | head -c 100000",
                                "sh",
                                "sleep 300 & echo hi"};
#endif

std::string without_cr(std::string text) {
  text.erase(std::remove(text.begin(), text.end(), '\r'), text.end());
  return text;
}

std::filesystem::path temp_dir() {
  return std::filesystem::temp_directory_path();
}

TEST(RunShell, CollectsOutputOfBothStreamsAndExitCode) {
  ShellOutcome out = run_shell(kCommands.both_streams_exit_3, temp_dir(), 20s, 1 << 20);
  EXPECT_EQ(without_cr(out.output), "one\ntwo\n");
  EXPECT_EQ(out.exit_code, 3);
  EXPECT_FALSE(out.timed_out);
}

TEST(RunShell, ChildSeesEndOfInputAtOnce) {
  ShellOutcome out = run_shell(kCommands.reads_input_then_done, temp_dir(), 20s, 1 << 20);
  EXPECT_EQ(without_cr(out.output), "done\n");
}

TEST(RunShell, KillsTheWholeTreeAtTheDeadline) {
  ShellOutcome out = run_shell(kCommands.sleeps_then_never, temp_dir(), 500ms, 1 << 20);
  EXPECT_TRUE(out.timed_out);
  EXPECT_EQ(out.output.find("never"), std::string::npos);
}

// The run ends with the shell: a background child holding the pipe neither keeps
// it waiting nor outlives it, even one that left the process group.
TEST(RunShell, EndsWithTheShellAndTakesBackgroundChildrenAlong) {
  auto start = std::chrono::steady_clock::now();
  ShellOutcome out = run_shell(kCommands.leaves_background_child, temp_dir(), 60s, 1 << 20);
  EXPECT_LT(std::chrono::steady_clock::now() - start, 20s);
  EXPECT_FALSE(out.timed_out);
  EXPECT_EQ(without_cr(out.output), "hi\n");
#ifndef _WIN32
  std::filesystem::path pid_file = temp_dir() / "kx_shell_test_setsid.pid";
  std::filesystem::remove(pid_file);
  out = run_shell(
      "setsid sh -c 'echo $$ > " + pid_file.string() + "; exec sleep 300' & sleep 0.3; echo hi",
      temp_dir(), 60s, 1 << 20);
  EXPECT_EQ(out.output, "hi\n");
  std::string pid;
  std::ifstream(pid_file) >> pid;
  ASSERT_FALSE(pid.empty());
  // Killed, and reaped by whoever adopted it, shortly after.
  bool gone = false;
  for (int i = 0; i < 100 && !gone; ++i) {
    std::ifstream stat("/proc/" + pid + "/stat");
    std::string text;
    std::getline(stat, text);
    gone = text.empty() || text.find(") Z") != std::string::npos;
    if (!gone) std::this_thread::sleep_for(50ms);
  }
  EXPECT_TRUE(gone) << "setsid child " << pid << " survived the run";
  std::filesystem::remove(pid_file);
#endif
}

TEST(RunShell, CapsOutput) {
  ShellOutcome out = run_shell(kCommands.prints_lots, temp_dir(), 60s, 1000);
  EXPECT_EQ(out.output.size(), 1000u);
  EXPECT_TRUE(out.truncated);
}

TEST(ProgramOnPath, FindsRealProgramsOnly) {
  EXPECT_TRUE(is_program_on_path(kCommands.real_program));
  EXPECT_FALSE(is_program_on_path("no-such-program-kx"));
  EXPECT_FALSE(is_program_on_path(""));
}

}  // namespace
}  // namespace kx::platform

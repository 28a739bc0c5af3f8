#include "platform/shell.hpp"

#include <gtest/gtest.h>

namespace kx::platform {
namespace {

using namespace std::chrono_literals;

TEST(RunShell, CollectsOutputOfBothStreamsAndExitCode) {
  ShellOutcome out = run_shell("echo one; echo two >&2; exit 3", "/", 10s, 1 << 20);
  EXPECT_EQ(out.output, "one\ntwo\n");
  EXPECT_EQ(out.exit_code, 3);
  EXPECT_FALSE(out.timed_out);
}

TEST(RunShell, ChildSeesEndOfInputAtOnce) {
  ShellOutcome out = run_shell("cat; echo done", "/", 10s, 1 << 20);
  EXPECT_EQ(out.output, "done\n");
}

TEST(RunShell, KillsTheWholeTreeAtTheDeadline) {
  ShellOutcome out = run_shell("sleep 30 & sleep 30; echo never", "/", 300ms, 1 << 20);
  EXPECT_TRUE(out.timed_out);
  EXPECT_EQ(out.output.find("never"), std::string::npos);
}

TEST(RunShell, CapsOutput) {
  ShellOutcome out = run_shell("yes | head -c 100000", "/", 10s, 1000);
  EXPECT_EQ(out.output.size(), 1000u);
  EXPECT_TRUE(out.truncated);
}

TEST(ProgramOnPath, FindsRealProgramsOnly) {
  EXPECT_TRUE(is_program_on_path("sh"));
  EXPECT_FALSE(is_program_on_path("no-such-program-kx"));
  EXPECT_FALSE(is_program_on_path(""));
}

}  // namespace
}  // namespace kx::platform

#include "platform/shell.hpp"

#include <gtest/gtest.h>

#include <algorithm>

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
};
#ifdef _WIN32
constexpr Commands kCommands = {"echo one& echo two>&2& exit 3", "more & echo done",
                                "ping -n 30 127.0.0.1 >NUL & echo never",
                                "for /L %i in (1,1,400) do @echo yyyyyyyy", "cmd"};
#else
constexpr Commands kCommands = {"echo one; echo two >&2; exit 3", "cat; echo done",
                                "sleep 30 & sleep 30; echo never", "yes | head -c 100000", "sh"};
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

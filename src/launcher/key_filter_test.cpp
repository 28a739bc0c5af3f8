#include "launcher/key_filter.hpp"

#include <gtest/gtest.h>

namespace kx::launcher {
namespace {

using Command = KeyFilter::Command;

TEST(KeyFilterTest, CommandsAtLineStartAreCaughtAndNeverReachTheSession) {
  for (auto [typed, command] : {std::pair{"::detach\r", Command::kDetach},
                                {"::quit\r", Command::kDetach},
                                {"::close\r", Command::kClose},
                                {"::list\r", Command::kList}}) {
    KeyFilter filter;
    auto step = filter.feed(typed, 0);
    EXPECT_EQ(step.command, command) << typed;
    EXPECT_EQ(step.to_session, "") << typed;
  }
  KeyFilter filter;
  auto step = filter.feed("ls\r::detach\r", 0);
  EXPECT_EQ(step.to_session, "ls\r");
  EXPECT_EQ(step.command, Command::kDetach);
}

TEST(KeyFilterTest, OtherTextPassesUnchangedWhereverColonsAre) {
  KeyFilter filter;
  EXPECT_EQ(filter.feed("echo a::detach\r", 0).to_session, "echo a::detach\r");
  // Not a command after all: the held text goes on, its local echo is erased.
  auto step = filter.feed("::detached\r", 0);
  EXPECT_EQ(step.to_session, "::detached\r");
  EXPECT_EQ(step.command, Command::kNone);
  EXPECT_NE(step.echo.find("\b \b"), std::string::npos);
  EXPECT_EQ(filter.feed(":wq\r", 0).to_session, ":wq\r");
  // Ctrl-C is the session's, and a raw byte.
  EXPECT_EQ(filter.feed(std::string("sleep 9\r\x03", 9), 0).to_session,
            std::string("sleep 9\r\x03", 9));
}

TEST(KeyFilterTest, ALoneColonIsReleasedAfterTheHold) {
  KeyFilter filter;
  EXPECT_EQ(filter.feed(":", 1000).to_session, "");
  EXPECT_EQ(filter.tick(1000 + kHoldMillis - 1).to_session, "");
  EXPECT_EQ(filter.tick(1000 + kHoldMillis).to_session, ":");
  // No longer at a line start: the next ':' is not held.
  EXPECT_EQ(filter.feed(":", 2000).to_session, ":");
}

TEST(KeyFilterTest, DetachKeyWorksAnywhereAndBackspaceEditsACommand) {
  KeyFilter filter;
  auto step = filter.feed("vi x\x1dmore", 0);
  EXPECT_EQ(step.command, Command::kDetach);
  EXPECT_EQ(step.to_session, "vi x");
  KeyFilter editing;
  EXPECT_EQ(editing
                .feed("::closx\x7f"
                      "e\r",
                      0)
                .command,
            Command::kClose);
  // Backspacing away the whole "::" leaves a line start that sends nothing held.
  KeyFilter erased;
  auto gone = erased.feed("::\x7f\x7fls\r", 0);
  EXPECT_EQ(gone.to_session, "ls\r");
}

}  // namespace
}  // namespace kx::launcher

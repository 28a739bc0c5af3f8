// Sessions on a real pseudo-terminal, driven through the table as the routes do.
#include "term/sessions.hpp"

#include "platform/console.hpp"

#include <gtest/gtest.h>

#include <chrono>
#include <condition_variable>
#include <thread>

namespace kx::term {
namespace {

using namespace std::chrono_literals;

// Wine connects a pseudo console's program only when the test itself runs on a
// terminal; the Windows suite runs these under `script` for that.
#ifdef _WIN32
#define SKIP_UNDER_WINE()             \
  if (!platform::stdin_is_terminal()) \
  GTEST_SKIP() << "needs a terminal under Wine (the Windows suite runs it under script)"
#else
#define SKIP_UNDER_WINE() (void)0
#endif

// The same sessions on both systems, each with its own shell. A shell that ran a
// line prints "sum-42", which its echo of the typed line never contains.
#ifdef _WIN32
constexpr const char* kShell = "cmd.exe";
constexpr const char* kLongRunning = "cmd.exe /k";
constexpr const char* kMissingProgram = "C:\\no\\such\\program.exe";
constexpr const char* kSumLine = "echo sum-%COMSPEC:~0,0%42\r";
constexpr const char* kFromLine = "echo from-%COMSPEC:~0,0%42";
constexpr const char* kManyLines = "for /L %i in (0,1,299) do @echo line-%i\r";
#else
constexpr const char* kShell = "/bin/sh";
constexpr const char* kLongRunning = "sleep 30";
constexpr const char* kEndsAtOnce = "true";
constexpr const char* kMissingProgram = "/no/such/program";
constexpr const char* kSumLine = "echo sum-$((40+2)); stty size\r";
constexpr const char* kFromLine = "echo from-$((6*7))";
constexpr const char* kManyLines = "i=0; while [ $i -lt 300 ]; do echo line-$i; i=$((i+1)); done\r";
#endif

// How long a session may take to answer. Wine's console host looks up the desktop
// the first time it reads typed input; with no display, Wine then starts a desktop
// process and waits up to 10 s for it, holding the console's lock. With other
// programs starting beside it, that wait runs to its end: the first session of a
// new prefix answers its first line only after those 10 s. The Windows suite keeps
// Wine from starting that process; a run elsewhere may still pay the wait.
constexpr auto kPatience = 30s;

// Polls until the session's buffer satisfies `done` (or kPatience passes).
template <typename Done>
ReadResult wait_for(SessionTable& table, const std::string& id, Done done) {
  auto deadline = std::chrono::steady_clock::now() + kPatience;
  ReadResult read;
  do {
    read = table.read(id, 0);
    if (done(read)) return read;
    std::this_thread::sleep_for(20ms);
  } while (std::chrono::steady_clock::now() < deadline);
  return read;
}

auto contains(const std::string& text) {
  return [text](const ReadResult& read) { return read.data.find(text) != std::string::npos; };
}

TEST(SessionsTest, TypedLineRunsAndItsOutputIsReadBack) {
  SKIP_UNDER_WINE();
  SessionTable table;
  auto id = table.open(kShell, 0, 50);
  ASSERT_TRUE(id);
  ASSERT_TRUE(table.send(*id, kSumLine));
  auto read = wait_for(table, *id, contains("sum-42"));
  EXPECT_NE(read.data.find("sum-42"), std::string::npos) << read.data;
#ifndef _WIN32
  // 0 cols took the default.
  read = wait_for(table, *id, contains("50 120"));
  EXPECT_NE(read.data.find("50 120"), std::string::npos) << read.data;
#endif
  EXPECT_TRUE(read.alive);
  EXPECT_EQ(read.len, read.data.size());
  EXPECT_TRUE(table.read(*id, read.len).data.empty());
}

TEST(SessionsTest, CommandThatEndsAtOnceIsNotASessionAndIdsAreNotReused) {
  SKIP_UNDER_WINE();
  SessionTable table;
#ifndef _WIN32  // a Windows program under Wine takes longer than the grace period to start
  EXPECT_FALSE(table.open(kEndsAtOnce, 0, 0));
#endif
  EXPECT_FALSE(table.open(kMissingProgram, 0, 0));
  auto first = table.open(kLongRunning, 0, 0);
  ASSERT_TRUE(first);
  table.close(*first);
  auto second = table.open(kLongRunning, 0, 0);
  ASSERT_TRUE(second);
  EXPECT_EQ(*first, "t1");
  EXPECT_EQ(*second, "t2");
  EXPECT_TRUE(table.list().size() == 1 && table.list()[0].id == "t2");
}

TEST(SessionsTest, EndedSessionStaysReadableWithItsExitLineUntilClosed) {
  SKIP_UNDER_WINE();
  SessionTable table;
  auto id = table.open(kShell, 0, 0);
  ASSERT_TRUE(id);
  ASSERT_TRUE(table.send(*id, "exit 3\r"));
  auto read = wait_for(table, *id, [](const ReadResult& r) { return !r.alive; });
  EXPECT_FALSE(read.alive);
  EXPECT_TRUE(read.data.ends_with("\n[session ended, exit 3]\n")) << read.data;
  EXPECT_FALSE(table.send(*id, "echo late\r"));
  EXPECT_FALSE(table.resize(*id, 80, 24));
  ASSERT_EQ(table.list().size(), 1u);
  EXPECT_FALSE(table.list()[0].alive);
  table.close(*id);
  EXPECT_FALSE(table.read(*id, 0).found);
  table.close(*id);  // twice: nothing happens
}

// Collects one watcher's stream as a client would.
struct Collector {
  std::mutex lock;
  std::condition_variable changed;
  std::uint64_t offset = 0;
  std::string bytes;
  int exit_code = -1;

  Watcher watcher() {
    return {[this](std::uint64_t at, bool) {
              std::lock_guard guard(lock);
              offset = at;
            },
            [this](std::string_view chunk) {
              std::lock_guard guard(lock);
              bytes += chunk;
              changed.notify_all();
            },
            [this](int code) {
              std::lock_guard guard(lock);
              exit_code = code;
              changed.notify_all();
            }};
  }
  bool wait_until_ended() {
    std::unique_lock guard(lock);
    return changed.wait_for(guard, kPatience, [this] { return exit_code >= 0; });
  }
};

TEST(SessionsTest, WatchersGetBacklogThenLiveOutputWithoutGapsAndTheEnd) {
  SKIP_UNDER_WINE();
  SessionTable table;
  auto id = table.open(kShell, 0, 0);
  ASSERT_TRUE(id);
  ASSERT_TRUE(table.send(*id, "echo before\r"));
  wait_for(table, *id, contains("before\r\n"));
  Collector early, late;
  ASSERT_TRUE(table.attach(*id, 0, early.watcher()));
  ASSERT_TRUE(table.send(*id, kManyLines));
  std::uint64_t resume = table.read(*id, 0).len;  // nothing trimmed yet: same offset
  ASSERT_TRUE(table.attach(*id, resume, late.watcher()));
  ASSERT_TRUE(table.send(*id, "exit 0\r"));
  ASSERT_TRUE(early.wait_until_ended());
  ASSERT_TRUE(late.wait_until_ended());
  std::string all = table.read(*id, 0).data;
  EXPECT_EQ(early.offset, 0u);
  EXPECT_EQ(early.bytes, all);
  EXPECT_EQ(late.offset, resume);
  EXPECT_EQ(late.bytes, all.substr(resume));
  EXPECT_NE(all.find("line-299"), std::string::npos);
  EXPECT_EQ(early.exit_code, 0);
  // Attaching after the end replays and ends at once.
  Collector after;
  ASSERT_TRUE(table.attach(*id, 0, after.watcher()));
  EXPECT_EQ(after.bytes, all);
  EXPECT_EQ(after.exit_code, 0);
}

TEST(SessionsTest, OnlyTheSharedBotMayTypeIntoASession) {
  SKIP_UNDER_WINE();
  SessionTable table;
  EXPECT_EQ(table.bot_send("t9", "ada", "ls"), "no such terminal");
  auto id = table.open(kShell, 0, 0);
  ASSERT_TRUE(id);
  EXPECT_EQ(table.bot_send(*id, "ada", "ls"), "terminal is not shared with this bot");
  std::string screen;
  std::vector<std::string> delivered;
  std::mutex lock;
  ASSERT_TRUE(table.share(
      *id, "ada",
      [&](const std::string& chunk) {
        std::lock_guard guard(lock);
        delivered.push_back(chunk);
      },
      [&](const std::string& now) { screen = now; }));
  EXPECT_EQ(table.bot_send(*id, "bob", "ls"), "terminal is not shared with this bot");
  EXPECT_EQ(table.bot_send(*id, "ada", ""), "empty terminal input");
  EXPECT_EQ(table.bot_send(*id, "ada", kFromLine), std::nullopt);
  wait_for(table, *id, contains("from-42"));
  {
    std::lock_guard guard(lock);
    std::string joined;
    for (auto& chunk : delivered) joined += chunk;
    EXPECT_NE(joined.find("from-42"), std::string::npos);
  }
  table.send(*id, "exit\r");
  wait_for(table, *id, [](const ReadResult& r) { return !r.alive; });
  EXPECT_EQ(table.bot_send(*id, "ada", "ls"), "terminal session ended");
}

}  // namespace
}  // namespace kx::term

#include "lang/console_seats.hpp"

#include <gtest/gtest.h>

#include <chrono>
#include <condition_variable>
#include <future>
#include <mutex>

#include "lang/registry.hpp"
#include "lang/system_family.hpp"
#include "lang/test_families.hpp"

namespace kx::lang {
namespace {

// Each console keeps its own directory, guided mode and variables between units,
// as a process of its own would; a caller without a console keeps nothing.
TEST(ConsoleSeats, EachConsoleKeepsItsOwnStateBetweenUnits) {
  Registry registry;
  std::vector<testing::Call> calls;
  testing::add_recording_family(registry, "fs", ':', {"cat"}, calls);
  Session session(registry);
  session.cwd = "/resident";
  ConsoleSeats seats;

  EXPECT_EQ(seats.run(session, "a", "/a", "x = 1\n", UnitForm::kLines).status, 0);
  seats.run(session, "a", "/ignored", "Kestrune guided on\n", UnitForm::kLines);
  UnitResult a = seats.run(session, "a", "/ignored", "if (x > 0) fs:cat f$x\n", UnitForm::kLines);
  EXPECT_EQ(a.out, "OK: cat\n");
  EXPECT_EQ(calls.back().args, "f1");
  std::size_t before = calls.size();
  seats.run(session, "b", "/b", "if (x > 0) fs:cat f$x\n", UnitForm::kLines);
  EXPECT_EQ(calls.size(), before);  // b never set x
  EXPECT_EQ(seats.run(session, "b", "", "pwd", UnitForm::kArguments).out.find("/b"), 4u);
  EXPECT_EQ(seats.run(session, "a", "", "pwd", UnitForm::kArguments).out.find("/a"), 4u);

  // The resident's own state is untouched by its consoles.
  EXPECT_EQ(session.cwd, "/resident");
  EXPECT_FALSE(session.guided);
  EXPECT_NE(seats.run(session, "", "/t", "pwd", UnitForm::kArguments).out.find("/t"),
            std::string::npos);
  UnitResult bad = seats.run(session, "", "", "frobnicate", UnitForm::kArguments);
  EXPECT_EQ(bad.status, kSyntaxError);
  EXPECT_NE(bad.err.find("fs parse error"), std::string::npos);
  EXPECT_EQ(seats.size(), 2u);
}

TEST(ConsoleSeats, TurnsAndRegistersBelongToTheirConsole) {
  Registry registry;
  std::vector<testing::Call> calls;
  testing::add_recording_family(registry, "fs", ':', {"cat"}, calls);
  register_system_family(registry);
  Session session(registry);
  session.registers.publish({"resident"});
  ConsoleSeats seats;
  for (int i = 0; i < 3; ++i) seats.run(session, "a", "/", "fs:cat t", UnitForm::kArguments);
  seats.run(session, "b", "/", "fs:cat t $[0]", UnitForm::kArguments);
  EXPECT_EQ(calls.back().args, "t $[0]");  // b has no registers of its own
  EXPECT_TRUE(seats.run(session, "a", "", "fssys:turns", UnitForm::kArguments)
                  .out.starts_with("OK: 3 turn(s) in the ring, seqs 1..3"));
  EXPECT_TRUE(seats.run(session, "b", "", "fssys:turns", UnitForm::kArguments)
                  .out.starts_with("OK: 1 turn(s) in the ring, seqs 1..1"));
  EXPECT_TRUE(session.turns.turns().empty());
  EXPECT_EQ(session.registers.values(), std::vector<std::string>{"resident"});

  // Calls that keep no console (MCP, the resident's pages) make no turns anywhere,
  // however many there are, and say so when asked for them.
  session.turns.set_depth(2);
  for (int i = 0; i < 5; ++i) seats.run(session, "", "/", "fs:cat t", UnitForm::kArguments);
  EXPECT_TRUE(session.turns.turns().empty());
  EXPECT_TRUE(session.turns.unlogged().empty());
  EXPECT_TRUE(seats.run(session, "", "", "fssys:turns", UnitForm::kArguments)
                  .out.starts_with("OK: no turn ring here — a call that keeps no console"));
  EXPECT_TRUE(seats.run(session, "", "", "fssys:promote x 1", UnitForm::kArguments)
                  .out.starts_with("ERROR: nothing to promote"));
  EXPECT_TRUE(session.records_turns);  // the resident's own session still keeps them
  EXPECT_TRUE(seats.run(session, "a", "", "fssys:turns", UnitForm::kArguments)
                  .out.starts_with("OK: 4 turn(s) in the ring, seqs 1..4"));
}

// A command computing outside the lock: another console's units run meanwhile, each
// in its own state, and every turn lands in its own console's ring. Inside a script
// the same command keeps the lock.
TEST(ConsoleSeats, ComputationOutsideTheLockLetsOtherConsolesIn) {
  Registry registry;
  register_system_family(registry);
  std::mutex m;
  std::condition_variable cv;
  bool started = false, other_done = false, other_ran_inside = false;
  std::chrono::milliseconds patience{0};
  Family slow{"slow", ':', "slow (test)", {}, nullptr};
  slow.verbs.push_back(Verb{"wait",
                            {},
                            "",
                            "slow:wait",
                            "slow:wait",
                            "Files",
                            "",
                            [&](Session& s, std::string_view) -> std::string {
                              run_outside_lock(s, [&] {
                                std::unique_lock l(m);
                                started = true;
                                cv.notify_all();
                                other_ran_inside =
                                    cv.wait_for(l, patience, [&] { return other_done; });
                              });
                              return "OK: waited in " + s.cwd.string();
                            }});
  registry.add_family(std::move(slow));
  Session session(registry);
  session.cwd = "/resident";
  ConsoleSeats seats;

  auto round = [&](const std::string& unit, std::chrono::milliseconds wait) {
    started = other_done = other_ran_inside = false;
    patience = wait;
    auto a = std::async(std::launch::async,
                        [&] { return seats.run(session, "a", "/a", unit, UnitForm::kLines); });
    {
      std::unique_lock l(m);
      cv.wait(l, [&] { return started; });
    }
    UnitResult b = seats.run(session, "b", "/b", "pwd\n", UnitForm::kLines);
    EXPECT_NE(b.out.find("/b"), std::string::npos) << b.out;
    {
      std::lock_guard l(m);
      other_done = true;
    }
    cv.notify_all();
    return a.get();
  };

  UnitResult a = round("slow:wait\n", std::chrono::seconds(10));
  EXPECT_TRUE(other_ran_inside);
  EXPECT_EQ(a.out, "OK: waited in /a\n");
  EXPECT_TRUE(seats.run(session, "a", "", "fssys:turns", UnitForm::kArguments)
                  .out.starts_with("OK: 1 turn(s) in the ring, seqs 1..1"));
  EXPECT_TRUE(seats.run(session, "b", "", "fssys:turns", UnitForm::kArguments)
                  .out.starts_with("OK: 1 turn(s) in the ring, seqs 1..1"));
  EXPECT_TRUE(session.turns.turns().empty());
  EXPECT_EQ(session.cwd, "/resident");
  EXPECT_EQ(session.line_depth, 0);
  EXPECT_EQ(session.lock.depth_here(), 0);

  // A statement's command: the other console waits until the whole unit is done.
  a = round("if (1 > 0) slow:wait\n", std::chrono::milliseconds(300));
  EXPECT_FALSE(other_ran_inside);
  EXPECT_EQ(a.out, "OK: waited in /a\n");
}

TEST(ConsoleSeats, OldestConsolesAreForgottenBeyondTheLimit) {
  Registry registry;
  Session session(registry);
  ConsoleSeats seats;
  for (std::size_t i = 0; i < ConsoleSeats::kMaxSeats + 5; ++i)
    seats.run(session, "s" + std::to_string(i), "/", "\n", UnitForm::kLines);
  EXPECT_EQ(seats.size(), ConsoleSeats::kMaxSeats);
}

}  // namespace
}  // namespace kx::lang

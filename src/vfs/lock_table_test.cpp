#include "vfs/lock_table.hpp"

#include <gtest/gtest.h>

namespace kst {
namespace {

using Outcome = SaveCheck::Outcome;

TEST(Fnv1a64, KnownVectors) {
  EXPECT_EQ(fnv1a64(""), 0xcbf29ce484222325ull);
  EXPECT_EQ(fnv1a64("a"), 0xaf63dc4c8601ec8cull);
  EXPECT_EQ(fnv1a64("foobar"), 0x85944171f73967e8ull);
}

TEST(LockTable, ToggleLocksThenUnlocksForTheSameSeat) {
  LockTable t;
  EXPECT_TRUE(t.toggle("a.txt", "cli").locked);
  EXPECT_EQ(t.status("a.txt").holder, "cli");
  const auto second = t.toggle("a.txt", "cli");
  EXPECT_FALSE(second.locked);
  EXPECT_TRUE(second.message.empty());
  EXPECT_FALSE(t.status("a.txt").holder);
}

TEST(LockTable, OtherSeatIsRefusedAndQueuedOnce) {
  LockTable t;
  t.toggle("a.txt", "alice");
  const auto bob = t.toggle("a.txt", "bob");
  EXPECT_TRUE(bob.message.starts_with("file is locked (alice)")) << bob.message;
  t.toggle("a.txt", "bob");  // asking again does not queue twice
  t.acquire("a.txt", "carol");
  EXPECT_EQ(t.status("a.txt").queued, 2u);
  // Release hands the lock to the first in line.
  EXPECT_EQ(t.toggle("a.txt", "alice").passed_to, "bob");
  EXPECT_EQ(t.status("a.txt").holder, "bob");
  EXPECT_EQ(t.release("a.txt", "bob"), "carol");
  EXPECT_EQ(t.release("a.txt", "carol"), std::nullopt);
  EXPECT_FALSE(t.status("a.txt").holder);
}

TEST(LockTable, SaveOverAForeignLockIsRefusedAndChangesNothing) {
  LockTable t;
  t.toggle("a.txt", "alice");
  const SaveCheck check = t.check_save("a.txt", "bob", SaveIntent::plain);
  EXPECT_EQ(check.outcome, Outcome::refused);
  EXPECT_EQ(check.message, "file is locked (alice)");
  EXPECT_FALSE(t.status("a.txt").dirty);
  EXPECT_EQ(t.status("a.txt").queued, 0u);
  EXPECT_TRUE(t.check_save("a.txt", "alice", SaveIntent::plain).allowed());
  EXPECT_TRUE(t.check_save("b.txt", "bob", SaveIntent::plain).allowed());
}

TEST(LockTable, DirtyCheckinFlagsOnlyAfterCommitAndBlocksFurtherSaves) {
  LockTable t;
  t.toggle("a.txt", "alice");
  const SaveCheck dirty = t.check_save("a.txt", "bob", SaveIntent::dirty_checkin);
  EXPECT_EQ(dirty.outcome, Outcome::proceed_dirty);
  EXPECT_EQ(dirty.message, "dirty check-in over alice's lock — merge required (both parties)");
  EXPECT_FALSE(t.is_dirty("a.txt"));  // the save has not happened yet
  t.commit_save("a.txt", dirty);
  EXPECT_TRUE(t.is_dirty("a.txt"));
  EXPECT_EQ(t.status("a.txt").holder, "alice");  // the lock stays where it was

  const std::string merge_required = "merge required (file was flagged dirty by an earlier op)";
  EXPECT_EQ(t.check_save("a.txt", "alice", SaveIntent::plain).message, merge_required);
  EXPECT_EQ(t.check_save("a.txt", "bob", SaveIntent::plain).message, "file is locked (alice)");
  // Only the holder's merged check-in clears the flag, and again only once committed.
  EXPECT_EQ(t.check_save("a.txt", "bob", SaveIntent::merge_checkin).outcome, Outcome::refused);
  const SaveCheck merge = t.check_save("a.txt", "alice", SaveIntent::merge_checkin);
  EXPECT_EQ(merge.outcome, Outcome::proceed_merge);
  EXPECT_TRUE(t.is_dirty("a.txt"));
  t.commit_save("a.txt", merge);
  EXPECT_FALSE(t.is_dirty("a.txt"));
  EXPECT_TRUE(t.check_save("a.txt", "alice", SaveIntent::plain).allowed());
}

TEST(LockTable, DirtyFlagOutlivesTheLock) {
  LockTable t;
  t.toggle("a.txt", "alice");
  t.commit_save("a.txt", t.check_save("a.txt", "bob", SaveIntent::dirty_checkin));
  t.release("a.txt", "alice");
  EXPECT_TRUE(t.status("a.txt").dirty);
  EXPECT_EQ(t.check_save("a.txt", "bob", SaveIntent::plain).outcome, Outcome::refused);
  EXPECT_EQ(t.check_save("a.txt", "bob", SaveIntent::merge_checkin).outcome,
            Outcome::proceed_merge);
}

TEST(LockTable, TransferOnlyByTheHolder) {
  LockTable t;
  EXPECT_TRUE(t.transfer("a.txt", "alice", "bob"));  // nothing to transfer
  t.toggle("a.txt", "alice");
  t.acquire("a.txt", "bob");
  EXPECT_TRUE(t.transfer("a.txt", "carol", "bob")->find("alice holds it") != std::string::npos);
  EXPECT_EQ(t.transfer("a.txt", "alice", "bob"), std::nullopt);
  EXPECT_EQ(t.status("a.txt").holder, "bob");
  EXPECT_EQ(t.status("a.txt").queued, 0u);  // bob left the queue by receiving the lock
}

TEST(LockTable, StrandedLocksAreDroppedByPolicy) {
  LockTable t;
  t.toggle("keep.cpp", "alice");
  t.toggle("drop.log", "bob");
  t.toggle("also.log", "alice");
  const auto dropped = t.drop_stranded([](std::string_view p) { return !p.ends_with(".log"); });
  EXPECT_EQ(dropped, (std::vector<std::string>{"also.log", "drop.log"}));
  EXPECT_EQ(t.locks().size(), 1u);
  EXPECT_EQ(t.status("keep.cpp").holder, "alice");
}

TEST(LockTable, RenameCarriesHolderQueueAndDirtyFlag) {
  LockTable t;
  t.acquire("a.txt", "alice");
  t.acquire("a.txt", "bob");
  t.mark_dirty("a.txt", true);
  t.rename("a.txt", "sub/b.txt");
  EXPECT_FALSE(t.status("a.txt").holder);
  EXPECT_FALSE(t.is_dirty("a.txt"));
  const LockStatus moved = t.status("sub/b.txt");
  EXPECT_EQ(moved.holder, "alice");
  EXPECT_EQ(moved.queued, 1u);
  EXPECT_TRUE(moved.dirty);
  // An unlocked, clean file leaves nothing behind at either path.
  t.rename("c.txt", "d.txt");
  EXPECT_EQ(t.locks().size(), 1u);
}

}  // namespace
}  // namespace kst

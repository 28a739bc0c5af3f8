// The lock check guards every write of a file, not only saves: tombstone, move,
// restore and raw operations are refused over another seat's lock and change nothing; a lock
// follows its file when it moves; and a lock taken by another process can never land between a
// write's check and the write itself.
#include <gtest/gtest.h>

#include <chrono>
#include <future>
#include <nlohmann/json.hpp>
#include <sstream>

#include "lang/session.hpp"
#include "platform/durable_file.hpp"
#include "vfs/checkout_journal.hpp"
#include "vfs/enroll.hpp"
#include "vfs/file_families.hpp"
#include "vfs/history_families.hpp"
#include "vfs/save_path.hpp"
#include "vfs/seat_locks.hpp"
#include "vfs/test_home.hpp"

namespace kx::vfs {
namespace {

namespace fs = std::filesystem;
using kst::testing::read_file;
using kst::testing::write_file;

// One kx process: every file-store family over one store set, as the program has them.
struct Process {
  explicit Process(const fs::path& work) {
    stores = register_file_families(registry, false);
    stores->set_report(quiet);
    register_lock_and_history_families(registry, stores);
    std::ostringstream progress;
    enrolled = kst::enroll(*stores, work.string(), work, progress);
    session = std::make_unique<lang::Session>(registry);
    session->cwd = work;
  }
  std::string run(const std::string& seat, std::string_view family, std::string_view verb,
                  std::string_view args = "") {
    session->bot_id = seat;
    const lang::Family* f = registry.find_family(family);
    if (f == nullptr) return "no family";
    const lang::Verb* v = lang::find_verb(*f, verb);
    return v != nullptr ? v->run(*session, args) : f->unknown_verb(verb);
  }
  kst::Store& store() { return *stores->active(); }

  std::ostringstream quiet;
  lang::Registry registry;
  std::shared_ptr<kst::StoreSet> stores;
  std::unique_ptr<lang::Session> session;
  std::string enrolled;
};

class WriteLocks : public kst::testing::TempHome {
 protected:
  void SetUp() override {
    TempHome::SetUp();
    write_file(project / "a.txt", "one\n");
    write_file(project / "src/b.txt", "bee\n");
    process = std::make_unique<Process>(project);
    ASSERT_TRUE(process->enrolled.starts_with("OK: enrolled")) << process->enrolled;
  }
  void TearDown() override {
    process.reset();
    TempHome::TearDown();
  }
  std::string run(const std::string& seat, std::string_view family, std::string_view verb,
                  std::string_view args = "") {
    return process->run(seat, family, verb, args);
  }
  std::string edits() { return read_file(process->store().edit_log_file()); }
  std::string journal() { return read_file(home / "checkouts.jsonl"); }

  std::unique_ptr<Process> process;
};

TEST_F(WriteLocks, TombstoneMoveAndRestoreOverAnotherSeatsLockChangeNothing) {
  ASSERT_EQ(run("alice", "fslock", "toggle", "a.txt"), "OK: locked a.txt");
  const std::string log = edits(), held = journal();
  const fs::path mirror = process->store().mirror_root();

  EXPECT_EQ(run("bob", "fs", "rm", "a.txt"), "ERROR: file is locked (alice)");
  EXPECT_EQ(read_file(project / "a.txt"), "one\n");
  EXPECT_FALSE(fs::exists(mirror / "a.txt.tombstone"));
  EXPECT_EQ(run("bob", "fs", "cat", "a.txt"), "one\n");

  EXPECT_EQ(run("bob", "fs", "move", "a.txt c.txt"), "ERROR: file is locked (alice)");
  EXPECT_TRUE(fs::exists(project / "a.txt"));
  EXPECT_FALSE(fs::exists(project / "c.txt"));
  EXPECT_EQ(run("bob", "fsstat", "exists", "c.txt"), "OK: no  (c.txt not found)");

  EXPECT_EQ(edits(), log);
  EXPECT_EQ(journal(), held);
  EXPECT_EQ(run("bob", "fslock", "status", "a.txt"), "OK: a.txt  LOCKED by alice");

  // Raw operations bypass versioning, not locks.
  EXPECT_EQ(run("bob", "fsraw", "remove", "a.txt"), "ERROR: file is locked (alice)");
  EXPECT_EQ(run("bob", "fsraw", "move", "a.txt c.txt"), "ERROR: file is locked (alice)");
  EXPECT_EQ(run("bob", "fsraw", "copy", "src/b.txt a.txt"), "ERROR: file is locked (alice)");
  EXPECT_EQ(read_file(project / "a.txt"), "one\n");
  EXPECT_EQ(run("bob", "fs", "cat", "a.txt"), "one\n");

  // The holder may tombstone her file; nobody else may bring it back.
  EXPECT_TRUE(run("alice", "fs", "rm", "a.txt").starts_with("OK: tombstoned a.txt"));
  EXPECT_EQ(run("bob", "fs", "restore", "a.txt"), "ERROR: file is locked (alice)");
  EXPECT_FALSE(fs::exists(project / "a.txt"));
  EXPECT_TRUE(fs::exists(mirror / "a.txt.tombstone"));
  EXPECT_EQ(run("alice", "fs", "restore", "a.txt"), "OK: restored a.txt");
  EXPECT_EQ(read_file(project / "a.txt"), "one\n");
}

TEST_F(WriteLocks, ADirtyFileCannotBeMovedOrTombstonedBeforeTheMerge) {
  ASSERT_EQ(run("alice", "fsvctl", "checkout", "src/b.txt"), "OK: checked out src/b.txt");
  ASSERT_TRUE(run("bob", "fsvctl", "checkin",
                  "<path>src/b.txt</path><content><![CDATA[bob]]></content><dirty>true</dirty>")
                  .starts_with("OK: checked in src/b.txt — dirty check-in over alice's lock"));
  const std::string merge = "merge required (file was flagged dirty by an earlier op)";
  EXPECT_EQ(run("alice", "fs", "move", "src/b.txt src/c.txt"), "ERROR: " + merge);
  EXPECT_EQ(run("alice", "fs", "rm", "src/b.txt"), "ERROR: " + merge);
  EXPECT_TRUE(fs::exists(project / "src/b.txt"));
  EXPECT_EQ(run("carol", "fslock", "status", "src/b.txt"),
            "OK: src/b.txt  LOCKED by alice  [merge required]");
}

TEST_F(WriteLocks, ALockFollowsItsFileThroughAMove) {
  ASSERT_EQ(run("alice", "fsvctl", "checkout", "a.txt"), "OK: checked out a.txt");
  ASSERT_TRUE(run("bob", "fslock", "toggle", "a.txt").starts_with("ERROR: file is locked"));
  EXPECT_EQ(run("alice", "fs", "move", "a.txt docs/moved.txt"),
            "OK: moved a.txt -> docs/moved.txt (history followed)");
  EXPECT_EQ(run("carol", "fslock", "status", "docs/moved.txt"),
            "OK: docs/moved.txt  LOCKED by alice  (queued: 1)");
  EXPECT_EQ(run("carol", "fslock", "status", "src/b.txt"), "OK: src/b.txt  unlocked");
  EXPECT_EQ(run("bob", "fs", "rm", "docs/moved.txt"), "ERROR: file is locked (alice)");

  const std::string held = journal();
  const std::string moved = process->store().disk_path("docs/moved.txt").string();
  const std::string old = process->store().disk_path("a.txt").string();
  EXPECT_NE(held.find(nlohmann::json(moved).dump()), std::string::npos) << held << moved;
  EXPECT_EQ(held.find(nlohmann::json(old).dump()), std::string::npos) << held << old;

  // Another process, and a restart, find the lock at the new path.
  Process other(project);
  EXPECT_EQ(other.run("bob", "fslock", "status", "docs/moved.txt"),
            "OK: docs/moved.txt  LOCKED by alice");
  process.reset();
  process = std::make_unique<Process>(project);
  EXPECT_EQ(run("bob", "fsmk", "file", "docs/moved.txt"), "ERROR: file is locked (alice)");
  EXPECT_TRUE(run("alice", "fsvctl", "checkin", "<path>docs/moved.txt</path>")
                  .starts_with("OK: checked in docs/moved.txt"));
  EXPECT_EQ(journal(), "");
}

// Stands in for another kx process holding the store's cross-process lock.
struct HeldStoreLock {
  explicit HeldStoreLock(const kst::Store& store) {
    fs::create_directories(store.machinery_dir());
    lock = std::make_unique<platform::FileLock>(store.machinery_dir() / "store.lock");
  }
  std::unique_ptr<platform::FileLock> lock;
};

TEST_F(WriteLocks, ALockTakenWhileASaveWaitsForTheStoreIsSeenByThatSave) {
  kst::Store& store = process->store();
  HeldStoreLock other(store);
  auto save = std::async(std::launch::async, [&] {
    return process->run("bob", "fsmk", "file", "a.txt <content><![CDATA[bob]]></content>");
  });
  // The save is parked on store.lock; the other process checks a.txt out meanwhile.
  EXPECT_EQ(save.wait_for(std::chrono::milliseconds(200)), std::future_status::timeout);
  kst::CheckoutJournal(home / "checkouts.jsonl")
      .append({"alice", (project / "a.txt").string(), kst::now_seconds()});
  other.lock.reset();
  EXPECT_EQ(save.get(), "ERROR: file is locked (alice)");
  EXPECT_EQ(read_file(project / "a.txt"), "one\n");
}

TEST_F(WriteLocks, LockVerbsWaitForAWriteInAnotherProcess) {
  Process other(project);
  HeldStoreLock writing(process->store());
  auto take = std::async(std::launch::async,
                         [&] { return other.run("alice", "fslock", "toggle", "a.txt"); });
  EXPECT_EQ(take.wait_for(std::chrono::milliseconds(200)), std::future_status::timeout);
  EXPECT_EQ(journal(), "");
  writing.lock.reset();
  EXPECT_EQ(take.get(), "OK: locked a.txt");
  EXPECT_EQ(run("bob", "fslock", "status", "a.txt"), "OK: a.txt  LOCKED by alice");
}

}  // namespace
}  // namespace kx::vfs

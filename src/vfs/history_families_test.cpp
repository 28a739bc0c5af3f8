#include "vfs/history_families.hpp"

#include <gtest/gtest.h>

#include <fstream>
#include <sstream>

#include "lang/session.hpp"
#include "vfs/enroll.hpp"
#include "vfs/save_path.hpp"

namespace kx::vfs {
namespace {

namespace fs = std::filesystem;

std::string read_file(const fs::path& path) {
  std::ifstream in(path, std::ios::binary);
  std::stringstream s;
  s << in.rdbuf();
  return s.str();
}

void write_file(const fs::path& path, const std::string& text) {
  fs::create_directories(path.parent_path());
  std::ofstream(path, std::ios::binary) << text;
}

// One "program": a store set over a temporary home, the two families, a session.
struct Program {
  Program(const fs::path& home, const fs::path& work, const std::string& flags = "") {
    stores = std::make_shared<kst::StoreSet>(home);
    stores->set_report(quiet);
    register_lock_and_history_families(registry, stores);
    std::ostringstream progress;
    enrolled = kst::enroll(*stores, work.string() + flags, work, progress);
    session = std::make_unique<lang::Session>(registry);
    session->cwd = work;
  }

  std::string run(const std::string& seat, std::string_view line) {
    const std::size_t colon = line.find(':');
    const std::size_t space = line.find(' ', colon);
    const std::string family(line.substr(0, colon));
    const std::string verb(line.substr(
        colon + 1, space == std::string_view::npos ? std::string_view::npos : space - colon - 1));
    const std::string_view args = space == std::string_view::npos ? "" : line.substr(space + 1);
    const lang::Family* f = registry.find_family(family);
    if (f == nullptr) return "no family " + family;
    session->bot_id = seat;
    if (const lang::Verb* v = lang::find_verb(*f, verb)) return v->run(*session, args);
    return f->unknown_verb(verb);
  }

  // A plain save through the one save path, as every file command makes it.
  kst::SaveResult save(const std::string& seat, const std::string& path, const std::string& text) {
    kst::SaveRequest request;
    request.seat = seat;
    return kst::save_file(*stores->active(), path, text, request, quiet);
  }

  std::uint32_t version(const std::string& path) {
    return stores->active()->find_file(path)->current;
  }

  std::ostringstream quiet;
  lang::Registry registry;
  std::shared_ptr<kst::StoreSet> stores;
  std::unique_ptr<lang::Session> session;
  std::string enrolled;
};

class HistoryFamiliesTest : public ::testing::Test {
 protected:
  void SetUp() override {
    root_ = fs::temp_directory_path() /
            ("kx-history-" +
             std::string(::testing::UnitTest::GetInstance()->current_test_info()->name()));
    fs::remove_all(root_);
    home_ = root_ / "home";
    work_ = root_ / "work";
    write_file(work_ / "a.txt", "one\n");
    write_file(work_ / "src" / "b.txt", "bee\n");
    program_ = std::make_unique<Program>(home_, work_);
    ASSERT_TRUE(program_->enrolled.starts_with("OK: enrolled")) << program_->enrolled;
  }
  void TearDown() override {
    program_.reset();
    fs::remove_all(root_);
  }
  std::string run(const std::string& seat, std::string_view line) {
    return program_->run(seat, line);
  }
  // Starts the program again over the same home and tree.
  void restart() {
    program_.reset();
    program_ = std::make_unique<Program>(home_, work_);
  }

  fs::path root_, home_, work_;
  std::unique_ptr<Program> program_;
};

std::string checkin(const std::string& path, const std::string& text, bool dirty = false) {
  return "fsvctl:checkin <path>" + path + "</path><content><![CDATA[" + text + "]]></content>" +
         (dirty ? "<dirty>true</dirty>" : "");
}

TEST_F(HistoryFamiliesTest, LockStatusTextsAndToggleFlips) {
  EXPECT_EQ(run("alice", "fslock:status a.txt"), "OK: a.txt  unlocked");
  EXPECT_EQ(run("alice", "fslock:lock a.txt"), "OK: locked a.txt");
  EXPECT_EQ(run("bob", "fslock:who a.txt"), "OK: a.txt  LOCKED by alice");
  EXPECT_EQ(run("alice", "fslock:lock a.txt"), "OK: unlocked a.txt");  // lock is a plain toggle
  // unlock only ever releases, and only the holder's lock.
  EXPECT_EQ(run("alice", "fslock:unlock a.txt"), "OK: a.txt was not locked");
  EXPECT_EQ(run("alice", "fslock:status a.txt"), "OK: a.txt  unlocked");
  EXPECT_EQ(run("alice", "fslock:lock a.txt"), "OK: locked a.txt");
  EXPECT_EQ(run("bob", "fslock:unlock a.txt"),
            "ERROR: a.txt is locked by alice — only the holder unlocks it (the holder can hand it "
            "on with fslock:transfer)");
  EXPECT_EQ(run("alice", "fslock:release a.txt"), "OK: unlocked a.txt");
  EXPECT_EQ(run("alice", "fslock:status"), "ERROR: usage  fslock:status <path>");
  EXPECT_EQ(run("alice", "fslock:status nothere.txt"), "ERROR: no such node: nothere.txt");
  EXPECT_EQ(run("alice", "fslock:grab a.txt"),
            "ERROR: unknown fslock op 'grab' (status|toggle|unlock|transfer)");
}

TEST_F(HistoryFamiliesTest, RefusedSaveChangesNeitherFileNorLocks) {
  run("alice", "fslock:toggle a.txt");
  const kst::SaveResult refused = program_->save("bob", "a.txt", "bob's text\n");
  EXPECT_FALSE(refused.ok);
  EXPECT_EQ(refused.message, "file is locked (alice)");
  EXPECT_EQ(run("bob", checkin("a.txt", "bob again\n")), "ERROR: file is locked (alice)");
  EXPECT_EQ(program_->version("a.txt"), 1u);
  EXPECT_EQ(read_file(work_ / "a.txt"), "one\n");
  EXPECT_EQ(run("bob", "fslock:status a.txt"), "OK: a.txt  LOCKED by alice");
  // The holder saves as usual.
  EXPECT_TRUE(program_->save("alice", "a.txt", "two\n").ok);
  EXPECT_EQ(program_->version("a.txt"), 2u);
}

TEST_F(HistoryFamiliesTest, QueuedSeatGetsTheLockWhenReleased) {
  run("alice", "fslock:toggle a.txt");
  EXPECT_TRUE(run("bob", "fslock:toggle a.txt").starts_with("ERROR: file is locked (alice)"));
  EXPECT_EQ(run("carol", "fslock:status a.txt"), "OK: a.txt  LOCKED by alice  (queued: 1)");
  EXPECT_EQ(run("alice", "fslock:toggle a.txt"),
            "OK: unlocked a.txt\n  lock passed to bob (next in queue)");
  EXPECT_EQ(run("carol", "fslock:status a.txt"), "OK: a.txt  LOCKED by bob");
  EXPECT_EQ(run("bob", "fslock:transfer a.txt carol"), "OK: transferred lock on a.txt to carol");
  EXPECT_EQ(run("bob", "fslock:transfer <path>a.txt</path> <to>dave</to>").rfind("ERROR: ", 0), 0u);
  EXPECT_EQ(run("bob", "fslock:transfer a.txt"), "ERROR: usage  fslock:transfer <path> <toSeat>");
  EXPECT_EQ(run("carol", "fslock:status a.txt"), "OK: a.txt  LOCKED by carol");
}

TEST_F(HistoryFamiliesTest, DirtyCheckinKeepsBytesFlagsMergeAndHolderMergesIt) {
  run("alice", "fsvctl:checkout a.txt");
  const std::string dirty = run("bob", checkin("a.txt", "bob's urgent fix\n", true));
  EXPECT_TRUE(
      dirty.starts_with("OK: checked in a.txt — dirty check-in over alice's lock — merge "
                        "required (both parties)"))
      << dirty;
  EXPECT_EQ(program_->version("a.txt"), 2u);
  EXPECT_EQ(run("bob", "fsvctl:open <path>a.txt</path><version>2</version>"), "bob's urgent fix\n");
  EXPECT_EQ(run("alice", "fslock:status a.txt"), "OK: a.txt  LOCKED by alice  [merge required]");

  const std::string blocked = "merge required (file was flagged dirty by an earlier op)";
  EXPECT_EQ(program_->save("alice", "a.txt", "plain\n").message, blocked);
  EXPECT_EQ(run("alice", "fsvctl:revert <path>a.txt</path><version>1</version>"),
            "ERROR: " + blocked);
  EXPECT_EQ(run("bob", checkin("a.txt", "bob merges?\n")), "ERROR: file is locked (alice)");
  EXPECT_EQ(program_->version("a.txt"), 2u);

  const std::string merged = run("alice", checkin("a.txt", "one\nbob's urgent fix\n"));
  EXPECT_TRUE(merged.starts_with("OK: checked in a.txt — merge recorded, dirty flag cleared"))
      << merged;
  EXPECT_NE(merged.find("saved as v3"), std::string::npos);
  EXPECT_EQ(run("bob", "fslock:status a.txt"), "OK: a.txt  unlocked");
  EXPECT_TRUE(program_->save("bob", "a.txt", "after\n").ok);
}

TEST_F(HistoryFamiliesTest, CheckoutsAndDirtyFlagsSurviveARestart) {
  EXPECT_EQ(run("alice", "fsvctl:checkout a.txt"), "OK: checked out a.txt");
  run("carol", "fslock:toggle src/b.txt");
  run("bob", checkin("src/b.txt", "dirty\n", true));
  restart();
  EXPECT_EQ(run("bob", "fslock:status a.txt"), "OK: a.txt  LOCKED by alice");
  EXPECT_EQ(program_->save("bob", "a.txt", "x\n").message, "file is locked (alice)");
  EXPECT_EQ(run("bob", "fslock:status src/b.txt"),
            "OK: src/b.txt  LOCKED by carol  [merge required]");
  // A check-in ends the check-out, and that too outlives the process.
  // A check-out in a directory this process has not enrolled is kept as it is.
  const std::string foreign = "{\"leafId\":\"zed\",\"path\":\"/elsewhere/x.txt\",\"at\":7}\n";
  std::ofstream(home_ / "checkouts.jsonl", std::ios::binary | std::ios::app) << foreign;
  EXPECT_EQ(run("alice", "fsvctl:checkin a.txt"), "OK: checked in a.txt");
  restart();
  EXPECT_EQ(run("bob", "fslock:status a.txt"), "OK: a.txt  unlocked");
  EXPECT_NE(read_file(home_ / "checkouts.jsonl").find(foreign), std::string::npos);
}

TEST_F(HistoryFamiliesTest, TwoProcessesOnOneStoreSeeEachOthersLocksAndFlags) {
  Program other(home_, work_);  // a second kx process over the same home and tree
  EXPECT_EQ(run("alice", "fslock:toggle a.txt"), "OK: locked a.txt");
  EXPECT_EQ(other.run("bob", "fslock:status a.txt"), "OK: a.txt  LOCKED by alice");
  EXPECT_EQ(other.save("bob", "a.txt", "bob\n").message, "file is locked (alice)");
  EXPECT_TRUE(other.run("bob", checkin("a.txt", "bob's\n", true)).starts_with("OK: checked in"));
  EXPECT_EQ(run("alice", "fslock:status a.txt"), "OK: a.txt  LOCKED by alice  [merge required]");
  // The merge in this process clears the flag in the other; the release shows there too.
  EXPECT_TRUE(
      run("alice", checkin("a.txt", "merged\n")).starts_with("OK: checked in a.txt — merge"));
  EXPECT_EQ(other.run("bob", "fslock:status a.txt"), "OK: a.txt  unlocked");
  // Locks taken in both processes at once both stay in the journal.
  EXPECT_EQ(other.run("bob", "fslock:toggle a.txt"), "OK: locked a.txt");
  EXPECT_EQ(run("alice", "fslock:toggle src/b.txt"), "OK: locked src/b.txt");
  EXPECT_TRUE(run("alice", "fslock:toggle a.txt").starts_with("ERROR: file is locked (bob)"));
  EXPECT_EQ(other.run("bob", "fslock:toggle a.txt"), "OK: unlocked a.txt");
  restart();
  EXPECT_EQ(run("carol", "fslock:status a.txt"), "OK: a.txt  unlocked");
  EXPECT_EQ(run("carol", "fslock:status src/b.txt"), "OK: src/b.txt  LOCKED by alice");
}

TEST_F(HistoryFamiliesTest, StoresOutlivingTheLockLayerSaveWithoutIt) {
  run("alice", "fslock:toggle a.txt");
  std::shared_ptr<kst::StoreSet> stores = program_->stores;
  program_.reset();  // the families and their lock layer are gone; the stores are not
  std::ostringstream quiet;
  kst::SaveRequest request;
  request.seat = "bob";
  EXPECT_TRUE(kst::save_file(*stores->active(), "a.txt", "bob\n", request, quiet).ok);
  program_ = std::make_unique<Program>(home_, work_);
}

TEST_F(HistoryFamiliesTest, RevertIsANewVersionAndAMissingVersionChangesNothing) {
  run("cli", checkin("a.txt", "two\n"));
  run("cli", checkin("a.txt", "three\n"));
  const std::string reverted = run("cli", "fsvctl:revert <path>a.txt</path><version>1</version>");
  EXPECT_TRUE(
      reverted.starts_with("OK: reverted a.txt to v1 (now v4)\n  [version control: "
                           "automatic] a.txt saved as v4"))
      << reverted;
  EXPECT_EQ(read_file(work_ / "a.txt"), "one\n");
  EXPECT_EQ(run("cli", "fsvctl:revert <path>a.txt</path><version>9</version>"),
            "ERROR: no such version");
  EXPECT_EQ(program_->version("a.txt"), 4u);
  EXPECT_TRUE(run("cli", "fsvctl:log a.txt").starts_with("LOG a.txt  (4 versions)\n"));
}

TEST_F(HistoryFamiliesTest, DiffBetweenVersionsAndItsErrors) {
  run("cli", checkin("a.txt", "one\ntwo\n"));
  EXPECT_EQ(run("cli", "fsvctl:diff <path>a.txt</path><a>1</a>"),
            "=== FILE DIFF ===\nFILE1: a.txt  (v1)\nFILE2: a.txt  (v2)\n"
            "legend: [ ] same   [-] only in FILE1   [+] only in FILE2\n---\n"
            "[ ] one\n[+] two\n=== END DIFF ===\n");
  EXPECT_NE(run("cli", "fsvctl:diff a.txt 2 1").find("[-] two\n"), std::string::npos);
  EXPECT_EQ(run("cli", "fsvctl:diff <path>a.txt</path><a>7</a>"),
            "ERROR: no v7 of a.txt (fsvctl:log shows the chain)");
  EXPECT_EQ(run("cli", "fsvctl:diff <path>a.txt</path>"),
            "ERROR: usage  fsvctl:diff <path>x</path><a>N</a>[<b>M</b>]   (version numbers; "
            "fsvctl:log shows the chain)");
}

TEST_F(HistoryFamiliesTest, LogOpenAndTimelineReachEveryVersion) {
  for (int i = 2; i <= 70; ++i) run("bot7", checkin("a.txt", "v" + std::to_string(i) + "\n"));
  // Past the 64 held in RAM, the oldest versions come from their archive files.
  EXPECT_EQ(run("cli", "fsvctl:open <path>a.txt</path><version>1</version>"), "one\n");
  EXPECT_EQ(run("cli", "fsvctl:read <path>a.txt</path><version>3</version>"), "v3\n");
  EXPECT_EQ(run("cli", "fsvctl:open <path>a.txt</path><version>71</version>"),
            "ERROR: no such version");
  const std::string log = run("cli", "fsvctl:log a.txt");
  EXPECT_TRUE(log.starts_with("LOG a.txt  (70 versions)\n  v1  ")) << log.substr(0, 200);
  EXPECT_NE(log.find("\n  v70  "), std::string::npos);
  EXPECT_NE(log.find("  checkin by bot7  [current]\n"), std::string::npos);
  const std::string timeline = run("cli", "fsvctl:timeline a.txt");
  EXPECT_TRUE(timeline.starts_with("TIMELINE a.txt\n  "));
  EXPECT_LT(timeline.find("v69 -> v70"), timeline.find("v68 -> v69"));  // newest first
  EXPECT_EQ(run("cli", "fsvctl:timeline src/b.txt"), "TIMELINE src/b.txt\n(no recorded history)\n");
  EXPECT_TRUE(run("cli", "fsvctl:timeline").starts_with("TIMELINE (store)\n"));
  EXPECT_EQ(run("cli", "fsvctl:log nothere.txt"), "ERROR: no such file: nothere.txt");
  EXPECT_EQ(run("cli", "fsvctl:bisect a.txt"),
            "ERROR: unknown fsvctl function 'bisect' "
            "(checkout|checkin|revert|diff|log|open|timeline|emit)");
}

TEST_F(HistoryFamiliesTest, EmitsWaitForAHumanAndWriteOut) {
  run("cli", checkin("a.txt", "two\n"));
  EXPECT_EQ(run("bot1", "fsvctl:emit"),
            "PENDING #1 — a human must approve it in the panel and choose the target (A = over "
            "current files, B = to a new path). Writes are human-only.");
  EXPECT_TRUE(
      run("bot1", "fsvctl:emitlist").starts_with("PENDING-EMITS 1\n  #1  (store)  (latest)"));
  EXPECT_EQ(run("bot1", "fsvctl:emitcommit 1 <mode>A</mode>"),
            "ERROR: emit approval is human-only (via the panel) — a bot cannot self-approve");
  // The human seat from a pipe (an agent running kx) is refused as well.
  EXPECT_EQ(run("cli", "fsvctl:emitcommit 1 <mode>A</mode>"),
            "ERROR: emit approval needs a person at the console or the UI — run this from kx on "
            "a terminal, or approve it in the UI (kx gui)");
  program_->session->person_present = true;
  EXPECT_EQ(run("cli", "fsvctl:emitcommit 1"),
            "ERROR: choose a target — <mode>A</mode> (over current files) or <mode>B</mode> (to a "
            "new path)");
  EXPECT_EQ(run("cli", "fsvctl:emitcommit 1 <mode>B</mode>"),
            "ERROR: mode B needs a destination path");
  EXPECT_EQ(run("cli", "fsvctl:emitcommit 5 <mode>A</mode>"), "ERROR: no pending emit #5");

  const fs::path out = root_ / "out";
  write_file(out / "src" / "b.txt", "bee\n");  // already as it was: unchanged
  const std::string approved =
      run("cli", "fsvctl:emitcommit 1 <mode>B</mode><dest>" + out.string() + "</dest>");
  EXPECT_TRUE(approved.starts_with("APPROVED: emit #1  (store)  (latest)  mode B (write-out to "))
      << approved;
  EXPECT_TRUE(approved.ends_with(": 1 written, 1 unchanged, 0 deleted, 0 not-yet-existing skipped"))
      << approved;
  EXPECT_EQ(read_file(out / "a.txt"), "two\n");
  EXPECT_EQ(run("cli", "fsvctl:emitlist"), "PENDING-EMITS 0");

  // As of a time before the store's recorded saves: a.txt was still v1, and a file
  // created later did not exist yet.
  run("cli", checkin("new.txt", "fresh\n"));
  const std::string second = run("bot1", "fsvctl:emit <asof>1000000000</asof>");
  EXPECT_TRUE(second.starts_with("PENDING #2")) << second;
  const std::string restored = run("cli", "fsvctl:emitcommit 2 <mode>A</mode>");
  EXPECT_TRUE(restored.ends_with(": 1 written, 1 unchanged, 0 deleted, 1 not-yet-existing skipped"))
      << restored;
  EXPECT_EQ(read_file(work_ / "a.txt"), "one\n");
  EXPECT_EQ(program_->version("a.txt"), 3u);  // restoring is a new version too
  EXPECT_TRUE(run("bot1", "fsvctl:emit latest").starts_with("PENDING #3 — "));
  EXPECT_NE(run("cli", "fsvctl:emitlist").find("\n  #3  (store)  (latest)  requested by bot1 at "),
            std::string::npos);
  // A time of day given as its own word is kept with its date.
  EXPECT_TRUE(run("bot1", "fsvctl:emit src 2026-01-31 18:05:09").starts_with("PENDING #4"));
  EXPECT_NE(run("cli", "fsvctl:emitlist").find("#4  src  as-of 2026-01-31 18:05:09"),
            std::string::npos);
  EXPECT_EQ(run("bot1", "fsvctl:emit src yesterday"),
            "ERROR: bad time 'yesterday' — give <asof>YYYY-MM-DD HH:MM:SS</asof>, a date, seconds "
            "since the epoch, or latest");
  EXPECT_EQ(run("bot2", "fsvctl:emitcancel 3").rfind("ERROR: emit #3 was requested by bot1", 0),
            0u);
  EXPECT_EQ(run("bot1", "fsvctl:emitcancel 3"), "OK: cancelled emit #3");
  EXPECT_EQ(run("bot1", "fsvctl:emitcancel 3"), "ERROR: no pending emit #3");
}

TEST_F(HistoryFamiliesTest, TighterPolicyReconcilesStrandedLocks) {
  run("alice", "fslock:toggle a.txt");
  run("alice", "fslock:toggle src/b.txt");
  std::ostringstream progress;
  const std::string changed =
      kst::change_policy(*program_->stores, work_.string() + " ext=only:.md", work_, progress);
  EXPECT_NE(changed.find("\n  2 locked file(s) no longer policy-admitted; CheckIn them before "
                         "tightening policy"),
            std::string::npos)
      << changed;
  const std::string timeline = run("cli", "fsvctl:timeline");
  EXPECT_NE(timeline.find("reconcile-stranded-lock  a.txt"), std::string::npos) << timeline;
  EXPECT_EQ(read_file(home_ / "checkouts.jsonl"), "");
}

TEST(CacheWriteThrough, HistoryVerbsSayThereIsNoChain) {
  const fs::path root = fs::temp_directory_path() / "kx-history-cachewt";
  fs::remove_all(root);
  write_file(root / "work" / "a.txt", "one\n");
  {
    Program p(root / "home", root / "work", " mode=cachewt");
    ASSERT_TRUE(p.enrolled.starts_with("OK: cache write-through")) << p.enrolled;
    EXPECT_EQ(p.run("cli", checkin("a.txt", "two\n")),
              "OK: wrote through a.txt — cache write-through store (mode=cachewt), no version "
              "recorded");
    EXPECT_EQ(read_file(root / "work" / "a.txt"), "two\n");
    EXPECT_EQ(p.run("cli", "fsvctl:log a.txt"),
              "LOG a.txt  — cache write-through store (mode=cachewt): no version chain kept");
    EXPECT_EQ(p.run("cli", "fsvctl:revert <path>a.txt</path><version>1</version>"),
              "ERROR: a.txt is in a cache write-through store (mode=cachewt) — no version history "
              "to revert to");
    // A file the cache has not met yet gets the same answers, not "no such file".
    write_file(root / "work" / "later.txt", "l\n");
    EXPECT_EQ(p.run("cli", "fsvctl:log later.txt"),
              "LOG later.txt  — cache write-through store (mode=cachewt): no version chain kept");
    EXPECT_EQ(p.run("cli", "fsvctl:revert <path>later.txt</path><version>1</version>"),
              "ERROR: later.txt is in a cache write-through store (mode=cachewt) — no version "
              "history to revert to");
    EXPECT_EQ(p.run("cli", "fsvctl:open <path>later.txt</path><version>1</version>"),
              "ERROR: later.txt is in a cache write-through store (mode=cachewt) — no versions "
              "kept (fs:cat reads it)");
    EXPECT_EQ(p.run("cli", "fsvctl:log gone.txt"), "ERROR: no such file: gone.txt");
    // Locks hold in a cache write-through store as well.
    p.run("alice", "fslock:toggle a.txt");
    EXPECT_EQ(p.run("bob", checkin("a.txt", "three\n")), "ERROR: file is locked (alice)");
    EXPECT_EQ(read_file(root / "work" / "a.txt"), "two\n");
  }
  fs::remove_all(root);
}

}  // namespace
}  // namespace kx::vfs

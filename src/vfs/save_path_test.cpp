#include "vfs/save_path.hpp"

#include <gtest/gtest.h>

#include <set>
#include <sstream>
#include <thread>

#include "platform/durable_file.hpp"
#include "vfs/archive.hpp"
#include "vfs/edit_log.hpp"
#include "vfs/test_home.hpp"

namespace kst {
namespace {

namespace fs = std::filesystem;
using testing::read_file;
using testing::write_file;

class SavePath : public testing::TempHome {
 protected:
  Store& open(Policy policy = {}) {
    store = std::make_unique<Store>(project, home / ".versioncontrol" / "key", policy);
    std::string reason;
    EXPECT_TRUE(store->load(warnings, reason)) << reason;
    return *store;
  }
  SaveResult save(const std::string& path, const std::string& text) {
    return save_file(*store, path, text, SaveRequest{}, warnings);
  }
  fs::path mirror(const std::string& path) { return store->mirror_root() / path; }

  std::unique_ptr<Store> store;
  std::ostringstream warnings;
};

TEST_F(SavePath, FirstSaveOfAnEnrolledFileSeedsTheArchiveWithItsOriginalText) {
  write_file(project / "src/a.txt", "original");
  open();
  EXPECT_EQ(store->find_file("src/a.txt")->current, 1u);
  auto r = save("src/a.txt", "second");
  ASSERT_TRUE(r.ok) << r.message;
  EXPECT_EQ(r.version, 2u);
  EXPECT_EQ(read_file(project / "src/a.txt"), "second");
  EXPECT_EQ(read_file(mirror("src/a.txt")), "second");
  EXPECT_EQ(read_file(mirror("src/.a.txt.oldversions/a.txt.xx1")), "original");

  ASSERT_TRUE(save("src/a.txt", "third").ok);
  EXPECT_EQ(read_file(mirror("src/.a.txt.oldversions/a.txt.xx2")), "second");
  for (const fs::path& dir : {project / "src", mirror("src")})
    for (const auto& entry : fs::directory_iterator(dir))
      EXPECT_FALSE(entry.path().filename().string().ends_with(".tmp$")) << entry.path();
}

TEST_F(SavePath, ReloadContinuesTheChainWhereItStopped) {
  open();
  for (int i = 1; i <= 4; ++i) ASSERT_TRUE(save("a.txt", "v" + std::to_string(i)).ok);
  open();
  File* f = store->find_file("a.txt");
  ASSERT_NE(f, nullptr);
  EXPECT_EQ(f->current, 4u);
  EXPECT_EQ(f->text(), "v4");
  EXPECT_EQ(f->archived.size(), 3u);
  ASSERT_NE(f->text_of(2), nullptr);
  EXPECT_EQ(*f->text_of(2), "v2");
  EXPECT_EQ(save("a.txt", "v5").version, 5u);
}

TEST_F(SavePath, TheFirstFreeArchiveNameIsTakenWhenOneWasDeletedByHand) {
  open();
  for (int i = 1; i <= 4; ++i) ASSERT_TRUE(save("a.txt", "v" + std::to_string(i)).ok);
  fs::remove(mirror(".a.txt.oldversions/a.txt.xx2"));
  ASSERT_TRUE(save("a.txt", "v5").ok);
  EXPECT_EQ(read_file(mirror(".a.txt.oldversions/a.txt.xx2")), "v4");
}

TEST_F(SavePath, ArchiveListingIgnoresEntriesWithoutAVersionNumber) {
  fs::path dir = base / "arch";
  for (const char* name :
       {"a.txt.xx", "a.txt.xx0", "a.txt.xx3", "a.txt.xx1", "a.txt.xx2b", "b.txt.xx4", "a.txt.xx10"})
    write_file(dir / name, "x");
  auto list = list_archived(dir, "a.txt");
  ASSERT_EQ(list.size(), 3u);
  EXPECT_EQ(list[0].number, 1u);
  EXPECT_EQ(list[1].number, 3u);
  EXPECT_EQ(list[2].number, 10u);
  std::uint32_t n = 0;
  EXPECT_EQ(first_free_archive_name(dir, "a.txt", n), dir / "a.txt.xx2");
  EXPECT_EQ(n, 2u);
  EXPECT_EQ(archive_dir_of(fs::path("/m/src/a.txt")), fs::path("/m/src/.a.txt.oldversions"));
}

TEST_F(SavePath, TurnlogFilesGetNoMirrorAndNoArchive) {
  open();
  ASSERT_TRUE(save("turnlog-1.md", "one").ok);
  ASSERT_TRUE(save("turnlog-1.md", "two").ok);
  EXPECT_EQ(read_file(project / "turnlog-1.md"), "two");
  EXPECT_FALSE(fs::exists(mirror("turnlog-1.md")));
  EXPECT_FALSE(fs::exists(mirror(".turnlog-1.md.oldversions")));
  EXPECT_TRUE(store->find_file("turnlog-1.md")->archived.empty());
}

TEST_F(SavePath, ReservedNamesAndPolicyExclusionsWriteNothing) {
  std::string error;
  open(*parse_policy("ext=only:.md", error));
  auto r = save("a.txt.tmp$", "x");
  EXPECT_FALSE(r.ok);
  EXPECT_EQ(r.message,
            "reserved name: 'a.txt.tmp$' uses a machinery suffix (.tombstone / .tmp$ / "
            ".oldversions)");
  r = save("x.oldversions/in.md", "x");
  EXPECT_EQ(r.message,
            "reserved name: 'x.oldversions' uses a machinery suffix (.tombstone / .tmp$ / "
            ".oldversions)");
  r = save("main.cpp", "x");
  EXPECT_EQ(r.message,
            "excluded by version-control policy [ext=only:.md] — fsraw: writes it unversioned");
  EXPECT_TRUE(fs::is_empty(project));
  EXPECT_TRUE(save("notes.md", "ok").ok);
}

TEST_F(SavePath, ADirectoryIsNotAFile) {
  fs::create_directories(project / "sub");
  open();
  EXPECT_EQ(save("sub", "x").message, "not a file");
}

TEST_F(SavePath, AHistoryThatCannotBeWrittenFailsTheSaveAndChangesNothing) {
  open();
  ASSERT_TRUE(save("blocked/a.txt", "one").ok);
  // A plain file where the archive directory must go makes the archive step fail.
  write_file(mirror("blocked/.a.txt.oldversions"), "in the way");
  auto r = save("blocked/a.txt", "two");
  EXPECT_FALSE(r.ok);
  EXPECT_TRUE(r.message.starts_with("version history not written (vc archive mkdir failed: "))
      << r.message;
  EXPECT_TRUE(r.message.ends_with(") — nothing was saved")) << r.message;
  EXPECT_EQ(read_file(project / "blocked/a.txt"), "one");
  EXPECT_EQ(read_file(mirror("blocked/a.txt")), "one");
  EXPECT_EQ(store->find_file("blocked/a.txt")->current, 1u);
  // Nothing staged is left behind in either tree.
  for (const fs::path& dir : {project / "blocked", mirror("blocked")})
    for (const auto& entry : fs::directory_iterator(dir))
      EXPECT_FALSE(entry.path().filename().string().ends_with(".tmp$")) << entry.path();

  fs::remove(mirror("blocked/.a.txt.oldversions"));
  r = save("blocked/a.txt", "two");
  ASSERT_TRUE(r.ok) << r.message;
  EXPECT_EQ(r.version, 2u);
  EXPECT_EQ(read_file(mirror("blocked/.a.txt.oldversions/a.txt.xx1")), "one");
}

TEST_F(SavePath, AFirstSaveThatCannotMirrorLeavesNoFileBehind) {
  open();
  write_file(store->mirror_root() / "blocked", "in the way");
  auto r = save("blocked/new.txt", "text");
  EXPECT_FALSE(r.ok);
  EXPECT_TRUE(r.message.starts_with("version history not written (vc mkdirs failed: "));
  EXPECT_FALSE(fs::exists(project / "blocked/new.txt"));
  EXPECT_EQ(store->find_file("blocked/new.txt"), nullptr);
}

TEST_F(SavePath, NamesAreCappedWhereTheirHistoryStillFits) {
  open();
  const std::string longest(kMaxVersionedNameBytes, 'n');
  if (kx::platform::max_path_bytes() <
      2 * kMaxVersionedNameBytes + store->mirror_root().string().size() + 40) {
    // Where whole paths are short (Windows without long paths) the path limit speaks.
    auto r = save(longest, "v1");
    EXPECT_FALSE(r.ok);
    EXPECT_TRUE(r.message.starts_with("path too long: ")) << r.message;
    return;
  }
  for (int i = 1; i <= 3; ++i) ASSERT_TRUE(save(longest, "v" + std::to_string(i)).ok);
  EXPECT_EQ(store->find_file(longest)->archived.size(), 2u);
  auto r = save(longest + "x", "v1");
  EXPECT_FALSE(r.ok);
  EXPECT_NE(r.message.find("is 243 bytes; a versioned file's name holds at most 242 bytes"),
            std::string::npos)
      << r.message;
  // Without history the whole 255 bytes are usable.
  EXPECT_TRUE(save("turnlog-" + std::string(kMaxNameBytes - 8, 't'), "x").ok);
}

TEST_F(SavePath, APlantedLinkAtATemporaryNameIsNeverWrittenThrough) {
  const fs::path outside = home / "outside.txt";
  write_file(outside, "victim");
  open();
  ASSERT_TRUE(save("c.txt", "one").ok);
  std::error_code ec;
  fs::create_symlink(outside, project / "c.txt.tmp$", ec);
  if (ec) GTEST_SKIP() << "no symbolic links here: " << ec.message();
  ASSERT_TRUE(save("c.txt", "two").ok);
  EXPECT_EQ(read_file(outside), "victim");
  EXPECT_FALSE(fs::is_symlink(project / "c.txt"));
  EXPECT_EQ(read_file(project / "c.txt"), "two");
}

TEST_F(SavePath, LockHookRefusesBeforeAnythingIsWritten) {
  write_file(project / "a.txt", "mine");
  open();
  store->hooks.before_save = [](const Store&, const std::string&,
                                const SaveRequest& req) -> std::optional<std::string> {
    if (req.seat != "owner") return "file is locked (owner)";
    return std::nullopt;
  };
  std::vector<std::string> after;
  store->hooks.after_save = [&](Store&, const std::string& p, const SaveRequest&,
                                const SaveResult& r) {
    after.push_back(p + "@" + std::to_string(r.version));
  };
  auto r = save("a.txt", "theirs");
  EXPECT_EQ(r.message, "file is locked (owner)");
  EXPECT_EQ(read_file(project / "a.txt"), "mine");
  EXPECT_EQ(store->find_file("a.txt")->current, 1u);
  SaveRequest owner;
  owner.seat = "owner";
  EXPECT_TRUE(save_file(*store, "a.txt", "new", owner, warnings).ok);
  EXPECT_EQ(after, std::vector<std::string>{"a.txt@2"});
}

TEST_F(SavePath, EditLogRecordsCreateThenModify) {
  open();
  save("a.txt", "1");
  save("a.txt", "2");
  auto edits = read_edits(store->edit_log_file());
  ASSERT_EQ(edits.size(), 2u);
  EXPECT_EQ(edits[0].op, "create");
  EXPECT_EQ(edits[0].new_version, 1u);
  EXPECT_EQ(edits[1].op, "modify");
  EXPECT_EQ(edits[1].prev_version, 1u);
  EXPECT_EQ(edits[1].store, project.string());
  // A torn last line (a crash in the middle of an append) is skipped.
  std::ofstream(store->edit_log_file(), std::ios::app) << "{\"ts\":1,\"pa";
  EXPECT_EQ(read_edits(store->edit_log_file()).size(), 2u);
}

TEST_F(SavePath, ConcurrentSavesNeitherRaceTheNumberNorTheArchiveName) {
  open();
  constexpr int kThreads = 6, kEach = 20;
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t)
    threads.emplace_back([&, t] {
      std::ostringstream w;
      for (int i = 0; i < kEach; ++i)
        save_file(*store, "shared.txt", "t" + std::to_string(t) + "i" + std::to_string(i),
                  SaveRequest{}, w);
    });
  for (auto& th : threads) th.join();
  File* f = store->find_file("shared.txt");
  EXPECT_EQ(f->current, static_cast<std::uint32_t>(kThreads * kEach));
  auto archived = list_archived(archive_dir_of(mirror("shared.txt")), "shared.txt");
  ASSERT_EQ(archived.size(), static_cast<std::size_t>(kThreads * kEach - 1));
  std::set<std::string> texts;
  for (const auto& a : archived) texts.insert(read_file(a.path));
  texts.insert(read_file(mirror("shared.txt")));
  EXPECT_EQ(texts.size(), static_cast<std::size_t>(kThreads * kEach));  // no version lost
}

TEST_F(SavePath, LoadKeepsTheNewest64ArchivedVersionsInRamAndWarnsOnce) {
  write_file(project / "big.txt", "current");
  fs::path dir = home / ".versioncontrol" / "key" / ".big.txt.oldversions";
  for (int i = 1; i <= 65; ++i)
    write_file(dir / ("big.txt.xx" + std::to_string(i)), std::to_string(i));
  open();
  File* f = store->find_file("big.txt");
  EXPECT_EQ(f->current, 66u);
  EXPECT_EQ(f->archived.size(), 65u);
  EXPECT_EQ(f->text_of(1), nullptr);
  ASSERT_NE(f->text_of(2), nullptr);
  EXPECT_EQ(*f->text_of(65), "65");
  std::string w = warnings.str();
  std::string expected =
      "warning: 'big.txt' has 65 archived versions; loading the most recent 64 into RAM (older "
      "remain on disk)\n";
  EXPECT_NE(w.find(expected), std::string::npos);
  EXPECT_EQ(w.find(expected), w.rfind(expected));
  EXPECT_TRUE(fs::exists(dir / "big.txt.xx1"));
}

TEST_F(SavePath, LoadReadsEveryTextOfALargeTree) {
  // Enough files for the load to read on several threads.
  for (int i = 0; i < 700; ++i)
    write_file(project / ("d" + std::to_string(i % 7)) / ("f" + std::to_string(i)),
               std::string(static_cast<std::size_t>(i), 'x') + std::to_string(i));
  open();
  ASSERT_TRUE(save("d0/f0", "second").ok);
  fs::remove(project / "d1/f1");
  write_file(mirror("d1/f1.tombstone"), "tombstoned v1 by cli at 0\n");
  write_file(mirror("d1/f1"), "last words");
  open();
  ASSERT_EQ(store->files().size(), 700u);
  for (int i = 2; i < 700; ++i) {
    File* f = store->find_file("d" + std::to_string(i % 7) + "/f" + std::to_string(i));
    ASSERT_NE(f, nullptr) << i;
    EXPECT_EQ(f->text(), std::string(static_cast<std::size_t>(i), 'x') + std::to_string(i));
  }
  EXPECT_EQ(store->find_file("d0/f0")->text(), "second");
  EXPECT_EQ(*store->find_file("d0/f0")->text_of(1), "0");
  EXPECT_TRUE(store->find_file("d1/f1")->tombstoned);
  EXPECT_EQ(store->find_file("d1/f1")->text(), "last words");
}

TEST_F(SavePath, LoadingWithoutADiskRootFails) {
  Store empty("", home / ".versioncontrol" / "x", Policy{});
  std::string reason;
  EXPECT_FALSE(empty.load(warnings, reason));
  EXPECT_EQ(reason, "no disk root (enroll a directory, or setRelativePath/setDiskRoot)");
}

}  // namespace
}  // namespace kst

#include "vfs/file_families.hpp"

#include <gtest/gtest.h>

#include <sstream>

#include "lang/session.hpp"
#include "vfs/free_memory.hpp"
#include "vfs/test_home.hpp"

namespace kx::vfs {
namespace {

namespace fs = std::filesystem;
using kst::testing::read_file;
using kst::testing::write_file;

// Drives the families the way the interpreter does: family, verb, argument text.
class FileFamilies : public kst::testing::TempHome {
 protected:
  void SetUp() override {
    TempHome::SetUp();
    start();
  }
  // A fresh process: new registry, new store set, re-enrollment from the config.
  void start() {
    report.str("");  // what this start reported, alone
    registry = std::make_unique<lang::Registry>();
    stores = register_file_families(*registry, false);
    stores->set_report(report);
    watches = register_file_watches(*registry, stores, false);
    reenroll_from_config(*stores, report);
    watches->resume(report);
    session = std::make_unique<lang::Session>(*registry);
    session->cwd = base;
  }
  std::string run(std::string_view family, std::string_view verb, std::string_view args = "") {
    const lang::Family* f = registry->find_family(family);
    if (f == nullptr) return "no family";
    const lang::Verb* v = lang::find_verb(*f, verb);
    if (v == nullptr) return f->unknown_verb(verb);
    return v->run(*session, args);
  }
  std::string enroll(std::string_view args) {
    return registry->find_plain_verb("enroll")->run(*session, args);
  }
  fs::path mirror_root() { return stores->active()->mirror_root(); }

  std::unique_ptr<lang::Registry> registry;
  std::shared_ptr<kst::StoreSet> stores;
  std::shared_ptr<kst::FileWatches> watches;
  std::unique_ptr<lang::Session> session;
  std::ostringstream report;
};

TEST_F(FileFamilies, CreateReadTombstoneRestoreAcrossProcesses) {
  ASSERT_TRUE(enroll("proj").starts_with("OK: enrolled " + project.string() + " — 0 file(s)"));
  std::string created = run("fsmk", "file", "src/a.txt <content><![CDATA[hello]]></content>");
  EXPECT_EQ(created,
            "OK: created file src/a.txt\n  [version control: automatic] src/a.txt saved as v1 — "
            "history: 'Kestrune history src/a.txt'; undo: 'fs:rm src/a.txt' (history kept)");
  start();
  EXPECT_EQ(report.str(), "");  // the enroll verb answered already; nothing changed since
  EXPECT_EQ(run("fs", "cat", "a.txt"), "hello");
  EXPECT_EQ(run("fs", "rm", "a.txt"), "OK: tombstoned src/a.txt (append-only; fs:restore to undo)");
  EXPECT_FALSE(fs::exists(project / "src/a.txt"));
  EXPECT_TRUE(fs::exists(mirror_root() / "src/a.txt.tombstone"));
  start();
  EXPECT_EQ(run("fs", "read", "src/a.txt"),
            "ERROR: file tombstoned: src/a.txt (fs:restore to bring it back)");
  EXPECT_EQ(run("fsstat", "paths"), "OK: 1 file(s) in " + project.string() +
                                        "  (f = file, t = tombstoned)\n  t  v1\tsrc/a.txt\n");
  EXPECT_EQ(run("fs", "undelete", "<path>src/a.txt</path>"), "OK: restored src/a.txt");
  EXPECT_EQ(read_file(project / "src/a.txt"), "hello");
  EXPECT_FALSE(fs::exists(mirror_root() / "src/a.txt.tombstone"));
  auto history = run("fsstat", "history");
  EXPECT_TRUE(history.starts_with("{\"ts\":")) << history;
  EXPECT_NE(history.find("\"op\":\"restore\""), std::string::npos);
  EXPECT_LT(history.find("\"op\":\"restore\""), history.find("\"op\":\"tombstone\""));
}

TEST_F(FileFamilies, MoveCarriesTheWholeChain) {
  enroll("proj");
  run("fsmk", "file", "a.txt <content>one</content>");
  run("fsmk", "file", "a.txt <content>two</content>");
  EXPECT_EQ(run("fs", "move", "a.txt docs/b.txt"),
            "OK: moved a.txt -> docs/b.txt (history followed)");
  EXPECT_EQ(read_file(project / "docs/b.txt"), "two");
  EXPECT_EQ(read_file(mirror_root() / "docs/.b.txt.oldversions/b.txt.xx1"), "one");
  EXPECT_FALSE(fs::exists(mirror_root() / ".a.txt.oldversions"));
  start();
  EXPECT_EQ(run("fsstat", "version", "docs/b.txt"), "OK: 2");
  EXPECT_EQ(run("fs", "mv", "b.txt docs/b.txt"), "ERROR: source and destination are the same");
  run("fsmk", "file", "c.txt");
  EXPECT_EQ(run("fs", "rename", "c.txt <dest>docs/b.txt</dest>"),
            "ERROR: destination 'docs/b.txt' already exists — fs:rm it first, or fs:copy to keep "
            "its history");
  EXPECT_EQ(run("fs", "move", "docs c"), "ERROR: not a file");
  EXPECT_EQ(run("fs", "move", "nope.txt x"), "ERROR: no such file: nope.txt");
  EXPECT_EQ(run("fs", "move", "c.txt"), "ERROR: usage  fs:move <src> <dst>");
}

TEST_F(FileFamilies, CopyAddsAVersionToAnExistingDestination) {
  enroll("proj");
  run("fsmk", "file", "src.txt <content>S</content>");
  for (int i = 0; i < 3; ++i)
    run("fsmk", "file", "dst.txt <content>" + std::to_string(i) + "</content>");
  std::string copied = run("fs", "copy", "src.txt dst.txt");
  EXPECT_TRUE(copied.starts_with(
      "OK: copied src.txt -> dst.txt (v4; incoming copy replaced the working bytes)\n  [version "
      "control: automatic] dst.txt saved as v4"))
      << copied;
  EXPECT_TRUE(run("fs", "cp", "src.txt new.txt")
                  .starts_with("OK: copied src.txt -> new.txt (v1, new versioned file)"));
  run("fsmk", "dir", "d");
  EXPECT_EQ(run("fs", "copy", "src.txt d"), "ERROR: destination is a directory: d");
  run("fs", "rm", "src.txt");
  EXPECT_EQ(run("fs", "copy", "src.txt z.txt"),
            "ERROR: source is tombstoned: src.txt (fs:restore it first)");
  EXPECT_EQ(run("fs", "cat", "dst.txt"), "S");
}

TEST_F(FileFamilies, ShortNamesResolveBySuffixOrListTheCandidates) {
  write_file(project / "a/x.cpp", "1");
  write_file(project / "b/x.cpp", "2");
  write_file(project / "b/only.cpp", "3");
  enroll("proj");
  EXPECT_EQ(run("fs", "cat", "only.cpp"), "3");
  EXPECT_EQ(run("fs", "cat", (project / "a/x.cpp").string()), "1");
  EXPECT_EQ(run("fs", "cat", "x.cpp"),
            "ERROR: 2 files match 'x.cpp' — did you mean:\n  a/x.cpp\n  b/x.cpp\n(give a fuller "
            "or absolute path to pick one)");
  EXPECT_EQ(run("fs", "cat", "nly.cpp"), "ERROR: no such file: nly.cpp");
  EXPECT_EQ(run("fsstat", "exists", "ghost.md"), "OK: no  (ghost.md not found)");
  EXPECT_EQ(run("fsstat", "exists", "b"), "OK: yes dir  b");
  EXPECT_EQ(run("fsstat", "ls", "b"), "OK: b/\n  f  v1\tonly.cpp\n  f  v1\tx.cpp\n(2 children)\n");
  EXPECT_EQ(run("fsstat", "ls", "b/only.cpp"), "ERROR: not a directory: b/only.cpp");
  EXPECT_EQ(run("fsstat", "paths", "b/*.cpp"),
            "OK: 2 file(s) in " + project.string() +
                "  matching b/*.cpp  (f = file, t = tombstoned)\n  f  v1\tb/only.cpp\n  f  "
                "v1\tb/x.cpp\n");
}

TEST_F(FileFamilies, BadPathsAreRefusedAndChangeNothing) {
  enroll("proj");
  fs::create_directories(base / "outside");
  EXPECT_TRUE(run("fsmk", "file", "../escape.txt")
                  .starts_with("ERROR: path '../escape.txt' is outside the store"));
  EXPECT_TRUE(
      run("fsmk", "file", "/etc/passwd").starts_with("ERROR: path '/etc/passwd' is outside"));
  EXPECT_EQ(run("fsmk", "file", std::string("bad\x01name")),
            "ERROR: invalid path 'bad\\x01name': byte 0x01 is not allowed in a name");
  EXPECT_TRUE(run("fsmk", "file", "bad\xff.txt").starts_with("ERROR: invalid path"));
  EXPECT_EQ(run("fsmk", "file", "a.txt.tombstone"),
            "ERROR: reserved name: 'a.txt.tombstone' uses a machinery suffix (.tombstone / .tmp$ "
            "/ .oldversions)");
  EXPECT_EQ(run("fsmk", "dir", "x.oldversions"),
            "ERROR: reserved name: 'x.oldversions' uses a machinery suffix (.tombstone / .tmp$ / "
            ".oldversions)");
  EXPECT_EQ(run("fsraw", "remove", "../outside"),
            "ERROR: path '../outside' is outside the store " + project.string());
  EXPECT_TRUE(fs::exists(base / "outside"));
  EXPECT_FALSE(fs::exists(base / "escape.txt"));
  EXPECT_FALSE(fs::exists(base / "outside/x.txt"));
  EXPECT_TRUE(fs::is_empty(base / "outside"));
}

TEST_F(FileFamilies, SymbolicLinksCannotLeadOutOfTheStore) {
  enroll("proj");
  fs::create_directories(base / "outside");
  std::error_code ec;
  fs::create_directory_symlink(base / "outside", project / "link", ec);
  if (ec) GTEST_SKIP() << "this system cannot make symbolic links: " << ec.message();
  EXPECT_EQ(run("fsmk", "file", "link/x.txt"),
            "ERROR: path 'link/x.txt' leads outside the store through a symbolic link");
  EXPECT_TRUE(fs::is_empty(base / "outside"));
}

TEST_F(FileFamilies, UsageAndUnknownVerbTexts) {
  EXPECT_EQ(run("fs", "cat", "a.txt"),
            "ERROR: no disk root (enroll a directory, or setRelativePath/setDiskRoot)");
  enroll("proj");
  EXPECT_EQ(run("fs", "cat"), "ERROR: usage  fs:cat <path>");
  EXPECT_EQ(run("fs", "rm", ""), "ERROR: usage  fs:rm <path>");
  EXPECT_EQ(run("fsmk", "file", ""),
            "ERROR: usage  fsmk:file <path> [<content><![CDATA[..]]></content>]");
  EXPECT_EQ(run("fsraw", "copy", "a"), "ERROR: usage  fsraw:copy <src> <dst>");
  EXPECT_EQ(run("fs", "write", "a"),
            "ERROR: unknown fs op 'write' (cat|rm|move|copy|restore). Use fsmk: to create, "
            "fsvctl: for checkout/checkin/log/diff/revert, fsraw: for a direct OS op.");
  EXPECT_EQ(run("fsstat", "nope"),
            "ERROR: unknown fsstat op 'nope' (exists|version|ls|stores|paths)");
  EXPECT_EQ(run("fsmk", "link"), "ERROR: unknown fsmk op 'link' (file|dir)");
  EXPECT_EQ(run("fsraw", "chmod"), "ERROR: unknown fsraw op 'chmod' (copy|move|remove)");
}

TEST_F(FileFamilies, UnquotedNamesWithBlanksAreUsageErrorsNotCutShort) {
  enroll("proj");
  run("fsmk", "file", "src/a.txt <content>a</content>");
  EXPECT_EQ(run("fs", "move", "src/a.txt lib/moved a.txt"),
            "ERROR: usage  fs:move <src> <dst>\n  3 names given where 2 are taken — quote a name "
            "with blanks, or give it as an element:\n    fs:move \"src/a.txt\" \"lib/moved "
            "a.txt\"\n    fs:move <path>src/a.txt</path><dest>lib/moved a.txt</dest>");
  EXPECT_EQ(run("fs", "move", "<path>src/a.txt</path> lib/moved a.txt").substr(0, 80),
            run("fs", "move", "src/a.txt lib/moved a.txt").substr(0, 80));
  EXPECT_EQ(run("fs", "cat", "my notes.txt"),
            "ERROR: usage  fs:cat <path>\n  2 names given where 1 is taken — quote a name with "
            "blanks, or give it as an element:\n    fs:cat \"my notes.txt\"\n    fs:cat "
            "<path>my notes.txt</path>");
  for (auto [family, verb] : {std::pair{"fs", "rm"},
                              {"fs", "copy"},
                              {"fs", "restore"},
                              {"fsmk", "file"},
                              {"fsmk", "dir"},
                              {"fsraw", "remove"},
                              {"fsraw", "move"},
                              {"fsstat", "exists"},
                              {"fsstat", "ls"}})
    EXPECT_NE(run(family, verb, "one two three").find(" names given where "), std::string::npos)
        << family << ":" << verb;
  // Nothing moved, and the quoted forms do what was meant.
  EXPECT_EQ(run("fs", "move", "src/a.txt \"lib/moved a.txt\""),
            "OK: moved src/a.txt -> lib/moved a.txt (history followed)");
  EXPECT_EQ(run("fs", "cat", "<path>lib/moved a.txt</path>"), "a");
}

TEST_F(FileFamilies, RawOperationsBypassVersioning) {
  enroll("proj ext=allbut:.bin");
  EXPECT_EQ(run("fsmk", "file", "app.bin"),
            "ERROR: excluded by version-control policy [ext=allbut:.bin] — fsraw: writes it "
            "unversioned");
  write_file(project / "build/app.bin", "BIN");
  EXPECT_EQ(run("fsraw", "copy", "build/app.bin dist.bin"),
            "OK: raw copy build/app.bin -> dist.bin");
  EXPECT_EQ(run("fsraw", "mv", "dist.bin moved.bin"), "OK: raw move dist.bin -> moved.bin");
  EXPECT_EQ(run("fsraw", "rm", "moved.bin"), "OK: raw remove moved.bin");
  EXPECT_EQ(run("fsraw", "rm", "moved.bin"), "ERROR: raw remove failed");
  EXPECT_FALSE(fs::exists(mirror_root() / "moved.bin"));

  // Versioned files are the fs: verbs' business: raw operations on them are refused.
  run("fsmk", "file", "src/deep/a.txt <content>a</content>");
  run("fsmk", "file", "src/deep/b.txt <content>b</content>");
  const std::string tail =
      " — use fs:rm (tombstone, history kept; fs:restore undoes), fs:move or fs:copy; fsraw: "
      "is for files the version-control policy excludes";
  EXPECT_EQ(
      run("fsraw", "remove", "src"),
      "ERROR: fsraw:remove refused: src holds 2 versioned file(s) (src/deep/a.txt, ...)" + tail);
  EXPECT_EQ(run("fsraw", "rm", "src/deep/b.txt"),
            "ERROR: fsraw:remove refused: src/deep/b.txt is versioned" + tail);
  EXPECT_EQ(run("fsraw", "move", "src/deep/a.txt x.bin"),
            "ERROR: fsraw:move refused: src/deep/a.txt is versioned" + tail);
  EXPECT_EQ(run("fsraw", "copy", "build/app.bin src/deep/a.txt"),
            "ERROR: fsraw:copy refused: src/deep/a.txt is versioned" + tail);
  write_file(project / "build/readme.txt", "r");
  EXPECT_EQ(
      run("fsraw", "copy", "build notes"),
      "ERROR: fsraw:copy refused: notes/readme.txt would be versioned (the policy admits it)" +
          tail);
  EXPECT_EQ(run("fs", "cat", "src/deep/a.txt"), "a");
  EXPECT_EQ(run("fsraw", "copy", "src/deep/a.txt build/a.bin"),
            "OK: raw copy src/deep/a.txt -> build/a.bin");
  EXPECT_EQ(run("fs", "rm", "src/deep/b.txt").substr(0, 14), "OK: tombstoned");
  EXPECT_EQ(run("fsraw", "remove", "src"),
            "ERROR: fsraw:remove refused: src holds 1 versioned file(s) (src/deep/a.txt)" + tail);
}

TEST_F(FileFamilies, EnrollmentTextsAndRefusals) {
  write_file(project / "notes.md", "# n");
  write_file(project / "main.cpp", "int main(){}");
  std::string out = enroll("proj ext=only:.md watch=off");
  EXPECT_TRUE(out.starts_with("OK: enrolled " + project.string() +
                              " — 1 file(s) ingested (3 B), NOT watching (watch=off)\n  policy: "
                              "[scope=all ext=only:.md watch=off mode=vc]"))
      << out;
  EXPECT_NE(out.find("\n  NOT source controlled: 1 file(s), 12 B — excluded by the ext policy:\n   "
                     " - main.cpp"),
            std::string::npos);
  EXPECT_NE(out.find("\n  data kept at: " + (home / ".versioncontrol").string()),
            std::string::npos);
  EXPECT_EQ(report.str(), "");  // the answer counts the files: no progress lines besides it
  EXPECT_EQ(read_file(home / "config/versioncontroldirs.cfg"),
            "[versioncontroldirs]\n" + project.string() +
                " :: scope=all ext=only:.md watch=off mode=vc\n");

  EXPECT_EQ(enroll("proj ext=only:.md watch=off"),
            "OK: " + project.string() + " is already enrolled — now the active directory");
  EXPECT_EQ(
      enroll("proj mode=cachewt"),
      "ERROR: " + project.string() +
          " is already enrolled as versioned VC (mode=vc).\n  A directory uses one mode at a "
          "time and modes are not switched in place.\n  To change it: UNENROLL this directory "
          "(VC panel -> remove, or the unenroll\n  verb), then re-enroll with "
          "mode=cachewt.\n  (Tip: use different directories for cache-based vs versioned VC.)");
  EXPECT_EQ(enroll("proj watch=maybe"), "ERROR: bad policy: watch must be on|off (got 'maybe')");
  EXPECT_EQ(enroll("nowhere"), "ERROR: no such directory: " + (base / "nowhere").string());
  EXPECT_EQ(enroll(home.string()), "ERROR: refusing to enroll the tool's own .Kestrune home");
  EXPECT_EQ(enroll(""), "ERROR: usage  Kestrune EnrollVersionControl <directory> [flags]\n");
  fs::create_directories(base / "big");
  write_file(base / "big/blob", std::string(3000, 'x'));
  EXPECT_TRUE(enroll("big max=2kb")
                  .starts_with("ERROR: " + (base / "big").string() +
                               " is 2.9 KB — over the max repo size 2.0 KB.\n"));

  std::string widened = enroll("proj ext=default watch=off");
  EXPECT_EQ(widened, "OK: " + project.string() +
                         " re-enrolled — policy now [scope=all ext=default watch=off mode=vc]; "
                         "active directory\n  0 file(s) left VC under the new rules (mirror "
                         "history kept)");
  EXPECT_EQ(run("fs", "cat", "main.cpp"), "int main(){}");
  start();
  EXPECT_EQ(run("fs", "cat", "main.cpp"), "int main(){}");
}

TEST_F(FileFamilies, StartReportsOnlyWhatChangedSinceTheLastStart) {
  fs::create_directories(home / "config");
  const fs::path dirs = home / "config/versioncontroldirs.cfg";
  const std::string gone = (base / "gone").string(), w = (base / "w.txt").string();
  write_file(dirs, "[versioncontroldirs]\n# my projects\n\n" + gone + "\n" + project.string() +
                       " :: watch=off\n");
  write_file(home / "config/watchedfiles.cfg", "[watchedfiles]\n# none yet\n" + w + "\n");
  write_file(project / "k.txt", "k");
  start();
  // A listed directory that works needs no word; one that fails gets one line.
  EXPECT_EQ(report.str(), "[versioncontroldirs] " + gone +
                              " -> skipped (no such directory); it stays listed and is enrolled "
                              "again once it is back (Kestrune unenroll " +
                              gone + " drops it)\n[watchedfiles] " + w +
                              " -> watching (the file is gone for now)\n");
  EXPECT_EQ(run("fs", "cat", "k.txt"), "k");
  start();
  EXPECT_EQ(report.str(), "");
  // Reported once, the failure stays in view where the stores are listed.
  EXPECT_EQ(run("fsstat", "stores"),
            "1 store(s) under version control  (* = active; retarget with Kestrune "
            "EnrollVersionControl <root>)\n* " +
                project.string() + "  1 file(s)  [scope=all ext=default watch=off mode=vc]\n! " +
                gone + "  listed in versioncontroldirs.cfg but not enrolled (no such directory)\n");

  // The directory and the file come back, and the list's policy was edited by hand.
  fs::create_directories(base / "gone");
  write_file(base / "w.txt", "w");
  fs::create_directories(base / "odd");
  write_file(dirs, read_file(dirs) + (base / "odd").string() + " :: bogus=1\n");
  std::string text = read_file(dirs);
  text.replace(text.find(" :: watch=off"), 13, " :: watch=off ext=only:.md");
  write_file(dirs, text);
  start();
  EXPECT_EQ(report.str(),
            "[versioncontroldirs] " + gone +
                " -> enrolled again (0 file(s)), watching for changes\n[versioncontroldirs] " +
                project.string() +
                " -> enrolled (0 file(s)), watch=off — policy now [scope=all ext=only:.md "
                "watch=off mode=vc], was [scope=all ext=default watch=off mode=vc]\n"
                "[versioncontroldirs] " +
                (base / "odd").string() +
                " -> ERROR: bad policy: unknown policy flag 'bogus=1' (scope=|ext=|watch=|mode=)\n"
                "[watchedfiles] " +
                w + " -> watching\n");
  start();
  EXPECT_EQ(report.str(), "");
  // A change made through a verb was answered there: the next start is silent too.
  write_file(dirs, "[versioncontroldirs]\n" + project.string() + " :: watch=off ext=only:.md\n");
  start();
  EXPECT_EQ(report.str(), "");
  EXPECT_TRUE(registry->find_plain_verb("policy")
                  ->run(*session, "proj ext=default")
                  .starts_with("OK: " + project.string() + " re-enrolled"));
  start();
  EXPECT_EQ(report.str(), "");
  EXPECT_EQ(run("fs", "cat", "k.txt"), "k");
}

TEST_F(FileFamilies, UnenrollKeepsHistoryForTheNextEnrollment) {
  auto unenroll = [&](std::string_view args) {
    return registry->find_plain_verb("unenroll")->run(*session, args);
  };
  fs::create_directories(base / "other");
  ASSERT_TRUE(enroll("proj").starts_with("OK: enrolled"));
  run("fsmk", "file", "a.txt <content>one</content>");
  run("fsmk", "file", "a.txt <content>two</content>");
  ASSERT_TRUE(enroll("other").starts_with("OK: enrolled"));
  ASSERT_TRUE(enroll("proj").starts_with("OK: "));  // proj is active again
  kst::Store* proj = stores->active();
  fs::path history = proj->mirror_root();

  EXPECT_EQ(unenroll("proj"),
            "OK: unenrolled " + project.string() +
                " — no longer versioned or watched\n  history kept at: " + history.string() +
                "\n    (enroll the directory again to reach its versions)"
                "\n  active directory: " +
                (base / "other").string());
  EXPECT_TRUE(proj->files().empty());  // the old address is still safe to use
  EXPECT_EQ(read_file(home / "config/versioncontroldirs.cfg"),
            "[versioncontroldirs]\n" + (base / "other").string() +
                " :: scope=all ext=default watch=on mode=vc\n");
  EXPECT_EQ(unenroll(project.string()), "ERROR: " + project.string() +
                                            " is not enrolled (fsstat:stores lists the enrolled "
                                            "directories)");
  EXPECT_EQ(unenroll(""), "ERROR: usage  Kestrune unenroll <directory>");
  EXPECT_EQ(unenroll("proj other"), "ERROR: usage  Kestrune unenroll <directory>");

  // A mode change goes through unenrollment; the versioned history waits on disk.
  EXPECT_TRUE(enroll("proj mode=cachewt").starts_with("OK: cache write-through"));
  EXPECT_TRUE(unenroll("<path>proj</path>").starts_with("OK: unenrolled"));
  ASSERT_TRUE(enroll("proj").starts_with("OK: enrolled"));
  EXPECT_EQ(run("fs", "cat", "a.txt"), "two");
  start();
  EXPECT_EQ(run("fs", "cat", "a.txt"), "two");

  // A listed directory that is gone from disk can still be taken off the list.
  fs::remove_all(base / "other");
  start();
  EXPECT_EQ(unenroll((base / "other").string()),
            "OK: unenrolled " + (base / "other").string() +
                " — no longer versioned or watched\n  active directory: " + project.string());
  EXPECT_EQ(read_file(home / "config/versioncontroldirs.cfg").find("other"), std::string::npos);
}

TEST_F(FileFamilies, ScopeEditedVersionsOnlyWhatIsEditedThroughTheProgram) {
  write_file(project / "old.txt", "untouched");
  ASSERT_TRUE(enroll("proj scope=edited")
                  .starts_with("OK: enrolled " + project.string() + " — 0 file(s) ingested"));
  EXPECT_EQ(run("fs", "cat", "old.txt"), "ERROR: no such file: old.txt");
  run("fsmk", "file", "new.txt <content>n</content>");
  start();
  EXPECT_EQ(run("fsstat", "paths"), "OK: 1 file(s) in " + project.string() +
                                        "  (f = file, t = tombstoned)\n  f  v1\tnew.txt\n");
}

TEST_F(FileFamilies, CacheWriteThroughWritesStraightToTheRealFiles) {
  write_file(project / "r.txt", "real");
  std::string out = enroll("proj mode=cachewt");
  EXPECT_TRUE(out.starts_with("OK: cache write-through (no version) enrolled\n  nothing ingested"))
      << out;
  EXPECT_NE(out.find("\n  policy: [scope=all ext=default watch=on mode=cachewt]"),
            std::string::npos);
  EXPECT_EQ(run("fs", "cat", "r.txt"), "real");
  EXPECT_EQ(run("fsmk", "file", "w.txt <content>through</content>"), "OK: created file w.txt");
  EXPECT_EQ(read_file(project / "w.txt"), "through");
  EXPECT_FALSE(fs::exists(mirror_root() / "w.txt"));
  EXPECT_NE(run("fsstat", "stores").find("* " + project.string() + "  2 cached file(s)  ["),
            std::string::npos);
  start();
  EXPECT_EQ(run("fs", "cat", "w.txt"), "through");
}

class RamChecks : public FileFamilies {
 protected:
  void TearDown() override {
    kst::set_free_memory_for_testing({});
    FileFamilies::TearDown();
  }
};

TEST_F(RamChecks, TooLittleFreeRamRefusesAndTightRamWarns) {
  write_file(project / "a.txt", "abc");
  const std::uint64_t gib = 1024ull * 1024 * 1024;
  kst::set_free_memory_for_testing([&] { return std::optional<std::uint64_t>(3 * gib); });
  EXPECT_EQ(enroll("proj"),
            "ERROR: enrolling " + project.string() +
                " in cached (RAM) VC needs ~3 B of RAM but only 3.0 GB is free — the tree must be "
                "at least 4 GB\n  smaller than your free RAM. Free up memory, or enroll it as the "
                "non-cached\n  fallback (caches on access, writes through to disk, evicts under "
                "pressure):\n    Kestrune EnrollVersionControl " +
                project.string() + " mode=cachewt");
  EXPECT_FALSE(fs::exists(home / "config/versioncontroldirs.cfg"));
  kst::set_free_memory_for_testing([&] { return std::optional<std::uint64_t>(5 * gib); });
  std::string out = enroll("proj");
  ASSERT_TRUE(out.starts_with("OK: enrolled ")) << out;
  EXPECT_NE(out.find("\n  note: this leaves ~5.0 GB of RAM headroom — the configuration is a "
                     "little tight.\n"),
            std::string::npos);
  // Loading with less free memory than the tree plus 2 GiB warns and goes on.
  kst::set_free_memory_for_testing([&] { return std::optional<std::uint64_t>(gib); });
  start();
  EXPECT_NE(report.str().find("warning: performance may be degraded due to memory constraints "
                              "(loading 3 bytes, ~1073741821 free after)\n"),
            std::string::npos);
  EXPECT_EQ(run("fs", "cat", "a.txt"), "abc");
}

}  // namespace
}  // namespace kx::vfs

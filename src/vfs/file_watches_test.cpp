#include "vfs/file_watches.hpp"

#include <gtest/gtest.h>

#include <sstream>

#include "vfs/archive.hpp"
#include "vfs/edit_log.hpp"
#include "vfs/test_home.hpp"
#include "vfs/tombstone.hpp"

namespace kst {
namespace {

namespace fs = std::filesystem;
using testing::read_file;
using testing::write_file;

class FileWatchTest : public testing::TempHome {
 protected:
  fs::path file() { return base / "loose" / "notes.txt"; }
  fs::path mirror() { return home / ".versioncontrol" / "loose" / "notes.txt"; }
  fs::path lock() { return home / ".watchlocks" / "file_notes.lock"; }
  std::string ops() {
    std::string out;
    for (const auto& r : read_edits(mirror().parent_path() / ".oldversions" / "edits.jsonl"))
      out += r.op + " v" + std::to_string(r.prev_version) + "->v" + std::to_string(r.new_version) +
             ";";
    return out;
  }
  std::size_t archived() { return list_archived(archive_dir_of(mirror()), "notes.txt").size(); }
  std::ostringstream report;
};

TEST_F(FileWatchTest, EditsDeletesAndReturnsBecomeVersionsOnlyForTheOwner) {
  write_file(file(), "one\n");
  FileWatch owner(file(), mirror(), lock(), report);
  owner.start(false);
  EXPECT_FALSE(owner.follower());
  EXPECT_EQ(read_file(mirror()), "one\n");
  EXPECT_FALSE(owner.check());  // nothing changed

  // A second process follows read-only: it writes nothing.
  FileWatch second(file(), mirror(), lock(), report);
  second.start(false);
  EXPECT_TRUE(second.follower());
  write_file(file(), "two\n");
  EXPECT_FALSE(second.check());
  EXPECT_EQ(archived(), 0u);

  EXPECT_TRUE(owner.check());
  EXPECT_EQ(read_file(mirror()), "two\n");
  EXPECT_EQ(read_file(archive_dir_of(mirror()) / "notes.txt.xx1"), "one\n");

  fs::remove(file());
  EXPECT_TRUE(owner.check());
  EXPECT_FALSE(owner.check());  // recorded once
  EXPECT_TRUE(fs::exists(tombstone_marker(mirror())));
  EXPECT_EQ(read_file(mirror()), "two\n");  // the last bytes are kept

  write_file(file(), "three\n");
  EXPECT_TRUE(owner.check());
  EXPECT_FALSE(fs::exists(tombstone_marker(mirror())));
  EXPECT_EQ(archived(), 2u);
  EXPECT_EQ(ops(), "create v0->v1;modify v1->v2;delete v2->v2;restore v2->v3;");

  // When the owner stops, the follower may take over.
  owner.stop();
  second.stop();
  second.start(false);
  EXPECT_FALSE(second.follower());
  EXPECT_TRUE(report.str().empty()) << report.str();
}

}  // namespace
}  // namespace kst

#include "vfs/tree_watcher.hpp"

#include <gtest/gtest.h>

#include <chrono>
#include <sstream>
#include <thread>

#include "vfs/edit_log.hpp"
#include "vfs/test_home.hpp"

namespace kst {
namespace {

namespace fs = std::filesystem;
using testing::write_file;

// A live watch on the platform's notifications (inotify; ReadDirectoryChangesW under
// the Windows build): outside edits, a burst and a delete reach the edit log.
class TreeWatcherTest : public testing::TempHome {
 protected:
  void SetUp() override {
    TempHome::SetUp();
    write_file(project / "sub" / "a.txt", "one\n");
    store = std::make_unique<Store>(project, home / ".versioncontrol" / "key", Policy{});
    std::string reason;
    ASSERT_TRUE(store->load(report, reason)) << reason;
    watcher = std::make_unique<TreeWatcher>(*store, home / ".watchlocks" / "key.lock", report);
    ASSERT_EQ(watcher->start(true), "");
  }
  void TearDown() override {
    watcher.reset();
    TempHome::TearDown();
  }
  std::string ops() {
    std::string out;
    for (const auto& r : read_edits(store->edit_log_file()))
      out += r.op + " " + r.path + " v" + std::to_string(r.new_version) + ";";
    return out;
  }
  // Waits up to 5 s for the edit log to read `want`.
  bool reaches(const std::string& want) {
    for (int i = 0; i < 100; ++i) {
      if (ops() == want) return true;
      std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    return false;
  }
  std::ostringstream report;
  std::unique_ptr<Store> store;
  std::unique_ptr<TreeWatcher> watcher;
};

TEST_F(TreeWatcherTest, EditsBurstsAndDeletesBecomeVersions) {
  EXPECT_FALSE(watcher->follower());
  write_file(project / "sub" / "a.txt", "two\n");
  EXPECT_TRUE(reaches("modify sub/a.txt v2;")) << ops();

  // Three writes well inside the settle time make one version.
  for (const char* text : {"b1\n", "b2\n", "b3\n"}) {
    write_file(project / "sub" / "a.txt", text);
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  EXPECT_TRUE(reaches("modify sub/a.txt v2;modify sub/a.txt v3;")) << ops();
  std::this_thread::sleep_for(std::chrono::milliseconds(600));
  EXPECT_EQ(ops(), "modify sub/a.txt v2;modify sub/a.txt v3;");
  {
    std::lock_guard guard(store->mutex());
    EXPECT_EQ(store->find_file("sub/a.txt")->text(), "b3\n");
  }

  // A file made in a directory that appeared after the watch started.
  write_file(project / "new" / "deeper" / "c.txt", "c\n");
  EXPECT_TRUE(reaches("modify sub/a.txt v2;modify sub/a.txt v3;create new/deeper/c.txt v1;"))
      << ops();

  fs::remove(project / "sub" / "a.txt");
  EXPECT_TRUE(reaches(
      "modify sub/a.txt v2;modify sub/a.txt v3;create new/deeper/c.txt v1;delete sub/a.txt v3;"))
      << ops();
  std::lock_guard guard(store->mutex());
  EXPECT_TRUE(store->find_file("sub/a.txt")->tombstoned);
}

}  // namespace
}  // namespace kst

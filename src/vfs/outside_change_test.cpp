#include "vfs/outside_change.hpp"

#include <gtest/gtest.h>

#include <sstream>

#include "vfs/edit_log.hpp"
#include "vfs/save_path.hpp"
#include "vfs/test_home.hpp"
#include "vfs/version_chain.hpp"

namespace kst {
namespace {

namespace fs = std::filesystem;
using testing::read_file;
using testing::write_file;

class OutsideChange : public testing::TempHome {
 protected:
  std::unique_ptr<Store> open() {
    auto store = std::make_unique<Store>(project, home / ".versioncontrol" / "key", Policy{});
    std::string reason;
    EXPECT_TRUE(store->load(warnings, reason)) << reason;
    return store;
  }
  std::vector<std::string> ops(const Store& store) {
    std::vector<std::string> out;
    for (const auto& r : read_edits(store.edit_log_file())) out.push_back(r.path + " " + r.op);
    return out;
  }
  std::ostringstream warnings;
};

TEST_F(OutsideChange, EnrolledTextStaysV1AcrossARestartWhenEditedBeforeAnySave) {
  write_file(project / "a.txt", "enrolled");
  {
    auto store = open();
    EXPECT_EQ(take_baselines(*store, warnings), 0u);
  }
  write_file(project / "a.txt", "edited outside");
  auto store = open();
  EXPECT_EQ(store->find_file("a.txt")->text(), "enrolled") << "the baseline, not the edit";
  EXPECT_EQ(absorb_tree(*store, "", warnings), 1u);
  File& file = *store->find_file("a.txt");
  EXPECT_EQ(file.current, 2u);
  EXPECT_EQ(read_version(file, 1), "enrolled");
  EXPECT_EQ(read_version(file, 2), "edited outside");
  EXPECT_EQ(read_file(project / "a.txt"), "edited outside") << "the working file is left alone";
  EXPECT_EQ(absorb_tree(*store, "", warnings), 0u) << "nothing new the second time";
}

// What a lost-events rescan must find: new, changed and deleted files, and nothing else.
TEST_F(OutsideChange, ATreeScanFindsEveryKindOfChangeAndOnlyThose) {
  write_file(project / "same.txt", "same");
  write_file(project / "changed.txt", "before");
  write_file(project / "gone.txt", "last words");
  auto store = open();
  take_baselines(*store, warnings);
  write_file(project / "changed.txt", "after");
  write_file(project / "deep/new.txt", "new");
  write_file(project / "deep/skip.txt.tmp$", "a save in progress");
  fs::remove(project / "gone.txt");

  EXPECT_EQ(absorb_tree(*store, "", warnings), 3u);
  EXPECT_EQ(ops(*store), (std::vector<std::string>{"changed.txt modify", "deep/new.txt create",
                                                   "gone.txt delete"}));
  EXPECT_TRUE(store->find_file("gone.txt")->tombstoned);
  EXPECT_EQ(store->find_file("gone.txt")->text(), "last words");
  EXPECT_EQ(store->find_file("same.txt")->current, 1u);
  EXPECT_EQ(store->find_file("deep/skip.txt.tmp$"), nullptr);

  // The deleted file comes back outside: a restore, on top of its chain.
  write_file(project / "gone.txt", "back");
  EXPECT_EQ(absorb_outside(*store, "gone.txt", warnings), kst::OutsideChange::kVersioned);
  EXPECT_FALSE(store->find_file("gone.txt")->tombstoned);
  EXPECT_EQ(store->find_file("gone.txt")->current, 2u);
  EXPECT_EQ(ops(*store).back(), "gone.txt restore");
}

// Two stores on one root stand for two processes: the second follows the first's log
// and does not take the first's save for an outside edit.
TEST_F(OutsideChange, AFollowerPicksUpAnotherProcesssVersionsFromTheLog) {
  write_file(project / "a.txt", "v1");
  auto owner = open();
  take_baselines(*owner, warnings);
  auto follower = open();
  ASSERT_TRUE(save_file(*owner, "a.txt", "v2", SaveRequest{}, warnings).ok);
  ASSERT_TRUE(save_file(*owner, "b.txt", "new", SaveRequest{}, warnings).ok);

  follow_edit_log(*follower);
  ASSERT_NE(follower->find_file("b.txt"), nullptr);
  EXPECT_EQ(follower->find_file("a.txt")->current, 2u);
  EXPECT_EQ(follower->find_file("a.txt")->text(), "v2");
  EXPECT_EQ(read_version(*follower->find_file("a.txt"), 1), "v1");
  EXPECT_EQ(absorb_tree(*follower, "", warnings), 0u);
  EXPECT_EQ(read_edits(owner->edit_log_file()).size(), 2u);
}

TEST_F(OutsideChange, ASaveKeepsAnOutsideEditItWouldOverwrite) {
  write_file(project / "a.txt", "enrolled");
  auto store = open();
  take_baselines(*store, warnings);
  write_file(project / "a.txt", "outside");
  auto saved = save_file(*store, "a.txt", "inside", SaveRequest{}, warnings);
  ASSERT_TRUE(saved.ok);
  EXPECT_EQ(saved.version, 3u);
  EXPECT_EQ(read_version(*store->find_file("a.txt"), 2), "outside");
  EXPECT_EQ(read_version(*store->find_file("a.txt"), 1), "enrolled");
}

}  // namespace
}  // namespace kst

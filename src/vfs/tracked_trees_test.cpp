#include "vfs/tracked_trees.hpp"

#include <gtest/gtest.h>

#include <fstream>

namespace kst {
namespace {

namespace fs = std::filesystem;

fs::path fresh_list(const char* name) {
  fs::path dir = fs::temp_directory_path() / ("kx_tracked_" + std::string(name));
  fs::remove_all(dir);
  return dir / "config" / "grep_tracked.cfg";
}

TEST(TrackedTrees, TwoProcessesKeepEachOthersTrees) {
  const fs::path list = fresh_list("merge");
  TrackedTrees first(list), second(list);
  std::string error;
  EXPECT_TRUE(first.remember("/data/a", error));
  EXPECT_TRUE(second.remember("/data/b", error));
  // The first writer reads the list again, so the second's tree survives its save.
  EXPECT_TRUE(first.remember("/data/c", error));
  EXPECT_FALSE(second.remember("/data/a", error));
  EXPECT_TRUE(error.empty());
  EXPECT_EQ(TrackedTrees::read(list), (std::set<std::string>{"/data/a", "/data/b", "/data/c"}));
}

TEST(TrackedTrees, CoveringNeedsAFileBelowATree) {
  const fs::path list = fresh_list("cover");
  fs::create_directories(list.parent_path());
  std::ofstream(list) << "[grep.tracked]\n# a note\n  /data/src  \n";
  EXPECT_EQ(TrackedTrees::covering(list, "/data/src/x/y.c"), "/data/src");
  EXPECT_FALSE(TrackedTrees::covering(list, "/data/src"));
  EXPECT_FALSE(TrackedTrees::covering(list, "/data/srcs/y.c"));
  EXPECT_FALSE(TrackedTrees::covering(list, "/data/y.c"));
  EXPECT_FALSE(TrackedTrees::covering(fresh_list("none"), "/data/src/y.c"));
}

}  // namespace
}  // namespace kst

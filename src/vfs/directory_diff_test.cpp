#include "vfs/directory_diff.hpp"

#include <gtest/gtest.h>

#include <fstream>
#include <sstream>

namespace kst {
namespace {

TEST(DirectoryDiff, ListsOnlyPathsThatDifferInPathOrder) {
  const TreeTexts a{{"a.txt", "1"}, {"b.txt", "same"}, {"d/x.txt", "old"}, {"z.txt", "z"}};
  const TreeTexts b{{"b.txt", "same"}, {"c.txt", "new"}, {"d/x.txt", "new"}};
  EXPECT_EQ(directory_diff("/w/one", "/w/two", a, b),
            "=== DIRECTORY DIFF ===\n"
            "A: /w/one\n"
            "B: /w/two\n"
            "differing files (identical files omitted to spare context):\n"
            "[only in A] a.txt\n"
            "[only in B] c.txt\n"
            "[differs] d/x.txt\n"
            "[only in A] z.txt\n"
            "=== END DIRECTORY DIFF ===\n");
}

TEST(DirectoryDiff, IdenticalTreesSayNone) {
  const TreeTexts a{{"a.txt", "1"}};
  const std::string out = directory_diff("A", "B", a, a);
  EXPECT_TRUE(out.ends_with("(none — trees are identical)\n=== END DIRECTORY DIFF ===\n"));
  EXPECT_TRUE(directory_diff("A", "B", {}, {}).find("(none") != std::string::npos);
}

TEST(DirectoryDiff, SummaryIsWrittenToItsFile) {
  const auto dir = std::filesystem::temp_directory_path() / "kx-dirdiff-summary";
  std::filesystem::create_directories(dir);
  ASSERT_TRUE(write_diff_summary(dir, "summary text\n"));
  {
    std::ifstream in(dir / "_DIFF_SUMMARY.txt", std::ios::binary);
    std::stringstream got;
    got << in.rdbuf();
    EXPECT_EQ(got.str(), "summary text\n");
  }
  EXPECT_FALSE(write_diff_summary(dir / "missing" / "deeper", "x"));
  std::filesystem::remove_all(dir);
}

}  // namespace
}  // namespace kst

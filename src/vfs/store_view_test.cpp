#include "vfs/store_view.hpp"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <sstream>

#include "vfs/enroll.hpp"
#include "vfs/save_path.hpp"
#include "vfs/test_home.hpp"

namespace kx::vfs {
namespace {

using kst::testing::TempHome;
using kst::testing::write_file;

class StoreViewTest : public TempHome {
 protected:
  void SetUp() override {
    TempHome::SetUp();
    write_file(project / "a.txt", "keep\nold\nlast\n");
    stores = std::make_unique<kst::StoreSet>(home);
    stores->set_report(quiet);
    std::ostringstream progress;
    kst::enroll(*stores, project.string(), project, progress);
    ASSERT_NE(stores->active(), nullptr);
  }
  void save(const std::string& path, const std::string& text) {
    kst::SaveRequest request;
    request.seat = "agent7";
    ASSERT_TRUE(kst::save_file(*stores->active(), path, text, request, quiet).ok);
  }
  nlohmann::json json(const View& view) { return nlohmann::json::parse(view.body); }

  std::ostringstream quiet;
  std::unique_ptr<kst::StoreSet> stores;
};

// Lines added before the first common line and removed after the last one keep
// both sides' numbers right, which is what a side-by-side view lines up on.
TEST_F(StoreViewTest, DiffRowsCarryTheLineNumbersOfBothSides) {
  save("a.txt", "new first\nkeep\nlast\nnew end\n");
  auto rows = json(diff_view(*stores, "", "a.txt", 1, 2))["rows"];
  std::string shape;
  for (const auto& row : rows)
    shape += row["t"].get<std::string>() + ":" + (row.contains("a") ? row["a"].dump() : "-") + ":" +
             (row.contains("b") ? row["b"].dump() : "-") + " ";
  EXPECT_EQ(shape, "added:-:1 same:1:2 removed:2:- same:3:3 added:-:4 ");
}

TEST_F(StoreViewTest, TreeAndLogFollowSaves) {
  save("a.txt", "two\n");
  save("sub/b.txt", "b\n");
  auto tree = json(tree_view(*stores, project.string()))["files"];
  ASSERT_EQ(tree.size(), 2u);
  EXPECT_EQ(tree[0]["path"], "a.txt");
  EXPECT_EQ(tree[0]["versions"], 2);
  EXPECT_EQ(tree[1]["path"], "sub/b.txt");
  auto log = json(log_view(*stores, "", "a.txt"));
  EXPECT_EQ(log["current"], 2);
  EXPECT_EQ(log["versions"][1]["who"], "agent7");
  EXPECT_FALSE(log["versions"][0].contains("who"));  // ingested before the edit log
}

TEST_F(StoreViewTest, RefusalsNameWhatIsMissing) {
  EXPECT_EQ(tree_view(*stores, "/nowhere").status, "404 Not Found");
  EXPECT_EQ(log_view(*stores, "", "").status, "400 Bad Request");
  EXPECT_EQ(json(log_view(*stores, "", "zz.txt"))["error"], "no such file: zz.txt");
  EXPECT_EQ(json(diff_view(*stores, "", "a.txt", 1, 7))["error"], "no v7 of a.txt");
  EXPECT_EQ(version_view(*stores, "", "a.txt", 1).body, "keep\nold\nlast\n");
}

TEST_F(StoreViewTest, ChangeStampMovesWithEveryRecordedEdit) {
  std::string before = json(changes_view(*stores))["stamp"];
  save("a.txt", "x\n");
  EXPECT_NE(json(changes_view(*stores))["stamp"], before);
}

}  // namespace
}  // namespace kx::vfs

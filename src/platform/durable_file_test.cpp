#include "platform/durable_file.hpp"

#include <gtest/gtest.h>

#include <fstream>
#include <iterator>

namespace kx::platform {
namespace {

namespace fs = std::filesystem;

class DurableFile : public testing::Test {
 protected:
  void SetUp() override {
    dir = fs::temp_directory_path() /
          ("kx-durable-" + std::to_string(::testing::UnitTest::GetInstance()->random_seed()) + "-" +
           testing::UnitTest::GetInstance()->current_test_info()->name());
    fs::remove_all(dir);
    fs::create_directories(dir);
  }
  void TearDown() override { fs::remove_all(dir); }
  static std::string read(const fs::path& p) {
    std::ifstream in(p, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
  }
  static void write(const fs::path& p, const std::string& text) {
    std::ofstream(p, std::ios::binary) << text;
  }
  std::size_t entries() const {
    return static_cast<std::size_t>(
        std::distance(fs::directory_iterator(dir), fs::directory_iterator()));
  }
  fs::path dir;
};

TEST_F(DurableFile, AStagedFileReplacesItsTargetOnlyWhenCommitted) {
  write(dir / "a.txt", "old");
  std::string reason;
  {
    auto staged = StagedFile::stage(dir / "a.txt", "abandoned", reason);
    ASSERT_TRUE(staged) << reason;
    EXPECT_EQ(entries(), 2u);
  }
  EXPECT_EQ(read(dir / "a.txt"), "old");
  EXPECT_EQ(entries(), 1u) << "an abandoned stage removes its temporary file";

  auto staged = StagedFile::stage(dir / "a.txt", "new", reason);
  ASSERT_TRUE(staged) << reason;
  ASSERT_TRUE(staged->commit(reason)) << reason;
  EXPECT_EQ(read(dir / "a.txt"), "new");
  EXPECT_EQ(entries(), 1u);
}

TEST_F(DurableFile, TemporaryNamesAreShortFreshAndRecognised) {
  const fs::path target = dir / (std::string(250, 'n') + ".txt");
  const fs::path a = fresh_temp_path(target), b = fresh_temp_path(target);
  EXPECT_NE(a, b);
  EXPECT_EQ(a.parent_path(), dir);
  EXPECT_EQ(a.filename().string().size(), 3u + 16u + kTempFileSuffix.size());
  EXPECT_TRUE(is_write_temp_name(a.filename().string()));
  EXPECT_FALSE(is_write_temp_name("a.txt.tmp$"));
  EXPECT_FALSE(is_write_temp_name(".kxnothexnothexnoth.tmp$"));
}

TEST_F(DurableFile, ANewFileIsNeverOpenedThroughWhatIsAlreadyThere) {
  write(dir / "taken", "mine");
  std::string reason;
  EXPECT_FALSE(write_new_file_durable(dir / "taken", "theirs", reason));
  EXPECT_EQ(read(dir / "taken"), "mine");

  write(dir / "victim", "victim");
  std::error_code ec;
  fs::create_symlink(dir / "victim", dir / "planted", ec);
  if (ec) GTEST_SKIP() << "no symbolic links here: " << ec.message();
  EXPECT_FALSE(write_new_file_durable(dir / "planted", "through the link", reason));
  EXPECT_EQ(read(dir / "victim"), "victim");
  // Replacing a link puts a file where the link was and leaves its target alone.
  ASSERT_TRUE(replace_file_durable(dir / "planted", "replaced", reason)) << reason;
  EXPECT_FALSE(fs::is_symlink(dir / "planted"));
  EXPECT_EQ(read(dir / "planted"), "replaced");
  EXPECT_EQ(read(dir / "victim"), "victim");
}

}  // namespace
}  // namespace kx::platform

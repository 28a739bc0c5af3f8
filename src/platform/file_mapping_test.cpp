#include "platform/file_mapping.hpp"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>

#include "platform/durable_file.hpp"

namespace kx::platform {
namespace {

namespace fs = std::filesystem;

class FileMappingTest : public testing::Test {
 protected:
  void SetUp() override {
    dir = fs::temp_directory_path() /
          ("kx-mapping-" + std::to_string(testing::UnitTest::GetInstance()->random_seed()) + "-" +
           testing::UnitTest::GetInstance()->current_test_info()->name());
    fs::remove_all(dir);
    fs::create_directories(dir);
  }
  void TearDown() override { fs::remove_all(dir); }
  static void write(const fs::path& p, const std::string& text) {
    std::ofstream(p, std::ios::binary | std::ios::trunc) << text;
  }
  fs::path dir;
};

TEST_F(FileMappingTest, ShowsTheFirstBytesAndOutlivesItsHandle) {
  const fs::path file = dir / "data";
  write(file, "KST2 records");
  std::optional<FileMapping> map;
  {
    FileHandle handle = FileHandle::open(file, FileHandle::Mode::read);
    map = FileMapping::map(handle, 4);
    ASSERT_TRUE(map);
  }
  EXPECT_EQ(map->bytes(), "KST2");
  // Appends go behind the view and leave it as it was.
  {
    FileHandle appender = FileHandle::open(file, FileHandle::Mode::append);
    std::string reason;
    ASSERT_TRUE(appender.append(" and more", reason)) << reason;
  }
  EXPECT_EQ(map->bytes(), "KST2");
  FileMapping moved = std::move(*map);
  EXPECT_EQ(moved.bytes(), "KST2");
  EXPECT_TRUE(map->bytes().empty());
  moved.unmap();
  EXPECT_TRUE(moved.bytes().empty());
}

TEST_F(FileMappingTest, EmptyAndRefusedMappings) {
  const fs::path file = dir / "empty";
  write(file, "");
  FileHandle handle = FileHandle::open(file, FileHandle::Mode::read);
  auto empty = FileMapping::map(handle, 0);
  ASSERT_TRUE(empty);
  EXPECT_TRUE(empty->bytes().empty());
  EXPECT_FALSE(FileMapping::map(FileHandle(), 10));  // nothing open
}

TEST_F(FileMappingTest, ReplacingAMappedFileBehavesAsAnnounced) {
  const fs::path file = dir / "data";
  const fs::path next = dir / "next";
  write(file, "old bytes");
  write(next, "new bytes");
  FileHandle handle = FileHandle::open(file, FileHandle::Mode::read);
  auto map = FileMapping::map(handle, 9);
  ASSERT_TRUE(map);
  handle.close();
  std::string reason;
  const bool replaced = replace_durable(next, file, reason);
  EXPECT_EQ(replaced, !mappings_block_renames()) << reason;
  // Either way the view keeps the bytes it was made of.
  EXPECT_EQ(map->bytes(), "old bytes");
  map->unmap();
  if (!replaced) {
    EXPECT_TRUE(replace_durable(next, file, reason)) << reason;
  }
  std::ifstream in(file, std::ios::binary);
  std::string now((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  EXPECT_EQ(now, "new bytes");
}

// One handle both reads a file and appends to it, and opening it so creates nothing.
TEST_F(FileMappingTest, AnUpdateHandleReadsAndAppendsAtTheEnd) {
  const fs::path file = dir / "data";
  EXPECT_FALSE(FileHandle::open(file, FileHandle::Mode::update).is_open());
  EXPECT_FALSE(fs::exists(file));
  write(file, "KST2 one");
  FileHandle handle = FileHandle::open(file, FileHandle::Mode::update);
  ASSERT_TRUE(handle.is_open());
  char head[4] = {};
  ASSERT_TRUE(handle.read_at(0, head, sizeof head));
  EXPECT_EQ(std::string_view(head, sizeof head), "KST2");
  std::string reason;
  ASSERT_TRUE(handle.append(" two", reason)) << reason;
  {
    FileHandle other = FileHandle::open(file, FileHandle::Mode::append);  // someone else
    ASSERT_TRUE(other.append(" three", reason)) << reason;
  }
  ASSERT_TRUE(handle.append(" four", reason)) << reason;
  EXPECT_EQ(handle.size(), 23u);
  char all[23] = {};
  ASSERT_TRUE(handle.read_at(0, all, sizeof all));
  EXPECT_EQ(std::string_view(all, sizeof all), "KST2 one two three four");
  ASSERT_TRUE(handle.truncate(12));
  EXPECT_EQ(handle.size(), 12u);
}

}  // namespace
}  // namespace kx::platform

#include "vfs/version_chain.hpp"

#include <gtest/gtest.h>

#include <fstream>

namespace kst {
namespace {

EditRecord edit(std::int64_t ts, const std::string& path, const std::string& op, std::uint32_t n,
                std::uint32_t prev) {
  return {ts, path, op, "cli", n, prev, "/w"};
}

TEST(VersionChain, TextsComeFromRamOrTheArchive) {
  const auto dir = std::filesystem::temp_directory_path() / "kx-version-chain";
  std::filesystem::create_directories(dir);
  std::ofstream(dir / "a.txt.xx1", std::ios::binary) << "first\n";
  File file("a.txt");
  file.archived = {{1, dir / "a.txt.xx1"}, {2, dir / "a.txt.xx2"}};  // xx2 is missing on disk
  file.push_version(3, "third\n");
  file.current = 3;
  EXPECT_EQ(version_numbers(file), (std::vector<std::uint32_t>{1, 2, 3}));
  EXPECT_EQ(read_version(file, 1), "first\n");
  EXPECT_EQ(read_version(file, 2), std::nullopt);
  EXPECT_EQ(read_version(file, 3), "third\n");
  EXPECT_EQ(read_version(file, 0), std::nullopt);
  EXPECT_EQ(read_version(file, 4), std::nullopt);
  std::filesystem::remove_all(dir);
}

TEST(VersionChain, StampsFollowTheEditLogIncludingTombstones) {
  File file("a.txt");
  file.current = 4;
  const std::vector<EditRecord> edits{
      edit(100, "a.txt", "modify", 2, 1),    edit(150, "b.txt", "modify", 9, 8),
      edit(200, "a.txt", "tombstone", 2, 2), edit(300, "a.txt", "restore", 3, 2),
      edit(400, "a.txt", "checkin", 4, 3),
  };
  const auto stamps = version_stamps(edits, "a.txt", file);
  ASSERT_EQ(stamps.size(), 5u);
  EXPECT_EQ(stamps[0].version, 1u);  // existed before the log began
  EXPECT_EQ(version_as_of(stamps, 0).version, 1u);
  EXPECT_EQ(version_as_of(stamps, 250).kind, AsOfChoice::Kind::deleted);
  EXPECT_EQ(version_as_of(stamps, 350).version, 3u);
  const auto by_version = records_by_version(edits, "a.txt", 4);
  EXPECT_EQ(by_version[1], nullptr);
  EXPECT_EQ(by_version[4]->op, "checkin");
  // A file the log never mentions has existed, as it is, since always.
  EXPECT_EQ(version_as_of(version_stamps({}, "a.txt", file), 0).version, 4u);
}

TEST(VersionChain, TimesPrintAndParseInTheSameForm) {
  const auto t = parse_time("2026-03-04 05:06:07");
  ASSERT_TRUE(t);
  EXPECT_EQ(format_time(*t), "2026-03-04 05:06:07");
  EXPECT_EQ(format_time(*parse_time("2026-03-04")), "2026-03-04 00:00:00");
  EXPECT_EQ(parse_time("1700000000"), 1700000000);
  EXPECT_FALSE(parse_time("yesterday"));
  const auto today = format_time(*parse_time("18:05"));
  EXPECT_EQ(today.substr(0, 10), format_time(std::time(nullptr)).substr(0, 10));
  EXPECT_EQ(today.substr(10), " 18:05:00");
  EXPECT_FALSE(parse_time("18"));
  EXPECT_FALSE(parse_time("25:00"));
  EXPECT_FALSE(parse_time("2026-13-01"));
}

}  // namespace
}  // namespace kst

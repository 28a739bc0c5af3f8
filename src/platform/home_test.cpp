#include "platform/home.hpp"

#include <gtest/gtest.h>

#include "platform/env.hpp"

namespace kx::platform {
namespace {

namespace fs = std::filesystem;

class HomeTest : public ::testing::Test {
 protected:
  void TearDown() override {
    unset_env("ProgramData");
    reset_home_for_testing();
  }
  const fs::path base = fs::temp_directory_path() / "kx-home";
};

TEST_F(HomeTest, OverrideWinsOverEnvironment) {
  set_env("ProgramData", "/data");
  set_home_override(base);
  EXPECT_EQ(home_dir(), base);
  EXPECT_EQ(enrolled_dirs_file(), base / "config" / "versioncontroldirs.cfg");
}

TEST_F(HomeTest, ProgramDataUsedOnlyWhenNotEmpty) {
  set_env("ProgramData", "/data");
  EXPECT_EQ(home_dir(), fs::path("/data") / "Kestrune");
  reset_home_for_testing();
  set_env("ProgramData", "");
  EXPECT_EQ(home_dir(), user_profile_dir() / ".Kestrune");
}

TEST_F(HomeTest, FixedNamesUnderHome) {
  set_home_override(base);
  EXPECT_EQ(contexts_dir(), base / ".contexts");
  EXPECT_EQ(version_mirror_dir(), base / ".versioncontrol");
  EXPECT_EQ(watch_locks_dir(), base / ".watchlocks");
  EXPECT_EQ(legacy_config_file(), base / "Kestrune.cfg");
  EXPECT_EQ(main_config_file(), base / "config" / "Kestrune.cfg");
}

}  // namespace
}  // namespace kx::platform

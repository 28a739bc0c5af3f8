#include "platform/home.hpp"

#include <gtest/gtest.h>

#include "platform/env.hpp"

namespace kx::platform {
namespace {

class HomeTest : public ::testing::Test {
 protected:
  void TearDown() override {
    unset_env("ProgramData");
    reset_home_for_testing();
  }
};

TEST_F(HomeTest, OverrideWinsOverEnvironment) {
  set_env("ProgramData", "/data");
  set_home_override("/tmp/kx-home");
  EXPECT_EQ(home_dir(), "/tmp/kx-home");
  EXPECT_EQ(enrolled_dirs_file(), "/tmp/kx-home/config/versioncontroldirs.cfg");
}

TEST_F(HomeTest, ProgramDataUsedOnlyWhenNotEmpty) {
  set_env("ProgramData", "/data");
  EXPECT_EQ(home_dir(), "/data/Kestrune");
  reset_home_for_testing();
  set_env("ProgramData", "");
  EXPECT_EQ(home_dir(), user_profile_dir() / ".Kestrune");
}

TEST_F(HomeTest, FixedNamesUnderHome) {
  set_home_override("/h");
  EXPECT_EQ(contexts_dir(), "/h/.contexts");
  EXPECT_EQ(version_mirror_dir(), "/h/.versioncontrol");
  EXPECT_EQ(watch_locks_dir(), "/h/.watchlocks");
  EXPECT_EQ(legacy_config_file(), "/h/Kestrune.cfg");
  EXPECT_EQ(main_config_file(), "/h/config/Kestrune.cfg");
}

}  // namespace
}  // namespace kx::platform

#include "platform/login_start.hpp"

#include <gtest/gtest.h>

#include <fstream>

#include "platform/env.hpp"

namespace kx::platform {
namespace {

// Points the entry somewhere private for the test: a scratch config folder on
// Linux; on Windows the registry of the test's own user (the Wine prefix in CI).
class LoginStartTest : public ::testing::Test {
 protected:
  void SetUp() override {
    std::filesystem::create_directories(config_);
    set_env("XDG_CONFIG_HOME", config_.string().c_str());
  }
  void TearDown() override {
    unset_env("XDG_CONFIG_HOME");
    std::filesystem::remove_all(config_);
  }
  const std::filesystem::path config_ =
      std::filesystem::temp_directory_path() / "kx-login-start-test";
};

TEST_F(LoginStartTest, BootsThisProgramWithItsPathQuoted) {
#ifdef _WIN32
  EXPECT_EQ(login_start_text("C:\\Program Files\\kx\\kx.exe"),
            "\"C:\\Program Files\\kx\\kx.exe\" boot");
#else
  std::string text = login_start_text("/opt/my \"kx\"/kx");
  EXPECT_TRUE(text.starts_with("[Desktop Entry]\n"));
  EXPECT_NE(text.find("\nExec=\"/opt/my \\\"kx\\\"/kx\" boot\n"), std::string::npos);
#endif
}

TEST_F(LoginStartTest, IsWrittenWhenMissingAndRepairedWhenDifferent) {
  const std::filesystem::path program = std::filesystem::temp_directory_path() / "kx-test-program";
  ASSERT_TRUE(register_login_start(program));
  EXPECT_EQ(login_start_entry(), login_start_text(program));
  ASSERT_TRUE(register_login_start(program));  // unchanged: nothing to do
  EXPECT_EQ(login_start_entry(), login_start_text(program));
  const std::filesystem::path other = program.parent_path() / "elsewhere";
  ASSERT_TRUE(register_login_start(other));
  EXPECT_EQ(login_start_entry(), login_start_text(other));
  EXPECT_FALSE(register_login_start(""));
}

}  // namespace
}  // namespace kx::platform

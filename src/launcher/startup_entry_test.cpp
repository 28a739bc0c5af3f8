#include "launcher/startup_entry.hpp"

#include <gtest/gtest.h>

#include <fstream>
#include <sstream>

#include "platform/env.hpp"
#include "server/test_client.hpp"

namespace kx::launcher {

TEST(StartupEntry, BootsThisProgramAndQuotesItsPath) {
  std::string text = startup_entry_text("/opt/my \"kx\"/kx");
  EXPECT_NE(text.find("\nExec=\"/opt/my \\\"kx\\\"/kx\" boot\n"), std::string::npos);
  EXPECT_TRUE(text.starts_with("[Desktop Entry]\n"));
}

TEST(StartupEntry, IsWrittenUnderTheConfigHomeAndRewrittenOnlyWhenDifferent) {
  server::testing::TempDir dir;
  platform::set_env("XDG_CONFIG_HOME", dir.path().string().c_str());
  EXPECT_EQ(startup_entry_path(), dir.path() / "autostart" / "kestrune.desktop");
  ASSERT_TRUE(register_startup());
  auto read = [] {
    std::ifstream in(startup_entry_path());
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
  };
  std::string first = read();
  EXPECT_NE(first.find(" boot\n"), std::string::npos);
  auto stamp = std::filesystem::last_write_time(startup_entry_path());
  ASSERT_TRUE(register_startup());
  EXPECT_EQ(std::filesystem::last_write_time(startup_entry_path()), stamp);
  std::ofstream(startup_entry_path()) << "stale";
  ASSERT_TRUE(register_startup());
  EXPECT_EQ(read(), first);
  platform::unset_env("XDG_CONFIG_HOME");
}

}  // namespace kx::launcher

#pragma once
// Test support: a temporary home and working tree, removed afterwards.
#include <gtest/gtest.h>

#include <atomic>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <system_error>

#include "platform/home.hpp"

namespace kst::testing {

inline std::filesystem::path fresh_temp_dir(const std::string& tag) {
  static std::atomic<int> counter{0};
  auto dir =
      std::filesystem::temp_directory_path() /
      ("kx_vfs_" + tag + "_" + std::to_string(::testing::UnitTest::GetInstance()->random_seed()) +
       "_" + std::to_string(counter++) + "_" +
       std::to_string(std::hash<std::string>{}(
           ::testing::UnitTest::GetInstance()->current_test_info()->name())));
  std::filesystem::remove_all(dir);
  std::filesystem::create_directories(dir);
  return dir;
}

inline std::string read_file(const std::filesystem::path& path) {
  std::ifstream in(path, std::ios::binary);
  std::stringstream s;
  s << in.rdbuf();
  return s.str();
}

inline void write_file(const std::filesystem::path& path, const std::string& text) {
  std::filesystem::create_directories(path.parent_path());
  std::ofstream(path, std::ios::binary) << text;
}

// A home directory and a project tree under one temporary directory.
class TempHome : public ::testing::Test {
 protected:
  void SetUp() override {
    base = fresh_temp_dir("home");
    home = base / "home";
    project = base / "proj";
    std::filesystem::create_directories(home);
    std::filesystem::create_directories(project);
    kx::platform::reset_home_for_testing();
    kx::platform::set_home_override(home);
  }
  void TearDown() override {
    kx::platform::set_home_override({});
    kx::platform::reset_home_for_testing();
  }
  // Removed once the test's own members are gone: a store's watcher holds its lock file
  // open until then, and Windows does not delete an open file.
  ~TempHome() override {
    std::error_code ec;
    if (!base.empty()) std::filesystem::remove_all(base, ec);
  }

  std::filesystem::path base, home, project;
};

}  // namespace kst::testing

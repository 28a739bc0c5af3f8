#include "platform/home.hpp"

#include <mutex>
#include <optional>

#include "platform/env.hpp"

namespace kx::platform {
namespace {

std::mutex g_mutex;
std::filesystem::path g_override;
std::optional<std::filesystem::path> g_cached;

std::filesystem::path resolve() {
  if (!g_override.empty()) return std::filesystem::absolute(g_override).lexically_normal();
  if (auto program_data = get_env_nonempty("ProgramData"))
    return std::filesystem::path(*program_data) / "Kestrune";
  return user_profile_dir() / ".Kestrune";
}

}  // namespace

void set_home_override(const std::filesystem::path& dir) {
  std::lock_guard lock(g_mutex);
  g_override = dir;
  g_cached.reset();
}

bool has_home_override() {
  std::lock_guard lock(g_mutex);
  return !g_override.empty();
}

const std::filesystem::path& home_dir() {
  std::lock_guard lock(g_mutex);
  if (!g_cached) g_cached = resolve();
  return *g_cached;
}

void reset_home_for_testing() {
  std::lock_guard lock(g_mutex);
  g_override.clear();
  g_cached.reset();
}

std::filesystem::path user_data_dir() {
  return user_profile_dir() / ".Kestrune";
}
std::filesystem::path config_dir() {
  return home_dir() / "config";
}
std::filesystem::path main_config_file() {
  return config_dir() / "Kestrune.cfg";
}
std::filesystem::path enrolled_dirs_file() {
  return config_dir() / "versioncontroldirs.cfg";
}
std::filesystem::path legacy_config_file() {
  return home_dir() / "Kestrune.cfg";
}
std::filesystem::path contexts_dir() {
  return home_dir() / ".contexts";
}
std::filesystem::path version_mirror_dir() {
  return home_dir() / ".versioncontrol";
}
std::filesystem::path watch_locks_dir() {
  return home_dir() / ".watchlocks";
}

}  // namespace kx::platform

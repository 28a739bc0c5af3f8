#pragma once
// The program's home directory: where configuration, the memory store, the version
// mirror and the watch locks live. Resolved once per process and cached.
#include <filesystem>

namespace kx::platform {

// Installs a home given on the command line (--conf / --home). It wins over the
// environment. Call before the first home_dir(); an empty path clears it.
void set_home_override(const std::filesystem::path& dir);

// Whether a home was given on the command line (a spawned resident is told it too).
bool has_home_override();

// The override if set; else $ProgramData/Kestrune when ProgramData is set and not
// empty; else <user profile>/.Kestrune.
const std::filesystem::path& home_dir();

// <user profile>/.Kestrune: per-user files (bots, chat logs, chat password).
std::filesystem::path user_data_dir();

// The user's profile directory ($HOME on Linux, %USERPROFILE% on Windows).
std::filesystem::path user_profile_dir();

// Fixed names under the home directory.
std::filesystem::path config_dir();          // <home>/config
std::filesystem::path main_config_file();    // <home>/config/Kestrune.cfg
std::filesystem::path enrolled_dirs_file();  // <home>/config/versioncontroldirs.cfg
std::filesystem::path legacy_config_file();  // <home>/Kestrune.cfg
std::filesystem::path contexts_dir();        // <home>/.contexts
std::filesystem::path version_mirror_dir();  // <home>/.versioncontrol
std::filesystem::path watch_locks_dir();     // <home>/.watchlocks

// For tests: forget the cached home so the next home_dir() resolves again.
void reset_home_for_testing();

}  // namespace kx::platform

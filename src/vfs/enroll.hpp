#pragma once
// Enrollment: brings a directory under version control (or cache write-through),
// records it in versioncontroldirs.cfg and makes it the active store.
//
// versioncontroldirs.cfg:
//   [versioncontroldirs]
//   # comment lines and blank lines are ignored
//   /home/me/proj :: scope=all ext=default watch=on mode=vc
// One directory per line, optionally followed by " :: " and its flags. The most
// recently enrolled or re-targeted directory is written last, so it is the active
// store after the next start too.
//
// watchedfiles.cfg: "[watchedfiles]" then one file path per line, same comments.
#include <filesystem>
#include <ostream>
#include <string>
#include <string_view>
#include <vector>

#include "vfs/store_set.hpp"

namespace kst {

// The enroll verb: "<directory> [flags]". `cwd` resolves a relative directory.
// Warnings about damage met while loading go to `warn`. Returns the command result.
std::string enroll(StoreSet& stores, std::string_view args, const std::filesystem::path& cwd,
                   std::ostream& warn);

// The policy verb: "<directory> <flags>" for an enrolled directory.
std::string change_policy(StoreSet& stores, std::string_view args, const std::filesystem::path& cwd,
                          std::ostream& warn);

// The unenroll verb: "<directory>". The directory leaves the set, its watch and
// versioncontroldirs.cfg; its mirror, archives and edit log stay where they are, so
// enrolling it again brings its whole history back.
std::string unenroll(StoreSet& stores, std::string_view args, const std::filesystem::path& cwd);

struct ConfigEntry {
  std::string path;
  std::string flags;  // may be empty
};

// Entries of a configuration file (section headers, comments, blank lines skipped).
std::vector<ConfigEntry> read_config_entries(const std::filesystem::path& file);

}  // namespace kst

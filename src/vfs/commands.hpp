#pragma once
// The handlers of the file families, as free functions over the store set. Each
// returns one command result and never throws.
#include <filesystem>
#include <ostream>
#include <string>
#include <string_view>

#include "vfs/store_set.hpp"

namespace kst {

struct CommandContext {
  StoreSet& stores;
  std::string seat;           // the acting party (the session's bot id)
  std::filesystem::path cwd;  // the session's working directory
  std::ostream& warn;         // warnings of the save path
};

std::string fs_cat(CommandContext& ctx, std::string_view args);
std::string fs_rm(CommandContext& ctx, std::string_view args);
std::string fs_move(CommandContext& ctx, std::string_view args);
std::string fs_copy(CommandContext& ctx, std::string_view args);
std::string fs_restore(CommandContext& ctx, std::string_view args);

std::string fsmk_file(CommandContext& ctx, std::string_view args);
std::string fsmk_dir(CommandContext& ctx, std::string_view args);

std::string fsraw_copy(CommandContext& ctx, std::string_view args);
std::string fsraw_move(CommandContext& ctx, std::string_view args);
std::string fsraw_remove(CommandContext& ctx, std::string_view args);

std::string fsstat_exists(CommandContext& ctx, std::string_view args);
std::string fsstat_version(CommandContext& ctx, std::string_view args);
std::string fsstat_ls(CommandContext& ctx, std::string_view args);
std::string fsstat_stores(CommandContext& ctx, std::string_view args);
std::string fsstat_vcstatus(CommandContext& ctx, std::string_view args);
std::string fsstat_history(CommandContext& ctx, std::string_view args);
std::string fsstat_paths(CommandContext& ctx, std::string_view args);

// The message when no store is active.
inline constexpr const char* kNoStore =
    "ERROR: no disk root (enroll a directory, or setRelativePath/setDiskRoot)";

}  // namespace kst

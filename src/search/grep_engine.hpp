#pragma once
// One grep call from argument text to result text: scope, sources, the parallel
// search, the 96 KB output cap and the summary line. The engine lives as long as
// its process and owns the grep cache and the tracked-tree set.
#include <cstdint>
#include <filesystem>
#include <memory>
#include <string>
#include <string_view>

#include "lang/session.hpp"
#include "search/grep_cache.hpp"
#include "vfs/store_set.hpp"
#include "vfs/tracked_trees.hpp"

namespace kx::search {

inline constexpr std::size_t kOutputCap = 98304;
inline constexpr const char* kTruncationLine =
    "[output truncated at 96KB -- narrow the pattern, or use -l / -c]\n";

struct GrepSettings {
  bool cache_searched_files = true;
  bool track_edit_history = true;
  std::uint64_t cache_limit_bytes = 256ull << 20;
};

// The settings in one configuration text: "grep.cachesearchedfiles",
// "grep.trackedithistory" (on only when "true"; on when absent) and "grep.cachemb",
// written as keys or inside a [grep] section.
GrepSettings parse_grep_settings(std::string_view config_text);

class GrepEngine {
 public:
  // `config_file` is read at every call so that settings apply without a restart.
  // The tracked-tree list is the store set's (the raw file commands read it too).
  GrepEngine(std::shared_ptr<kst::StoreSet> stores, std::filesystem::path config_file);

  std::string run(lang::Session& session, std::string_view args);

  GrepCache& cache() { return cache_; }

 private:
  std::shared_ptr<kst::StoreSet> stores_;
  std::filesystem::path config_file_;
  GrepCache cache_;
  kst::TrackedTrees tracked_;
};

}  // namespace kx::search

#pragma once
// One grep call from argument text to result text: scope, sources, the parallel
// search, the 96 KB output cap and the summary line. The engine lives as long as
// its process and owns the grep cache and the tracked-tree set.
#include <cstdint>
#include <filesystem>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <string_view>

#include "lang/session.hpp"
#include "search/grep_cache.hpp"
#include "vfs/store_set.hpp"

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

// The trees TrackEditHistory remembers, one absolute path per line in
// <home>/config/grep_tracked.cfg (rewritten atomically when a tree joins).
class TrackedTrees {
 public:
  explicit TrackedTrees(std::filesystem::path file) : file_(std::move(file)) {}
  // Adds `tree`; true when it was not remembered before. `error` is set when the
  // set could not be saved (the tree is remembered for this process anyway).
  bool remember(const std::string& tree, std::string& error);
  bool contains(const std::string& tree);

 private:
  void load_locked();
  std::filesystem::path file_;
  std::mutex mutex_;
  bool loaded_ = false;
  std::set<std::string> trees_;
};

class GrepEngine {
 public:
  // `config_file` is read at every call so that settings apply without a restart.
  GrepEngine(std::shared_ptr<kst::StoreSet> stores, std::filesystem::path config_file,
             std::filesystem::path tracked_file);

  std::string run(lang::Session& session, std::string_view args);

  GrepCache& cache() { return cache_; }

 private:
  std::shared_ptr<kst::StoreSet> stores_;
  std::filesystem::path config_file_;
  GrepCache cache_;
  TrackedTrees tracked_;
};

}  // namespace kx::search

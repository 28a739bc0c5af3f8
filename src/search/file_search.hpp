#pragma once
// The search of one file's text: which lines it selects and what grep prints for it.
#include <atomic>
#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

#include "search/grep_options.hpp"
#include "search/matcher.hpp"

namespace kx::search {

// A file is binary when its first block holds a NUL byte.
inline constexpr std::size_t kBinaryProbeBytes = 64 * 1024;
bool looks_binary(std::string_view text);

struct FilePlan {
  const GrepOptions& options;
  const Matcher& matcher;
  bool show_names = false;
  // Set once the result has all the output it can hold: later files only count.
  const std::atomic<bool>* output_full = nullptr;
  // Set by -q at the first selected line anywhere: every file stops.
  std::atomic<bool>* stop_all = nullptr;
};

struct FileResult {
  std::string output;
  std::size_t selected = 0;            // lines selected (matching, or not with -v)
  std::vector<std::size_t> hit_lines;  // 1-based line numbers, for -p
};

// Searches `text`, printed as `name`.
void search_file(std::string_view text, const std::string& name, const FilePlan& plan,
                 MatchScratch& scratch, FileResult& result);

}  // namespace kx::search

#pragma once
// The flags of one grep call, parsed from its argument text.
#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace kx::search {

extern const char* const kGrepUsage;

enum class FileNames { kAuto, kHide, kForce };

struct GrepOptions {
  std::vector<std::string> patterns;  // the pattern word first, then every -e
  std::vector<std::string> scope;     // directories, files or globs; empty = default
  std::vector<std::string> includes, excludes;
  bool ignore_case = false, invert = false, line_numbers = false, words = false;
  bool whole_lines = false, files_with = false, files_without = false, count = false;
  bool only_matching = false, quiet = false, fixed = false, publish = false;
  bool suppress_notes = false;
  FileNames names = FileNames::kAuto;
  std::size_t after = 0, before = 0;
  bool context = false;  // -A/-B/-C given, even as 0: groups are separated by "--"
  std::optional<std::size_t> max_count;
  std::optional<bool> cache, track;  // per-call overrides of the settings
};

// Splits grep's argument text into words: blanks separate, double or single quotes
// group (a backslash-quote inside double quotes is a quote); every other backslash
// stays, since patterns are full of them.
std::vector<std::string> split_grep_words(std::string_view text);

// Parses the words into `options`. Returns the whole answer when there is nothing
// to search: an "ERROR: " text, or the usage for --help and a missing pattern.
[[nodiscard]] std::optional<std::string> parse_grep_options(const std::vector<std::string>& words,
                                                            GrepOptions& options);

// The one regular expression the options ask for: -F escaping, -e alternatives,
// then -x or -w wrapping.
std::string combined_pattern(const GrepOptions& options);

}  // namespace kx::search

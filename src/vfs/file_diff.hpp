#pragma once
// The line diff of two versions of a file, as every history command prints it:
//
//   === FILE DIFF ===
//   FILE1: <label1>  (v<N>)
//   FILE2: <label2>  (v<M>)
//   legend: [ ] same   [-] only in FILE1   [+] only in FILE2
//   ---
//   [ ] <line>        one line per line of the edit script, in order
//   === END DIFF ===
//
// The script is a longest-common-subsequence alignment: the "[ ]" lines are an LCS
// of the two line sequences, so dropping "[+]" lines gives the first text's lines
// and dropping "[-]" lines gives the second's.
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace kst {

struct DiffSide {
  std::string_view label;
  std::uint32_t version = 0;
  std::string_view text;
};

struct DiffLimits {
  // Working memory the diff may take, in bytes; 0 means "whatever can be had".
  std::size_t memory_budget = 0;
};

// Never throws: running out of memory yields the "not enough free memory" answer.
std::string file_diff(const DiffSide& first, const DiffSide& second, DiffLimits limits = {});

// The edit script itself, for callers that render it differently.
enum class LineTag : std::uint8_t { same, removed, added };
struct ScriptLine {
  LineTag tag;
  std::uint32_t index;  // line index in the first text (same, removed) or second (added)
};
std::vector<ScriptLine> diff_lines(const std::vector<std::string_view>& first,
                                   const std::vector<std::string_view>& second);

// Lines of a text: split at "\n", a final "\n" does not open an empty last line.
std::vector<std::string_view> split_lines(std::string_view text);

}  // namespace kst

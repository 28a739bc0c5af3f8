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
// and dropping "[-]" lines gives the second's. Large inputs (past kOndCells line
// pairs once the common ends are stripped) are aligned by the O(ND) method instead, and
// a "note:" line before "---" says so; its search is bounded, and a part past the
// bound is shown removed then added (still a correct script, not a shortest one).
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

// Past this many line pairs the middle is aligned by the O(ND) method, and each of its
// searches stops at kOndMaxDepth differences.
inline constexpr std::uint64_t kOndCells = 400'000'000;
inline constexpr std::size_t kOndMaxDepth = 6'000;

struct DiffMethod {
  bool ond = false;           // aligned by the O(ND) method
  bool approximated = false;  // some part went past its search bound
};

std::vector<ScriptLine> diff_lines(const std::vector<std::string_view>& first,
                                   const std::vector<std::string_view>& second,
                                   DiffMethod* method = nullptr);

// Lines of a text: split at "\n", a final "\n" does not open an empty last line.
std::vector<std::string_view> split_lines(std::string_view text);

}  // namespace kst

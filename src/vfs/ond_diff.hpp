#pragma once
// A shortest edit script of two sequences of line ids by Myers' O(ND) method, in linear
// space (the middle snake, then divide and conquer). Its time grows with the number of
// differences D rather than with the product of the lengths, which is what keeps a diff
// of two large, mostly equal versions fast.
//
// Bounded: a part whose middle snake is not found within `max_depth` steps is not
// searched further; its lines are reported as removed, then added. The script is then
// still a correct one (dropping "added" lines gives the first text, dropping "removed"
// lines the second) but no longer a shortest one, and `approximated` says so.
#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

#include "vfs/file_diff.hpp"

namespace kst {

struct OndResult {
  bool approximated = false;
};

// Appends the script of a[...] against b[...] to `out`; `a_base` and `b_base` are the
// line numbers of a[0] and b[0] in the whole texts.
OndResult ond_diff(std::span<const std::uint32_t> a, std::uint32_t a_base,
                   std::span<const std::uint32_t> b, std::uint32_t b_base,
                   std::vector<ScriptLine>& out, std::size_t max_depth);

}  // namespace kst

#pragma once
// Shortest edit distances (insertions and deletions only) from the start of two
// sequences to every point of one row, found by walking the furthest-reaching paths
// of each distance in turn. When the sequences differ by few edits this costs about
// their length plus the square of the distance, far less than a full row of longest
// common subsequence lengths, and the numbers are exact: distance d to (row, j) means
// LCS(a[0..row), b[0..j)) = (row + j - d) / 2.
#include <cstdint>
#include <optional>
#include <span>
#include <vector>

namespace kst {

inline constexpr std::uint32_t kFarther = UINT32_MAX;

// to_row[j] = the distance from (0, 0) to (row, j) for j = 0..b.size(), or kFarther
// when it is above `cap`. Answers the distance of the whole pair, from (0, 0) to
// (a.size(), b.size()); nothing when that is above `cap` (to_row is then incomplete).
// With `until_end` false the walk stops after distance `cap` whether or not the end
// was reached, and the answer is the whole pair's distance only when it was.
std::optional<std::uint32_t> edits_to_row(std::span<const std::uint32_t> a,
                                          std::span<const std::uint32_t> b, std::size_t row,
                                          std::uint32_t cap, std::vector<std::uint32_t>& to_row);

}  // namespace kst

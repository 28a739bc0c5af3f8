#pragma once
// One row of longest-common-subsequence lengths: for a sequence `a` and every
// prefix of a sequence `b`, LCS(a, b[0..j)). Hirschberg's diff needs exactly these
// rows (forward for one half, backward for the other), and they can be computed a
// machine word of columns at a time. Symbols are interned line ids.
#include <cstdint>
#include <span>
#include <vector>

namespace kst {

// row[j] = LCS(a, b[0..j)) for j = 0..b.size(); row is resized to b.size() + 1.
// Bit-parallel: one bit per column of b, rows without a match in b cost nothing.
void lcs_row(std::span<const std::uint32_t> a, std::span<const std::uint32_t> b,
             std::vector<std::uint32_t>& row);

// The same numbers from the textbook cell-by-cell recurrence. Kept as the reference
// the fast rows are checked and measured against.
void lcs_row_cells(std::span<const std::uint32_t> a, std::span<const std::uint32_t> b,
                   std::vector<std::uint32_t>& row);

}  // namespace kst

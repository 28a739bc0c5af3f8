#include "vfs/edit_frontier.hpp"

namespace kst {

std::optional<std::uint32_t> edits_to_row(std::span<const std::uint32_t> a,
                                          std::span<const std::uint32_t> b, std::size_t row,
                                          std::uint32_t cap, std::vector<std::uint32_t>& to_row) {
  const auto n = static_cast<std::int64_t>(a.size());
  const auto m = static_cast<std::int64_t>(b.size());
  const auto r = static_cast<std::int64_t>(row);
  to_row.assign(b.size() + 1, kFarther);
  // Diagonal k holds the points with x - y = k (x indexes a, y indexes b); within
  // `cap` edits only diagonals -cap - 1 .. cap + 1 are ever read. reach[k + cap + 1] is
  // the largest x reached on diagonal k with the current distance's parity, -1 while
  // none.
  const auto band = static_cast<std::int64_t>(cap) + 1;
  std::vector<std::int64_t> reach(static_cast<std::size_t>(2 * band + 1), -1);
  auto at = [&](std::int64_t k) -> std::int64_t& {
    return reach[static_cast<std::size_t>(k + band)];
  };
  std::optional<std::uint32_t> whole;
  for (std::int64_t d = 0; d <= static_cast<std::int64_t>(cap); ++d) {
    for (std::int64_t k = -d; k <= d; k += 2) {
      if (k < -m || k > n) continue;
      std::int64_t x = -1;
      if (d == 0) {
        x = 0;
      } else {
        // A deletion from diagonal k - 1 moves x on; an insertion from k + 1 moves y
        // on. Either must stay inside the grid.
        if (k - 1 >= -m && at(k - 1) >= 0 && at(k - 1) < n) x = at(k - 1) + 1;
        if (k + 1 <= n && at(k + 1) >= 0 && at(k + 1) - k <= m) x = std::max(x, at(k + 1));
      }
      // Kept from an earlier distance of this parity when no move improves on it.
      x = std::max(x, at(k));
      if (x < 0) continue;
      std::int64_t y = x - k;
      while (x < n && y < m && a[static_cast<std::size_t>(x)] == b[static_cast<std::size_t>(y)]) {
        ++x;
        ++y;
      }
      // Distances only grow along a diagonal, so the first distance whose path passes
      // the row here is the point's own.
      const std::int64_t j = r - k;
      if (x >= r && j >= 0 && j <= m && to_row[static_cast<std::size_t>(j)] == kFarther)
        to_row[static_cast<std::size_t>(j)] = static_cast<std::uint32_t>(d);
      at(k) = x;
      if (x == n && y == m) whole = static_cast<std::uint32_t>(d);
    }
    // Finish the distance that reached the end: the row's points at that distance
    // belong to the answer too.
    if (whole) return whole;
  }
  return std::nullopt;
}

}  // namespace kst

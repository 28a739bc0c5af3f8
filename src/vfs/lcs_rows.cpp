#include "vfs/lcs_rows.hpp"

#include <algorithm>
#include <unordered_map>

namespace kst {

// Bit j of V is 0 where column j raised the LCS of the rows seen so far (Hyyro's
// formulation): for each row symbol c with match mask M,
//   U = V & M;  V = (V + U) | (V & ~M)
// and LCS(a, b[0..j)) is the number of zero bits of V below j. The addition carries
// across words from column 0 upward; a word without matches and without an incoming
// carry is left as it is, so only matching words and carry chains are touched.
void lcs_row(std::span<const std::uint32_t> a, std::span<const std::uint32_t> b,
             std::vector<std::uint32_t>& row) {
  const std::size_t m = b.size();
  row.assign(m + 1, 0);
  if (m == 0 || a.empty()) return;

  // Columns of each symbol of b, ascending.
  std::unordered_map<std::uint32_t, std::vector<std::uint32_t>> columns;
  columns.reserve(m);
  for (std::size_t j = 0; j < m; ++j) columns[b[j]].push_back(static_cast<std::uint32_t>(j));

  const std::size_t words = (m + 63) / 64;
  // A symbol with at least one column per word on average gets a dense mask and the
  // plain word loop; at most 64 symbols qualify, so the masks stay within m words.
  std::unordered_map<std::uint32_t, std::vector<std::uint64_t>> dense;
  for (const auto& [symbol, cols] : columns) {
    if (cols.size() < words) continue;
    std::vector<std::uint64_t>& mask = dense[symbol];
    mask.assign(words, 0);
    for (std::uint32_t j : cols) mask[j / 64] |= std::uint64_t{1} << (j % 64);
  }

  std::vector<std::uint64_t> v(words, ~std::uint64_t{0});
  for (std::uint32_t symbol : a) {
    if (auto d = dense.find(symbol); d != dense.end()) {
      const std::uint64_t* mask = d->second.data();
      std::uint64_t carry = 0;
      for (std::size_t w = 0; w < words; ++w) {
        const std::uint64_t old = v[w];
        const std::uint64_t u = old & mask[w];
        const std::uint64_t sum = old + u;
        const std::uint64_t total = sum + carry;
        carry = (sum < old || total < sum) ? 1 : 0;
        v[w] = total | (old & ~mask[w]);
      }
      continue;
    }
    auto found = columns.find(symbol);
    if (found == columns.end()) continue;
    const std::vector<std::uint32_t>& cols = found->second;
    std::size_t next = 0;
    std::size_t w = cols[0] / 64;
    std::uint64_t carry = 0;
    while (w < words && (next < cols.size() || carry != 0)) {
      if (carry == 0) w = std::max<std::size_t>(w, cols[next] / 64);
      std::uint64_t mask = 0;
      while (next < cols.size() && cols[next] / 64 == w)
        mask |= std::uint64_t{1} << (cols[next++] % 64);
      const std::uint64_t old = v[w];
      const std::uint64_t u = old & mask;
      const std::uint64_t sum = old + u;
      const std::uint64_t total = sum + carry;
      carry = (sum < old || total < sum) ? 1 : 0;
      v[w] = total | (old & ~mask);
      ++w;
    }
  }

  std::uint32_t zeros = 0;
  for (std::size_t w = 0; w < words; ++w) {
    const std::uint64_t z = ~v[w];
    const std::size_t base = w * 64;
    const std::size_t limit = std::min<std::size_t>(64, m - base);
    if (z == 0) {
      for (std::size_t k = 1; k <= limit; ++k) row[base + k] = zeros;
      continue;
    }
    for (std::size_t k = 0; k < limit; ++k) {
      zeros += static_cast<std::uint32_t>((z >> k) & 1);
      row[base + k + 1] = zeros;
    }
  }
}

void lcs_row_cells(std::span<const std::uint32_t> a, std::span<const std::uint32_t> b,
                   std::vector<std::uint32_t>& row) {
  const std::size_t m = b.size();
  row.assign(m + 1, 0);
  std::vector<std::uint32_t> prev(m + 1, 0);
  for (std::uint32_t symbol : a) {
    prev.swap(row);
    row[0] = 0;
    for (std::size_t j = 1; j <= m; ++j)
      row[j] = symbol == b[j - 1] ? prev[j - 1] + 1 : std::max(prev[j], row[j - 1]);
  }
}

}  // namespace kst

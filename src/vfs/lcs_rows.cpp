#include "vfs/lcs_rows.hpp"

#include <algorithm>

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
  // Small blocks (the bottom of a Hirschberg recursion) are cheaper cell by cell
  // than setting up masks.
  if (a.size() * m <= 4096) {
    lcs_row_cells(a, b, row);
    return;
  }
  row.assign(m + 1, 0);

  // Scratch kept per thread: the recursion calls this many times on shrinking ranges.
  thread_local std::vector<std::uint64_t> columns;  // (symbol << 32 | column), sorted
  thread_local std::vector<std::uint64_t> v;
  thread_local std::vector<std::uint64_t> dense_masks;
  thread_local std::vector<std::pair<std::uint32_t, std::size_t>> dense;  // symbol -> mask
  columns.resize(m);
  for (std::size_t j = 0; j < m; ++j) columns[j] = std::uint64_t{b[j]} << 32 | j;
  std::sort(columns.begin(), columns.end());

  const std::size_t words = (m + 63) / 64;
  // A symbol with at least one column per word on average gets a dense mask and the
  // plain word loop; at most 64 symbols qualify, so the masks stay within m words.
  dense.clear();
  dense_masks.clear();
  for (std::size_t i = 0; i < m;) {
    std::size_t k = i;
    while (k < m && columns[k] >> 32 == columns[i] >> 32) ++k;
    if (k - i >= words) {
      dense.emplace_back(static_cast<std::uint32_t>(columns[i] >> 32), dense_masks.size());
      dense_masks.resize(dense_masks.size() + words, 0);
      std::uint64_t* mask = dense_masks.data() + dense.back().second;
      for (std::size_t c = i; c < k; ++c) {
        const auto j = static_cast<std::uint32_t>(columns[c]);
        mask[j / 64] |= std::uint64_t{1} << (j % 64);
      }
    }
    i = k;
  }

  v.assign(words, ~std::uint64_t{0});
  for (std::uint32_t symbol : a) {
    auto d = std::lower_bound(dense.begin(), dense.end(), symbol,
                              [](const auto& e, std::uint32_t s) { return e.first < s; });
    if (d != dense.end() && d->first == symbol) {
      const std::uint64_t* mask = dense_masks.data() + d->second;
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
    const std::uint64_t key = std::uint64_t{symbol} << 32;
    auto first = std::lower_bound(columns.begin(), columns.end(), key);
    if (first == columns.end() || *first >> 32 != symbol) continue;
    auto last = std::lower_bound(first, columns.end(), key + (std::uint64_t{1} << 32));
    auto next = first;
    std::size_t w = static_cast<std::uint32_t>(*first) / 64;
    std::uint64_t carry = 0;
    while (w < words && (next != last || carry != 0)) {
      if (carry == 0) w = std::max<std::size_t>(w, static_cast<std::uint32_t>(*next) / 64);
      std::uint64_t mask = 0;
      while (next != last && static_cast<std::uint32_t>(*next) / 64 == w)
        mask |= std::uint64_t{1} << (static_cast<std::uint32_t>(*next++) % 64);
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

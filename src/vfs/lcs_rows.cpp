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
  if (a.size() * m <= 1024) {
    lcs_row_cells(a, b, row);
    return;
  }
  row.assign(m + 1, 0);

  // Per-symbol tables indexed by line id, kept per thread across calls (the recursion
  // calls this many times on shrinking ranges) and put back to empty for b's symbols
  // before returning, so each call costs O(m) to set up, not a sort.
  constexpr std::uint32_t none = ~std::uint32_t{0};
  thread_local std::vector<std::uint32_t> first_column;  // symbol -> lowest column, or none
  thread_local std::vector<std::uint32_t> column_count;  // symbol -> columns holding it
  thread_local std::vector<std::uint32_t> dense_at;      // symbol -> mask offset, or none
  thread_local std::vector<std::uint32_t> next_column;   // column -> next with its symbol
  thread_local std::vector<std::uint64_t> v;
  thread_local std::vector<std::uint64_t> dense_masks;

  const std::uint32_t top = *std::max_element(b.begin(), b.end());
  if (dense_at.size() <= top) {  // resized last: a failed resize is retried whole
    first_column.resize(std::size_t{top} + 1, none);
    column_count.resize(std::size_t{top} + 1, 0);
    dense_at.resize(std::size_t{top} + 1, none);
  }
  const std::size_t words = (m + 63) / 64;
  // Every allocation happens before the tables are touched: a failed one must not
  // leave them dirty for the next call.
  next_column.resize(m);
  v.assign(words, ~std::uint64_t{0});
  dense_masks.clear();
  dense_masks.reserve(m);
  for (std::size_t j = m; j-- > 0;) {
    next_column[j] = first_column[b[j]];
    first_column[b[j]] = static_cast<std::uint32_t>(j);
    ++column_count[b[j]];
  }

  // A symbol with at least one column per word on average gets a dense mask and the
  // plain word loop; at most m / words symbols qualify, so the masks fit in m words.
  for (std::size_t j = 0; j < m; ++j) {
    const std::uint32_t symbol = b[j];
    if (first_column[symbol] != j || column_count[symbol] < words) continue;
    dense_at[symbol] = static_cast<std::uint32_t>(dense_masks.size());
    dense_masks.resize(dense_masks.size() + words, 0);
    std::uint64_t* mask = dense_masks.data() + dense_at[symbol];
    for (std::uint32_t c = first_column[symbol]; c != none; c = next_column[c])
      mask[c / 64] |= std::uint64_t{1} << (c % 64);
  }

  // Words at and above zero_words are all ones (no column has raised the LCS yet): a
  // carry crosses them without changing anything, which is most of a row's work when
  // lines are unique and the matches run along the diagonal.
  std::size_t zero_words = 0;
  for (std::uint32_t symbol : a) {
    if (symbol > top || first_column[symbol] == none) continue;
    if (dense_at[symbol] != none) {
      const std::uint64_t* mask = dense_masks.data() + dense_at[symbol];
      std::uint64_t carry = 0;
      for (std::size_t w = 0; w < words; ++w) {
        const std::uint64_t old = v[w];
        const std::uint64_t u = old & mask[w];
        const std::uint64_t sum = old + u;
        const std::uint64_t total = sum + carry;
        carry = (sum < old || total < sum) ? 1 : 0;
        v[w] = total | (old & ~mask[w]);
        if (v[w] != ~std::uint64_t{0} && w >= zero_words) zero_words = w + 1;
      }
      continue;
    }
    std::uint32_t next = first_column[symbol];
    std::size_t w = next / 64;
    std::uint64_t carry = 0;
    while (w < words && (next != none || carry != 0)) {
      if (carry == 0) {
        w = std::max<std::size_t>(w, next / 64);
      } else if (w >= zero_words) {
        // All ones from here: a carry passes through unchanged and falls off the end.
        if (next == none) break;
        w = next / 64;
      }
      std::uint64_t mask = 0;
      for (; next != none && next / 64 == w; next = next_column[next])
        mask |= std::uint64_t{1} << (next % 64);
      const std::uint64_t old = v[w];
      const std::uint64_t u = old & mask;
      const std::uint64_t sum = old + u;
      const std::uint64_t total = sum + carry;
      carry = (sum < old || total < sum) ? 1 : 0;
      v[w] = total | (old & ~mask);
      if (v[w] != ~std::uint64_t{0} && w >= zero_words) zero_words = w + 1;
      ++w;
    }
  }
  for (std::uint32_t symbol : b) {
    first_column[symbol] = none;
    column_count[symbol] = 0;
    dense_at[symbol] = none;
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

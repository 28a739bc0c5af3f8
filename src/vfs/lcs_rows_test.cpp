#include "vfs/lcs_rows.hpp"

#include <gtest/gtest.h>

#include <random>

namespace kst {
namespace {

std::vector<std::uint32_t> random_sequence(std::mt19937& rng, std::size_t min_len,
                                           std::size_t max_len, std::uint32_t alphabet) {
  std::uniform_int_distribution<std::size_t> len(min_len, max_len);
  std::uniform_int_distribution<std::uint32_t> symbol(0, alphabet - 1);
  std::vector<std::uint32_t> out(len(rng));
  for (auto& s : out) s = symbol(rng);
  return out;
}

TEST(LcsRows, BitParallelRowsMatchCellByCellOnRandomPairs) {
  std::mt19937 rng(7);
  std::vector<std::uint32_t> fast, slow;
  for (int round = 0; round < 3000; ++round) {
    // Small alphabets give long carry chains and dense masks; large ones sparse
    // columns. Lengths cross several word borders and are above the size that is
    // handed to the cell-by-cell loop.
    const std::uint32_t alphabet = round % 2 == 0 ? 1 + round % 9 : 50 + round % 400;
    const auto a = random_sequence(rng, 70, 150, alphabet);
    const auto b = random_sequence(rng, 70, 400, alphabet);
    lcs_row(a, b, fast);
    lcs_row_cells(a, b, slow);
    ASSERT_EQ(fast, slow) << "round " << round;
  }
}

TEST(LcsRows, AllEqualSymbolsCarryAcrossEveryWord) {
  const std::vector<std::uint32_t> a(300, 5), b(1000, 5);
  std::vector<std::uint32_t> fast, slow;
  lcs_row(a, b, fast);
  lcs_row_cells(a, b, slow);
  EXPECT_EQ(fast, slow);
  EXPECT_EQ(fast.back(), 300u);
  EXPECT_EQ(fast[129], 129u);
}

TEST(LcsRows, EmptySidesGiveZeroRows) {
  std::vector<std::uint32_t> row;
  lcs_row({}, std::vector<std::uint32_t>{1, 2, 3}, row);
  EXPECT_EQ(row, (std::vector<std::uint32_t>{0, 0, 0, 0}));
  lcs_row(std::vector<std::uint32_t>{1}, {}, row);
  EXPECT_EQ(row, (std::vector<std::uint32_t>{0}));
}

}  // namespace
}  // namespace kst

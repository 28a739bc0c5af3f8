#include "vfs/ond_diff.hpp"

#include <gtest/gtest.h>

#include <random>

#include "vfs/lcs_rows.hpp"

namespace kst {
namespace {

using Seq = std::vector<std::uint32_t>;

// Replays a script: the first text from same+removed lines, the second from
// same+added lines, and the number of same lines.
struct Replay {
  Seq first, second;
  std::size_t same = 0;
};

Replay replay(const std::vector<ScriptLine>& script, const Seq& a, const Seq& b) {
  Replay r;
  for (const ScriptLine& line : script) {
    switch (line.tag) {
      case LineTag::same:
        r.first.push_back(a[line.index]);
        ++r.same;
        break;
      case LineTag::removed:
        r.first.push_back(a[line.index]);
        break;
      case LineTag::added:
        r.second.push_back(b[line.index]);
        continue;
    }
    if (line.tag == LineTag::same) r.second.push_back(a[line.index]);
  }
  return r;
}

std::uint32_t lcs_length(const Seq& a, const Seq& b) {
  std::vector<std::uint32_t> row;
  lcs_row_cells(a, b, row);
  return row.back();
}

TEST(OndDiff, ScriptsAreValidAndShortestOnRandomPairs) {
  std::mt19937 rng(7);
  for (int round = 0; round < 300; ++round) {
    const std::size_t n = rng() % 60, m = rng() % 60, alphabet = 1 + rng() % 6;
    Seq a(n), b(m);
    for (auto& v : a) v = rng() % alphabet;
    for (auto& v : b) v = rng() % alphabet;
    std::vector<ScriptLine> script;
    const OndResult r = ond_diff(a, 0, b, 0, script, 1'000);
    const Replay back = replay(script, a, b);
    ASSERT_FALSE(r.approximated);
    ASSERT_EQ(back.first, a) << "round " << round;
    ASSERT_EQ(back.second, b) << "round " << round;
    ASSERT_EQ(back.same, lcs_length(a, b)) << "round " << round;
  }
}

TEST(OndDiff, PastTheBoundTheScriptStaysValidAndSaysSo) {
  std::mt19937 rng(11);
  Seq a(400), b(400);
  for (auto& v : a) v = rng() % 1000;
  for (auto& v : b) v = rng() % 1000;
  a[200] = b[200] = 5000;  // something in common
  std::vector<ScriptLine> script;
  const OndResult r = ond_diff(a, 10, b, 20, script, 3);
  EXPECT_TRUE(r.approximated);
  // Indices are offset by the bases given.
  for (const ScriptLine& line : script)
    EXPECT_GE(line.index, line.tag == LineTag::added ? 20u : 10u);
  for (auto& line : script) line.index -= line.tag == LineTag::added ? 20 : 10;
  const Replay back = replay(script, a, b);
  EXPECT_EQ(back.first, a);
  EXPECT_EQ(back.second, b);
}

}  // namespace
}  // namespace kst

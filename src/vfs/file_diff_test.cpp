#include "vfs/file_diff.hpp"

#include <gtest/gtest.h>

#include <random>
#include <tuple>

namespace kst {
namespace {

// Plain quadratic LCS length: the independent reference for the "[ ]" count.
std::size_t reference_lcs(const std::vector<std::string_view>& a,
                          const std::vector<std::string_view>& b) {
  std::vector<std::vector<std::size_t>> t(a.size() + 1, std::vector<std::size_t>(b.size() + 1));
  for (std::size_t i = 1; i <= a.size(); ++i)
    for (std::size_t j = 1; j <= b.size(); ++j)
      t[i][j] = a[i - 1] == b[j - 1] ? t[i - 1][j - 1] + 1 : std::max(t[i - 1][j], t[i][j - 1]);
  return t[a.size()][b.size()];
}

struct Parsed {
  std::vector<std::string> first, second;  // rebuilt from the printed script
  std::size_t same = 0;
};

// Reads the rendered diff back: "[ ]" and "[-]" lines rebuild the first text,
// "[ ]" and "[+]" lines the second.
Parsed parse_body(const std::string& out) {
  const std::string start = "---\n";
  const std::string end = "=== END DIFF ===\n";
  EXPECT_TRUE(out.ends_with(end));
  std::size_t pos = out.find(start) + start.size();
  Parsed p;
  while (pos < out.size() - end.size()) {
    const std::size_t nl = out.find('\n', pos);
    const std::string line = out.substr(pos, nl - pos);
    const std::string tag = line.substr(0, 4), text = line.substr(4);
    if (tag == "[ ] ") {
      p.first.push_back(text);
      p.second.push_back(text);
      ++p.same;
    } else if (tag == "[-] ") {
      p.first.push_back(text);
    } else if (tag == "[+] ") {
      p.second.push_back(text);
    } else {
      ADD_FAILURE() << "bad line: " << line;
    }
    pos = nl + 1;
  }
  return p;
}

std::string join(const std::vector<std::string>& lines) {
  std::string out;
  for (const auto& l : lines) out += l + "\n";
  return out;
}

std::vector<std::string> random_lines(std::mt19937& rng, std::size_t max_len, int alphabet) {
  std::uniform_int_distribution<std::size_t> len(0, max_len);
  std::uniform_int_distribution<int> pick(0, alphabet - 1);
  std::vector<std::string> lines(len(rng));
  for (auto& l : lines) l = "line " + std::to_string(pick(rng));
  return lines;
}

void expect_valid(const std::vector<std::string>& a, const std::vector<std::string>& b) {
  const std::string ta = join(a), tb = join(b);
  const std::string out = file_diff({"a", 1, ta}, {"b", 2, tb});
  const Parsed p = parse_body(out);
  EXPECT_EQ(p.first, a);
  EXPECT_EQ(p.second, b);
  EXPECT_EQ(p.same, reference_lcs(split_lines(ta), split_lines(tb)));
}

TEST(FileDiff, RandomPairsRebuildBothTextsWithAnOptimalCommonPart) {
  std::mt19937 rng(2024);
  for (int round = 0; round < 2000; ++round) {
    const int alphabet = 1 + round % 12;
    auto a = random_lines(rng, 60, alphabet);
    auto b = random_lines(rng, 60, alphabet);
    expect_valid(a, b);
    if (HasFailure()) FAIL() << "round " << round;
  }
}

TEST(FileDiff, RandomEditsOfOneTextStayOptimal) {
  std::mt19937 rng(99);
  for (int round = 0; round < 300; ++round) {
    auto a = random_lines(rng, 400, 50);
    auto b = a;
    std::uniform_int_distribution<int> op(0, 2);
    for (int e = 0; e < 8 && !b.empty(); ++e) {
      std::uniform_int_distribution<std::size_t> at(0, b.size() - 1);
      const std::size_t k = at(rng);
      switch (op(rng)) {
        case 0:
          b.erase(b.begin() + static_cast<std::ptrdiff_t>(k));
          break;
        case 1:
          b.insert(b.begin() + static_cast<std::ptrdiff_t>(k), "new " + std::to_string(e));
          break;
        default:
          b[k] = "changed " + std::to_string(e);
          break;
      }
    }
    expect_valid(a, b);
    if (HasFailure()) FAIL() << "round " << round;
  }
}

// The textbook Hirschberg recursion with cell-by-cell rows and no shortcuts, over the
// same stripped middle: the script diff_lines must reproduce line for line, ties
// included, so that speeding it up never changes what is printed.
class PlainHirschberg {
 public:
  PlainHirschberg(const std::vector<std::string_view>& a, const std::vector<std::string_view>& b)
      : a_(a), b_(b) {}

  std::vector<ScriptLine> run() {
    std::size_t prefix = 0, suffix = 0;
    while (prefix < a_.size() && prefix < b_.size() && a_[prefix] == b_[prefix]) ++prefix;
    while (suffix < a_.size() - prefix && suffix < b_.size() - prefix &&
           a_[a_.size() - 1 - suffix] == b_[b_.size() - 1 - suffix])
      ++suffix;
    for (std::size_t i = 0; i < prefix; ++i) same(i);
    align(prefix, a_.size() - suffix, prefix, b_.size() - suffix);
    for (std::size_t i = a_.size() - suffix; i < a_.size(); ++i) same(i);
    return out_;
  }

 private:
  // LCS(a[a0..a1), b[b0..j)) for every j, walking forward or (reversed) backward.
  std::vector<std::size_t> row(std::size_t a0, std::size_t a1, std::size_t b0, std::size_t b1,
                               bool backward) const {
    const std::size_t m = b1 - b0;
    std::vector<std::size_t> prev(m + 1, 0), cur(m + 1, 0);
    for (std::size_t i = 0; i < a1 - a0; ++i) {
      const std::string_view x = backward ? a_[a1 - 1 - i] : a_[a0 + i];
      for (std::size_t j = 1; j <= m; ++j) {
        const std::string_view y = backward ? b_[b1 - j] : b_[b0 + j - 1];
        cur[j] = x == y ? prev[j - 1] + 1 : std::max(prev[j], cur[j - 1]);
      }
      prev.swap(cur);
    }
    return prev;
  }

  void align(std::size_t a0, std::size_t a1, std::size_t b0, std::size_t b1) {
    if (a0 == a1) {
      for (std::size_t j = b0; j < b1; ++j) out_.push_back({LineTag::added, index(j)});
      return;
    }
    if (b0 == b1) {
      for (std::size_t i = a0; i < a1; ++i) out_.push_back({LineTag::removed, index(i)});
      return;
    }
    if (a1 - a0 == 1) {
      for (std::size_t j = b0; j < b1; ++j) {
        if (b_[j] != a_[a0]) continue;
        for (std::size_t k = b0; k < j; ++k) out_.push_back({LineTag::added, index(k)});
        same(a0);
        for (std::size_t k = j + 1; k < b1; ++k) out_.push_back({LineTag::added, index(k)});
        return;
      }
      out_.push_back({LineTag::removed, index(a0)});
      for (std::size_t k = b0; k < b1; ++k) out_.push_back({LineTag::added, index(k)});
      return;
    }
    const std::size_t mid = a0 + (a1 - a0) / 2, m = b1 - b0;
    const auto forward = row(a0, mid, b0, b1, false);
    const auto backward = row(mid, a1, b0, b1, true);
    std::size_t split = 0, best = 0;
    for (std::size_t k = 0; k <= m; ++k)
      if (k == 0 || forward[k] + backward[m - k] > best) {
        best = forward[k] + backward[m - k];
        split = k;
      }
    align(a0, mid, b0, b0 + split);
    align(mid, a1, b0 + split, b1);
  }

  void same(std::size_t i) { out_.push_back({LineTag::same, index(i)}); }
  static std::uint32_t index(std::size_t i) { return static_cast<std::uint32_t>(i); }

  const std::vector<std::string_view>& a_;
  const std::vector<std::string_view>& b_;
  std::vector<ScriptLine> out_;
};

std::vector<std::string_view> views(const std::vector<std::string>& lines) {
  return {lines.begin(), lines.end()};
}

void expect_same_script(const std::vector<std::string>& a, const std::vector<std::string>& b) {
  const auto va = views(a), vb = views(b);
  const std::vector<ScriptLine> fast = diff_lines(va, vb);
  const std::vector<ScriptLine> plain = PlainHirschberg(va, vb).run();
  ASSERT_EQ(fast.size(), plain.size());
  for (std::size_t k = 0; k < fast.size(); ++k) {
    ASSERT_EQ(fast[k].tag, plain[k].tag) << "script line " << k;
    ASSERT_EQ(fast[k].index, plain[k].index) << "script line " << k;
  }
}

TEST(FileDiff, ScriptIsExactlyThePlainRecursionsOnRepeatsAndLongEqualRuns) {
  std::mt19937 rng(31);
  for (int round = 0; round < 400; ++round) {
    // Few distinct lines: many equally long alignments, where only the recursion's own
    // tie rules decide which one is printed.
    const int alphabet = 1 + round % 6;
    auto a = random_lines(rng, 300, alphabet);
    auto b = random_lines(rng, 300, alphabet);
    expect_same_script(a, b);
    // Mostly equal texts with repeats: ranges of the recursion that are equal, next to
    // ones that are not.
    b = a;
    std::uniform_int_distribution<int> op(0, 2);
    for (int e = 0; e < 3 && !b.empty(); ++e) {
      std::uniform_int_distribution<std::size_t> at(0, b.size() - 1);
      const std::size_t k = at(rng);
      if (op(rng) == 0)
        b.erase(b.begin() + static_cast<std::ptrdiff_t>(k));
      else
        b.insert(b.begin() + static_cast<std::ptrdiff_t>(k), "line " + std::to_string(e % 2));
    }
    expect_same_script(a, b);
    if (HasFailure()) FAIL() << "round " << round;
  }
}

TEST(FileDiff, FewEditsOverRepeatedLinesKeepTheRecursionsTies) {
  // Texts that differ by a handful of edits split by edit distances; with two or three
  // distinct lines nearly every split point ties, so a wrong distance or a wrong first
  // point shows at once.
  std::mt19937 rng(7);
  for (int round = 0; round < 300; ++round) {
    const int alphabet = 1 + round % 3;
    auto a = random_lines(rng, 40 + round % 200, alphabet);
    auto b = a;
    std::uniform_int_distribution<int> op(0, 2);
    const int edits = 1 + round % 12;
    for (int e = 0; e < edits; ++e) {
      std::uniform_int_distribution<std::size_t> at(0, b.empty() ? 0 : b.size() - 1);
      const std::size_t k = at(rng);
      if (op(rng) == 0 && !b.empty())
        b.erase(b.begin() + static_cast<std::ptrdiff_t>(k));
      else if (op(rng) == 1 && !b.empty())
        b[k] = "line " + std::to_string((e + 1) % alphabet);
      else
        b.insert(b.begin() + static_cast<std::ptrdiff_t>(k), "line " + std::to_string(e % 2));
    }
    expect_same_script(a, b);
    expect_same_script(b, a);
    if (HasFailure()) FAIL() << "round " << round;
  }
}

TEST(FileDiff, PrintsHeaderAndIdenticalVersionsOnlyAsSameLines) {
  const std::string out = file_diff({"src/x.cpp", 3, "a\nb\n"}, {"src/x.cpp", 5, "a\nb\n"});
  EXPECT_EQ(out,
            "=== FILE DIFF ===\n"
            "FILE1: src/x.cpp  (v3)\n"
            "FILE2: src/x.cpp  (v5)\n"
            "legend: [ ] same   [-] only in FILE1   [+] only in FILE2\n"
            "---\n"
            "[ ] a\n"
            "[ ] b\n"
            "=== END DIFF ===\n");
}

TEST(FileDiff, SingleLineBaseCasesPlaceAdditionsAroundTheFirstOccurrence) {
  // Middle "x" against "p x q x r": first occurrence kept, the rest added around it.
  const std::string out = file_diff({"f", 1, "s\nx\ne\n"}, {"f", 2, "s\np\nx\nq\nx\nr\ne\n"});
  EXPECT_NE(out.find("---\n[ ] s\n[+] p\n[ ] x\n[+] q\n[+] x\n[+] r\n[ ] e\n=== END"),
            std::string::npos)
      << out;
  // A single line that does not occur is removed before the additions.
  const std::string gone = file_diff({"f", 1, "s\nx\ne\n"}, {"f", 2, "s\np\nq\ne\n"});
  EXPECT_NE(gone.find("---\n[ ] s\n[-] x\n[+] p\n[+] q\n[ ] e\n"), std::string::npos);
}

TEST(FileDiff, SplitTieTakesTheFirstBestPoint) {
  // "a b" against "b a": splits 0, 1 and 2 all score 1; the first (0) wins, so "a"
  // faces an empty range and "b" aligns with the first line of the second text.
  const std::string out = file_diff({"f", 1, "a\nb\n"}, {"f", 2, "b\na\n"});
  EXPECT_NE(out.find("---\n[-] a\n[ ] b\n[+] a\n=== END"), std::string::npos) << out;
}

TEST(FileDiff, LastLineWithoutNewlineIsStillALine) {
  const std::string out = file_diff({"f", 1, "a\nb"}, {"f", 2, "a\nc"});
  EXPECT_NE(out.find("---\n[ ] a\n[-] b\n[+] c\n=== END"), std::string::npos);
  EXPECT_EQ(split_lines(""), std::vector<std::string_view>{});
  EXPECT_EQ(split_lines("\n"), std::vector<std::string_view>{""});
}

TEST(FileDiff, NulByteMakesItBinary) {
  const std::string with_nul("ab\0c", 4);
  EXPECT_EQ(file_diff({"f", 1, with_nul}, {"f", 2, "abc\n"}), "binary files differ (4 vs 4 bytes)");
}

TEST(FileDiff, MemoryShortfallAnswersWithoutDiffing) {
  const std::string a(1000, 'x'), b(2000, 'y');
  EXPECT_EQ(file_diff({"f", 1, a}, {"f", 2, b}, DiffLimits{.memory_budget = 100}),
            "not enough free memory to diff these files right now (1000 vs 2000 bytes) — close "
            "some things to free RAM and try again");
  EXPECT_TRUE(file_diff({"f", 1, a}, {"f", 2, b}, DiffLimits{.memory_budget = 1 << 20})
                  .starts_with("=== FILE DIFF ==="));
  // 64 bytes for each newline of either side and two more, plus both texts: an
  // unterminated last line counts no newline, an empty text none at all.
  for (const auto& [x, y, need] :
       {std::tuple{"x\ny\n", "x\nz", 5 * 64 + 4 + 3}, std::tuple{"", "\n\n", 4 * 64 + 0 + 2}}) {
    auto diff = [&](std::size_t budget) {
      return file_diff({"f", 1, x}, {"f", 2, y}, DiffLimits{.memory_budget = budget});
    };
    EXPECT_TRUE(diff(need).starts_with("=== FILE DIFF ===")) << need;
    EXPECT_TRUE(diff(need - 1).starts_with("not enough free memory")) << need;
  }
}

}  // namespace
}  // namespace kst

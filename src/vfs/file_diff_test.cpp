#include "vfs/file_diff.hpp"

#include <gtest/gtest.h>

#include <random>

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
}

}  // namespace
}  // namespace kst

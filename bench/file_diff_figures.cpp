// Figures for the line diff. Modes:
//   file_diff_figures gen <dir>        writes base.txt, scattered.txt (1% of the lines
//                                  changed at random places) and block.txt (one run of
//                                  100 lines changed), 10,000 lines each
//   file_diff_figures diff <a> <b>     diffs two files once and prints the time
//   file_diff_figures best <a> <b>     the best time of five diffs of the pair
//   file_diff_figures rows             LCS-length rows: bit-parallel against cell by cell
// bench/diff_vs_gnu.sh runs them next to GNU diff and measures peak memory.
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <fstream>
#include <iostream>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include "vfs/file_diff.hpp"
#include "vfs/lcs_rows.hpp"

namespace {

constexpr int kLines = 10'000;

std::string read_all(const char* path) {
  std::ifstream in(path, std::ios::binary);
  std::stringstream s;
  s << in.rdbuf();
  return s.str();
}

void write_lines(const std::string& path, const std::vector<std::string>& lines) {
  std::ofstream out(path, std::ios::binary);
  for (const auto& l : lines) out << l << '\n';
}

int generate(const std::string& dir) {
  std::mt19937 rng(42);
  std::uniform_int_distribution<int> word(0, 1'000'000);
  std::vector<std::string> base(kLines);
  for (int i = 0; i < kLines; ++i)
    base[i] = "    value_" + std::to_string(i) + " = compute(" + std::to_string(word(rng)) + ");";
  auto scattered = base;
  std::uniform_int_distribution<int> at(0, kLines - 1);
  for (int k = 0; k < kLines / 100; ++k)
    scattered[at(rng)] = "    changed(" + std::to_string(k) + ");";
  auto block = base;
  for (int i = 4'000; i < 4'100; ++i) block[i] = "    rewritten(" + std::to_string(i) + ");";
  write_lines(dir + "/base.txt", base);
  write_lines(dir + "/scattered.txt", scattered);
  write_lines(dir + "/block.txt", block);
  return 0;
}

int diff_runs(const char* a, const char* b, int runs) {
  const std::string ta = read_all(a), tb = read_all(b);
  // Best of several: the machine may be shared, and the best run is the diff's own cost.
  std::string out;
  double best = 1e18;
  for (int run = 0; run < runs; ++run) {
    const auto start = std::chrono::steady_clock::now();
    out = kst::file_diff({a, 1, ta}, {b, 2, tb});
    best = std::min(
        best, std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start)
                  .count());
  }
  std::size_t changed = 0;
  for (std::size_t pos = out.find("\n[", 0); pos != std::string::npos;
       pos = out.find("\n[", pos + 1))
    if (out[pos + 2] != ' ') ++changed;
  std::printf("kx diff: %.1f ms (best of %d), %zu changed lines, %zu bytes of output\n", best, runs,
              changed, out.size());
  return 0;
}

int rows() {
  std::mt19937 rng(7);
  for (std::uint32_t alphabet : {4u, 64u, 5000u}) {
    std::uniform_int_distribution<std::uint32_t> pick(0, alphabet - 1);
    std::vector<std::uint32_t> a(kLines), b(kLines);
    for (auto& s : a) s = pick(rng);
    for (auto& s : b) s = pick(rng);
    std::vector<std::uint32_t> fast, slow;
    auto t0 = std::chrono::steady_clock::now();
    kst::lcs_row(a, b, fast);
    auto t1 = std::chrono::steady_clock::now();
    kst::lcs_row_cells(a, b, slow);
    auto t2 = std::chrono::steady_clock::now();
    const double f = std::chrono::duration<double, std::milli>(t1 - t0).count();
    const double s = std::chrono::duration<double, std::milli>(t2 - t1).count();
    std::printf("rows %dx%d, %u symbols: bit-parallel %.2f ms, cell by cell %.2f ms, x%.1f, %s\n",
                kLines, kLines, alphabet, f, s, s / f, fast == slow ? "same numbers" : "MISMATCH");
    if (fast != slow) return 1;
  }
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  const std::string mode = argc > 1 ? argv[1] : "";
  if (mode == "gen" && argc == 3) return generate(argv[2]);
  if (mode == "diff" && argc == 4) return diff_runs(argv[2], argv[3], 1);
  if (mode == "best" && argc == 4) return diff_runs(argv[2], argv[3], 5);
  if (mode == "rows") return rows();
  std::cerr << "usage: file_diff_figures gen <dir> | diff <a> <b> | best <a> <b> | rows\n";
  return 2;
}

#include "vfs/directory_diff.hpp"

#include <fstream>

namespace kst {

std::string directory_diff(std::string_view label_a, std::string_view label_b, const TreeTexts& a,
                           const TreeTexts& b) {
  std::string out = "=== DIRECTORY DIFF ===\nA: " + std::string(label_a) +
                    "\nB: " + std::string(label_b) +
                    "\ndiffering files (identical files omitted to spare context):\n";
  std::size_t listed = 0;
  auto line = [&](std::string_view mark, std::string_view path) {
    out += mark;
    out += ' ';
    out += path;
    out += '\n';
    ++listed;
  };
  // Both maps are sorted: one merge pass lists every path once, in path order.
  auto ia = a.begin();
  auto ib = b.begin();
  while (ia != a.end() || ib != b.end()) {
    if (ib == b.end() || (ia != a.end() && ia->first < ib->first)) {
      line("[only in A]", ia->first);
      ++ia;
    } else if (ia == a.end() || ib->first < ia->first) {
      line("[only in B]", ib->first);
      ++ib;
    } else {
      if (ia->second != ib->second) line("[differs]", ia->first);
      ++ia;
      ++ib;
    }
  }
  if (listed == 0) out += "(none — trees are identical)\n";
  out += "=== END DIRECTORY DIFF ===\n";
  return out;
}

bool write_diff_summary(const std::filesystem::path& dir, std::string_view summary) {
  std::ofstream out(dir / kDiffSummaryFile, std::ios::binary | std::ios::trunc);
  out.write(summary.data(), static_cast<std::streamsize>(summary.size()));
  out.flush();
  return static_cast<bool>(out);
}

}  // namespace kst

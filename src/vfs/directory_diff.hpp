#pragma once
// The diff of two directory trees: which relative paths exist on one side only and
// which differ. Identical files are left out on purpose, to spare the reader's
// context:
//
//   === DIRECTORY DIFF ===
//   A: <label A>
//   B: <label B>
//   differing files (identical files omitted to spare context):
//   [only in A] <relative path>
//   [only in B] <relative path>
//   [differs] <relative path>
//   === END DIRECTORY DIFF ===
//
// with "(none — trees are identical)" in place of the path lines when there are none.
#include <filesystem>
#include <map>
#include <string>
#include <string_view>

namespace kst {

// Relative path ("src/a.cpp") -> file text, in path order.
using TreeTexts = std::map<std::string, std::string_view, std::less<>>;

std::string directory_diff(std::string_view label_a, std::string_view label_b, const TreeTexts& a,
                           const TreeTexts& b);

// The name of the file the summary is also written to.
inline constexpr std::string_view kDiffSummaryFile = "_DIFF_SUMMARY.txt";

// Writes `summary` to <dir>/_DIFF_SUMMARY.txt; false when it cannot be written.
bool write_diff_summary(const std::filesystem::path& dir, std::string_view summary);

}  // namespace kst

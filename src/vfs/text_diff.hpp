#pragma once
// The line diff of two texts and the diff of two directory trees, as shown by the
// history commands and the node diff operation.
#include <cstdint>
#include <string>
#include <string_view>

namespace kst {

struct Directory;

// "=== FILE DIFF ===" report: common prefix and suffix stripped, the middle diffed
// with Hirschberg's linear-space LCS. Texts holding a NUL byte answer
// "binary files differ (<n> vs <m> bytes)".
std::string file_diff(std::string_view text1, std::string_view label1, std::uint32_t version1,
                      std::string_view text2, std::string_view label2, std::uint32_t version2);

// "=== DIRECTORY DIFF ===" report over the files of two trees by relative path.
std::string directory_diff(const Directory& a, const Directory& b);

}  // namespace kst

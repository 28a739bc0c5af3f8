#include "vfs/text_diff.hpp"

#include <algorithm>
#include <map>
#include <new>
#include <vector>

#include "vfs/node.hpp"

namespace kst {
namespace {

using Lines = std::vector<std::string_view>;

Lines split_lines(std::string_view text) {
  Lines lines;
  std::size_t start = 0;
  while (start < text.size()) {
    std::size_t end = text.find('\n', start);
    if (end == std::string_view::npos) end = text.size();
    lines.push_back(text.substr(start, end - start));
    start = end + 1;
  }
  return lines;
}

void emit(std::string& out, const char* mark, std::string_view line) {
  out += mark;
  out += line;
  out += '\n';
}

// LCS lengths of a[a0,a1) against every prefix of b[b0,b1) (forward) or suffix (backward).
std::vector<std::size_t> lcs_row(const Lines& a, std::size_t a0, std::size_t a1, const Lines& b,
                                 std::size_t b0, std::size_t b1, bool backward) {
  std::size_t n = b1 - b0;
  std::vector<std::size_t> prev(n + 1, 0), cur(n + 1, 0);
  for (std::size_t i = 0; i < a1 - a0; ++i) {
    std::string_view line = backward ? a[a1 - 1 - i] : a[a0 + i];
    for (std::size_t j = 1; j <= n; ++j) {
      std::string_view other = backward ? b[b1 - j] : b[b0 + j - 1];
      cur[j] = line == other ? prev[j - 1] + 1 : std::max(prev[j], cur[j - 1]);
    }
    std::swap(prev, cur);
  }
  return prev;
}

void hirschberg(const Lines& a, std::size_t a0, std::size_t a1, const Lines& b, std::size_t b0,
                std::size_t b1, std::string& out) {
  if (a0 == a1) {
    for (std::size_t j = b0; j < b1; ++j) emit(out, "[+] ", b[j]);
    return;
  }
  if (b0 == b1) {
    for (std::size_t i = a0; i < a1; ++i) emit(out, "[-] ", a[i]);
    return;
  }
  if (a1 - a0 == 1) {
    auto hit = std::find(b.begin() + b0, b.begin() + b1, a[a0]);
    if (hit == b.begin() + b1) {
      emit(out, "[-] ", a[a0]);
      for (std::size_t j = b0; j < b1; ++j) emit(out, "[+] ", b[j]);
      return;
    }
    std::size_t at = static_cast<std::size_t>(hit - b.begin());
    for (std::size_t j = b0; j < at; ++j) emit(out, "[+] ", b[j]);
    emit(out, "[ ] ", a[a0]);
    for (std::size_t j = at + 1; j < b1; ++j) emit(out, "[+] ", b[j]);
    return;
  }
  std::size_t mid = a0 + (a1 - a0) / 2;
  auto forward = lcs_row(a, a0, mid, b, b0, b1, false);
  auto backward = lcs_row(a, mid, a1, b, b0, b1, true);
  std::size_t n = b1 - b0, best = 0, split = 0;
  for (std::size_t k = 0; k <= n; ++k) {
    std::size_t sum = forward[k] + backward[n - k];
    if (k == 0 || sum > best) {
      best = sum;
      split = k;
    }
  }
  hirschberg(a, a0, mid, b, b0, b0 + split, out);
  hirschberg(a, mid, a1, b, b0 + split, b1, out);
}

void collect_files(const Directory& dir, const std::string& prefix,
                   std::map<std::string, const File*>& out) {
  for (const auto& child : dir.children) {
    std::string path = prefix.empty() ? child->name : prefix + "/" + child->name;
    if (const auto* sub = dynamic_cast<const Directory*>(child.get()))
      collect_files(*sub, path, out);
    else if (const auto* file = dynamic_cast<const File*>(child.get()))
      out[path] = file;
  }
}

}  // namespace

std::string file_diff(std::string_view text1, std::string_view label1, std::uint32_t version1,
                      std::string_view text2, std::string_view label2, std::uint32_t version2) {
  if (text1.find('\0') != std::string_view::npos || text2.find('\0') != std::string_view::npos)
    return "binary files differ (" + std::to_string(text1.size()) + " vs " +
           std::to_string(text2.size()) + " bytes)";
  try {
    Lines a = split_lines(text1), b = split_lines(text2);
    std::size_t prefix = 0;
    while (prefix < a.size() && prefix < b.size() && a[prefix] == b[prefix]) ++prefix;
    std::size_t suffix = 0;
    while (suffix < a.size() - prefix && suffix < b.size() - prefix &&
           a[a.size() - 1 - suffix] == b[b.size() - 1 - suffix])
      ++suffix;
    std::string out = "=== FILE DIFF ===\n";
    out += "FILE1: " + std::string(label1) + "  (v" + std::to_string(version1) + ")\n";
    out += "FILE2: " + std::string(label2) + "  (v" + std::to_string(version2) + ")\n";
    out += "legend: [ ] same   [-] only in FILE1   [+] only in FILE2\n---\n";
    for (std::size_t i = 0; i < prefix; ++i) emit(out, "[ ] ", a[i]);
    hirschberg(a, prefix, a.size() - suffix, b, prefix, b.size() - suffix, out);
    for (std::size_t i = a.size() - suffix; i < a.size(); ++i) emit(out, "[ ] ", a[i]);
    out += "=== END DIFF ===\n";
    return out;
  } catch (const std::bad_alloc&) {
    return "not enough free memory to diff these files right now (" + std::to_string(text1.size()) +
           " vs " + std::to_string(text2.size()) +
           " bytes) — close some things to free RAM and try again";
  }
}

std::string directory_diff(const Directory& a, const Directory& b) {
  std::map<std::string, const File*> files_a, files_b;
  collect_files(a, "", files_a);
  collect_files(b, "", files_b);
  std::string out = "=== DIRECTORY DIFF ===\nA: " + a.name + "\nB: " + b.name +
                    "\ndiffering files (identical files omitted to spare context):\n";
  bool any = false;
  for (const auto& [path, file] : files_a) {
    auto other = files_b.find(path);
    if (other == files_b.end()) {
      out += "[only in A] " + path + "\n";
      any = true;
    } else if (other->second->text() != file->text()) {
      out += "[differs] " + path + "\n";
      any = true;
    }
  }
  for (const auto& [path, file] : files_b) {
    if (!files_a.contains(path)) {
      out += "[only in B] " + path + "\n";
      any = true;
    }
  }
  if (!any) out += "(none — trees are identical)\n";
  out += "=== END DIRECTORY DIFF ===\n";
  return out;
}

}  // namespace kst

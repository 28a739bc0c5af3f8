// The node diff operations, over the one line diff (file_diff.cpp) and the one
// directory diff (directory_diff.cpp).
#include "vfs/text_diff.hpp"

#include "platform/home.hpp"
#include "vfs/directory_diff.hpp"
#include "vfs/file_diff.hpp"
#include "vfs/node.hpp"

namespace kst {
namespace {

void collect_files(const Directory& dir, const std::string& prefix, TreeTexts& out) {
  for (const auto& child : dir.children) {
    std::string path = prefix.empty() ? child->name : prefix + "/" + child->name;
    if (const auto* sub = dynamic_cast<const Directory*>(child.get()))
      collect_files(*sub, path, out);
    else if (const auto* file = dynamic_cast<const File*>(child.get()))
      out.emplace(std::move(path), file->text());
  }
}

}  // namespace

std::string file_diff(std::string_view text1, std::string_view label1, std::uint32_t version1,
                      std::string_view text2, std::string_view label2, std::uint32_t version2) {
  return file_diff(DiffSide{label1, version1, text1}, DiffSide{label2, version2, text2});
}

std::string directory_diff(const Directory& a, const Directory& b) {
  TreeTexts files_a, files_b;
  collect_files(a, "", files_a);
  collect_files(b, "", files_b);
  std::string summary = directory_diff(a.name, b.name, files_a, files_b);
  // The summary also goes to a file, for reading after the answer has scrolled away.
  write_diff_summary(kx::platform::home_dir(), summary);
  return summary;
}

}  // namespace kst

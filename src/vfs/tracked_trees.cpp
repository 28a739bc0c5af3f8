#include "vfs/tracked_trees.hpp"

#include <fstream>
#include <system_error>

#include "lang/text.hpp"
#include "platform/durable_file.hpp"

namespace kst {

namespace fs = std::filesystem;

std::set<std::string> TrackedTrees::read(const fs::path& file) {
  std::set<std::string> trees;
  std::ifstream in(file);
  std::string line;
  while (std::getline(in, line)) {
    std::string_view tree = kx::lang::trim(line);
    if (!tree.empty() && tree[0] != '#' && tree[0] != ';' && tree[0] != '[')
      trees.insert(std::string(tree));
  }
  return trees;
}

std::optional<std::string> TrackedTrees::covering(const fs::path& list, const fs::path& file) {
  for (const auto& tree : read(list)) {
    const fs::path rel = file.lexically_relative(fs::path(tree));
    if (!rel.empty() && rel != "." && *rel.begin() != "..") return tree;
  }
  return std::nullopt;
}

bool TrackedTrees::remember(const std::string& tree, std::string& error) {
  std::lock_guard lock(mutex_);
  std::set<std::string> trees = read(file_);
  trees.insert(in_process_.begin(), in_process_.end());
  const bool known = trees.count(tree) > 0;
  in_process_.insert(tree);
  if (known) return false;
  trees.insert(tree);
  std::string text = "[grep.tracked]\n";
  for (const auto& t : trees) text += t + "\n";
  std::error_code ec;
  fs::create_directories(file_.parent_path(), ec);
  // A failure is reported in `error`; the tree is remembered in RAM either way.
  (void)kx::platform::replace_file_durable(file_, text, error);
  return true;
}

}  // namespace kst

#pragma once
// The trees whose tool edits keep history without an enrollment: grep remembers the
// disk trees it searched, and the raw file commands archive the prior bytes of the
// files they change below them. One absolute path per line in
// <home>/config/grep_tracked.cfg, after a "[grep.tracked]" header.
#include <filesystem>
#include <mutex>
#include <optional>
#include <set>
#include <string>

namespace kst {

class TrackedTrees {
 public:
  explicit TrackedTrees(std::filesystem::path file) : file_(std::move(file)) {}

  // Adds `tree`; true when it was not remembered before. The list is read again
  // first, so trees another process remembered are kept. `error` is set when the
  // list could not be saved (the tree is remembered for this process anyway).
  bool remember(const std::string& tree, std::string& error);

  // The remembered trees as the file holds them now.
  static std::set<std::string> read(const std::filesystem::path& file);

  // The remembered tree holding `file` (an absolute path), if any.
  static std::optional<std::string> covering(const std::filesystem::path& list,
                                             const std::filesystem::path& file);

 private:
  std::filesystem::path file_;
  std::mutex mutex_;
  std::set<std::string> in_process_;  // kept even when the list could not be saved
};

}  // namespace kst

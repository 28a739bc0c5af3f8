#pragma once
// From a user's path argument to a store path ("src/a.txt", '/' separated, relative
// to the disk root, never leaving it).
#include <optional>
#include <string>
#include <string_view>

#include "vfs/store.hpp"

namespace kst {

// The store path that `arg` names lexically: an absolute path inside the disk root,
// or a path relative to it. Fails with a message for bytes not allowed in a name,
// "..", paths outside the root, and symbolic links that lead outside it.
std::optional<std::string> store_path_of(const Store& store, std::string_view arg,
                                         std::string& error);

// The first symbolic link at or below `disk` (a file or a folder) whose target lies
// outside the store's root, or nothing. Copies use it to refuse rather than carry
// an outside file into the store.
std::optional<std::filesystem::path> link_out_of_store(const Store& store,
                                                       const std::filesystem::path& disk);

struct Resolved {
  std::string path;  // store path of the node
  bool found = false;
  std::string error;  // set when the argument is invalid or ambiguous
};

// Resolves an argument to an existing node: exact (absolute or root-relative), then a
// unique suffix of the store's paths. Several suffix matches give the did-you-mean
// list in `error`. Not found: found=false with no error.
Resolved resolve_node(const Store& store, std::string_view arg);

}  // namespace kst

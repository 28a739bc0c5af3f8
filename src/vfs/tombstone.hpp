#pragma once
// The tombstone of a deleted file: its mirror copy and archive stay, and a marker
// "<mirror path>.tombstone" holding one line
//   tombstoned v<N> by <seat> at <seconds since the epoch>
// says it is gone, so fs:restore can bring it back and a restart finds it deleted.
#include <filesystem>
#include <optional>
#include <string>

#include "vfs/store.hpp"

namespace kst {

// "<mirror path>.tombstone".
std::filesystem::path tombstone_marker(const std::filesystem::path& mirror);

// Writes `text` to `path` through "<path>.tmp$" and a rename.
bool write_replacing(const std::filesystem::path& path, const std::string& text);

// Keeps the file's last text as its mirror copy when it has none and writes the
// marker. Does not touch the working file. Returns the failure, or nothing.
// REQUIRES: the store's mutex and a Store::ProcessLock held.
std::optional<std::string> write_tombstone(Store& store, const std::string& path, const File& file,
                                           const std::string& seat);

}  // namespace kst

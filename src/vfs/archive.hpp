#pragma once
// The archive of a file's older versions, next to its mirror copy:
//
//   <mirror dir>/<name>                      current version (the mirror copy)
//   <mirror dir>/.<name>.oldversions/<name>.xx<N>   version N, decimal, from 1
//   <mirror dir>/<name>.tombstone            present while the file is tombstoned
//
// Entries named "<name>.xx" or "<name>.xx0", or with anything after the digits, are
// not versions and are ignored. Archive files are never renumbered or pruned.
#include <cstdint>
#include <filesystem>
#include <string>
#include <string_view>
#include <vector>

#include "vfs/node.hpp"

namespace kst {

// Names ending in these are the store's own and refused as user names.
inline constexpr std::string_view kMachinerySuffixes[] = {".tombstone", ".tmp$", ".oldversions"};
inline constexpr std::string_view kTempSuffix = ".tmp$";
inline constexpr std::string_view kTombstoneSuffix = ".tombstone";

bool is_machinery_name(std::string_view name);

// File systems hold names of up to 255 bytes. A versioned file's history lives in
// ".<name>.oldversions", 13 bytes longer than the name, so such a name may hold at
// most 242; a file without history may use all 255.
inline constexpr std::size_t kMaxNameBytes = 255;
inline constexpr std::size_t kMaxVersionedNameBytes = kMaxNameBytes - 13;

// Files whose name begins with this have no mirror copy and no archive.
bool is_unmirrored_name(std::string_view name);

// <mirror dir>/.<name>.oldversions
std::filesystem::path archive_dir_of(const std::filesystem::path& mirror_path);

// The (number, path) pairs of `name` in `archive_dir`, ascending by number.
std::vector<ArchivedVersion> list_archived(const std::filesystem::path& archive_dir,
                                           std::string_view name);

// The first of <name>.xx1, <name>.xx2, ... that does not exist in `archive_dir`.
std::filesystem::path first_free_archive_name(const std::filesystem::path& archive_dir,
                                              std::string_view name, std::uint32_t& number);

}  // namespace kst

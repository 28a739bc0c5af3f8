#pragma once
// The history of one file kept outside every store, as a store keeps a file's: the
// mirror copy <home>/.versioncontrol/<store key of the file's directory>/<name>, the
// older versions in ".<name>.oldversions/<name>.xx<N>" beside it, a "<name>.tombstone"
// marker while the file is gone, and one edit-log record per change in the mirror
// root's ".oldversions/edits.jsonl". Single-file watches and the raw file commands
// (below trees grep remembers) both write it through here.
#include <cstdint>
#include <filesystem>
#include <optional>
#include <ostream>
#include <string>
#include <utility>

#include "vfs/store_set.hpp"

namespace kst {

// Where the history of `file` (absolute, its directory's links resolved) lives.
std::filesystem::path single_file_mirror(const StoreSet& stores, const std::filesystem::path& file);
// The lock whose holder alone writes that history.
std::filesystem::path single_file_lock(const StoreSet& stores, const std::filesystem::path& file);

enum class HistoryStep { kUnchanged, kRecorded, kFailed };

// Size and time of the file when it was read.
using FileStamp = std::pair<std::uintmax_t, std::filesystem::file_time_type>;

// Records what changed since the mirror was written: new bytes (the old mirror copy
// goes to the archive), a delete (the last bytes stay as the mirror copy), a return.
// The record names `seat`. Problems are reported on `report` as "<who> ..." lines;
// kFailed means the current state is not recorded (an unreadable file reports
// nothing). REQUIRES: the caller holds the file's history lock.
[[nodiscard]] HistoryStep record_file_state(const std::filesystem::path& file,
                                            const std::filesystem::path& mirror,
                                            const std::string& seat, const std::string& who,
                                            std::ostream& report,
                                            std::optional<FileStamp>* seen = nullptr);

}  // namespace kst

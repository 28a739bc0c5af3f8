#pragma once
// Changes made behind the store's back (an editor, `echo x >> f`, `rm f`, another kx
// process) brought into the version chain.
//
// The baseline of a file is the last text the store knew: its current version, the
// mirror copy. A working file whose bytes differ from it was edited outside: the
// baseline is archived and the outside bytes become the next version. A working file
// that is gone is recorded as deleted ("delete"): tombstoned, its history kept, so
// fs:restore brings it back.
#include <cstddef>
#include <ostream>
#include <string>

#include "vfs/store.hpp"
#include "vfs/store_set.hpp"

namespace kst {

// The acting party of changes found outside.
inline constexpr const char* kOutsideSeat = "watch";

// Records the enrolled bytes of every file that has no mirror copy yet, so that v1 stays
// the enrolled text whatever happens to the working file before its first save.
// Returns how many baselines could not be written (each warned about).
std::size_t take_baselines(Store& store, std::ostream& warn);

// Applies the edit-log records appended since this process last looked (by another
// process, or by this one) by reloading each named file from its mirror and archive.
// Takes the store's mutex.
void follow_edit_log(Store& store);
// The same for every store of the set.
void follow_edit_logs(StoreSet& stores);

enum class OutsideChange { kNone, kVersioned, kDeleted, kFailed };

// Compares the working file at store path `path` with its baseline and records a
// difference. Takes the store's mutex and its ProcessLock; applies the edit log first
// so that another process's save is not mistaken for an outside edit.
OutsideChange absorb_outside(Store& store, const std::string& path, std::ostream& warn);

// Every file below store path `dir` ("" for the whole tree): new, changed and deleted
// ones. A file whose size matches its baseline and that is older than its mirror copy
// is taken as unchanged without being read. Returns how many changes were recorded.
std::size_t absorb_tree(Store& store, const std::string& dir, std::ostream& warn);

}  // namespace kst

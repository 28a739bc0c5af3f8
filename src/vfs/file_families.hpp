#pragma once
// The file command families "fs:", "fsmk:", "fsraw:", "fsstat:" and the enroll and
// policy verbs, over one set of stores.
#include <filesystem>
#include <memory>
#include <ostream>

#include "lang/registry.hpp"
#include "vfs/enroll.hpp"
#include "vfs/file_watches.hpp"
#include "vfs/store_set.hpp"

namespace kx::vfs {

// Registers the families; the returned set is shared with their handlers (and with
// other families that work on the same stores, such as locks and history). With
// `live_watch` the stores' trees are watched on threads for the life of the process;
// otherwise outside changes are caught up once as each store is loaded.
std::shared_ptr<kst::StoreSet> register_file_families(lang::Registry& registry, bool live_watch);

// The single-file watch verbs (watch, unwatch, watches) over the same stores; the
// returned list follows its files on threads with `live_watch`.
std::shared_ptr<kst::FileWatches> register_file_watches(lang::Registry& registry,
                                                        std::shared_ptr<kst::StoreSet> stores,
                                                        bool live_watch);

// Enrolls again every directory listed in versioncontroldirs.cfg. A line
// ("[versioncontroldirs] <dir> -> <outcome>") goes to `report` only for a directory
// whose outcome changed since the last start: one that vanished or came back, a
// policy edited in the file, an entry that fails. The program passes standard error
// so that standard output carries only command results.
void reenroll_from_config(kst::StoreSet& stores, std::ostream& report);

// Brings the set in line with versioncontroldirs.cfg as another process left it:
// listed directories not in the set are enrolled (the last becomes active, as at a
// start), and stores no longer listed leave the set (their history stays on disk).
void follow_enrolled_dirs(kst::StoreSet& stores, std::ostream& report);

// The store root a listed directory stands for.
std::filesystem::path listed_root(const kst::ConfigEntry& entry);

}  // namespace kx::vfs

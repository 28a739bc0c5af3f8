#pragma once
// The one write path of a versioned file. In order: lock hook, reserved names,
// policy, mkdirs, write "<target>.tmp$" and fsync, promote over the target, then
// mirror copy, archive of the replaced version and mirror promote. A failure after
// the promote never fails the save: it warns and tags the result "mirror-fail".
#include <cstdint>
#include <optional>
#include <ostream>
#include <string>

#include "vfs/store.hpp"

namespace kst {

struct SaveRequest {
  std::string seat = "cli";  // the acting party
  std::string op;            // edit-log op; empty: "create" for v1, else "modify"
  bool dirty = false;        // a dirty check-in over somebody's lock
  // A change made outside the store: the working file already holds the text and is
  // not written again, and no lock can refuse what has already happened.
  bool outside = false;
};

struct SaveResult {
  bool ok = false;
  std::string message;  // on failure: the store's message (no "ERROR: ")
  std::uint32_t version = 0;
  std::uint32_t previous = 0;
  bool mirror_failed = false;
};

// Saves `text` as the new current version of the file at store path `path` (created
// when missing). Takes the store's mutex and its ProcessLock. Warnings go to `warn`.
SaveResult save_file(Store& store, const std::string& path, std::string text,
                     const SaveRequest& request, std::ostream& warn);

// The lock check that every write of a store path (save, tombstone, move, restore)
// runs before it changes anything: the refusal, or nothing. REQUIRES: the store's
// mutex and a Store::ProcessLock held across the check and the write it guards.
std::optional<std::string> check_write(const Store& store, const std::string& path,
                                       const SaveRequest& request);

// The notice appended to the result of every versioned save.
std::string save_notice(const std::string& path, std::uint32_t version);

// Reserved-name and policy refusal for a store path, or nothing when it may be saved.
std::optional<std::string> refuse_path(const Store& store, const std::string& path);

// Records one edit in the store's log; a failure is a warning only.
void record_edit(Store& store, const std::string& path, const std::string& op,
                 const std::string& seat, std::uint32_t new_version, std::uint32_t prev_version,
                 std::ostream& warn);

}  // namespace kst

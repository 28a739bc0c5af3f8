#pragma once
// Carrying out an approved emit: every file of its scope as of its time, written
// over the current files (mode A: saves through the save path, so locks still apply,
// and tombstones for files deleted by then) or into a separate tree (mode B, plain
// files; a file deleted by then is removed from that tree).
#include <filesystem>
#include <ostream>
#include <string>

#include "vfs/emit_plan.hpp"
#include "vfs/store_set.hpp"

namespace kst {

struct EmitCounts {
  std::size_t written = 0;
  std::size_t unchanged = 0;
  std::size_t deleted = 0;
  std::size_t not_yet_existing = 0;  // skipped: the file did not exist at the time
  std::size_t refused = 0;           // mode A saves the lock layer refused
  std::size_t failed = 0;            // mode B files that could not be written
};

enum class EmitMode { over_current, write_out };

// `dest` is the root of the new tree for write_out. `seat` is the approving seat.
// `store` is the active store of `stores`.
EmitCounts run_emit(StoreSet& stores, Store& store, const PendingEmit& emit, EmitMode mode,
                    const std::filesystem::path& dest, const std::string& seat, std::ostream& warn);

// Whether store path `path` lies in `scope` ("" is the whole store).
bool in_scope(std::string_view path, std::string_view scope);

}  // namespace kst

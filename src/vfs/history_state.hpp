#pragma once
// State shared by the handlers of "fslock:" and "fsvctl:", and the steps they share.
#include <memory>
#include <string>
#include <string_view>

#include "lang/registry.hpp"
#include "vfs/emit_plan.hpp"
#include "vfs/seat_locks.hpp"
#include "vfs/store_set.hpp"

namespace kx::vfs {

struct HistoryState {
  explicit HistoryState(std::shared_ptr<kst::StoreSet> set);
  std::shared_ptr<kst::StoreSet> stores;
  kst::SeatLocks locks;
  kst::EmitQueue emits;
};

// A path argument resolved to an existing node of a store.
struct Target {
  kst::Store* store = nullptr;
  std::string path;   // store path
  std::string error;  // complete "ERROR: ..." result when not empty
  bool found = false;
  bool is_file = false;
};

// The store is the one whose disk root holds an absolute argument, else the active
// one. Not found: found=false and no error; the caller words that answer.
Target find_target(kst::StoreSet& stores, std::string_view arg);

lang::Family make_lock_family(std::shared_ptr<HistoryState> state);
lang::Family make_history_family(std::shared_ptr<HistoryState> state);

}  // namespace kx::vfs

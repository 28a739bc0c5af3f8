#pragma once
// The lock layer over every store of the process: one lock table (with its dirty
// set) per store, the save-time check installed as each store's save hooks, and the
// check-out journal that carries held locks across restarts.
//
// Every lock a seat takes (check-out or toggle) is journalled, so a lock taken by
// one `kx` invocation holds for the next. Dirty flags need no journal of their own:
// they are rebuilt from the store's edit log, where a dirty check-in is recorded as
// op "checkin-dirty" and the merge that clears it as op "merge".
//
// The merge: after a dirty check-in the file refuses every plain save. The lock
// holder (or, once nobody holds a lock, any seat) checks in the merged text with
// fsvctl:checkin; that save is recorded as op "merge" and clears the flag. The dirty
// check-in's own bytes were saved as a version, so fsvctl:diff shows both sides.
#include <cstdint>
#include <filesystem>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <ostream>
#include <string>

#include "vfs/checkout_journal.hpp"
#include "vfs/lock_table.hpp"
#include "vfs/store_set.hpp"

namespace kst {

// Edit-log ops of check-ins; the dirty set is rebuilt from them.
inline constexpr std::string_view kOpCheckin = "checkin";
inline constexpr std::string_view kOpCheckinDirty = "checkin-dirty";
inline constexpr std::string_view kOpMerge = "merge";
inline constexpr std::string_view kOpStrandedLock = "reconcile-stranded-lock";

class SeatLocks {
 public:
  SeatLocks(StoreSet& stores, std::filesystem::path journal_file);

  // Installs the save hooks on `store` and takes over its journalled locks and the
  // dirty flags of its edit log. Doing it again changes nothing.
  void attach(Store& store);
  void attach_all();

  // The lock table of an attached store. REQUIRES: the store's lock.
  LockTable& table(Store& store);

  // fslock verbs and check-out / check-in; each returns the command result. `path`
  // is a store path of an existing file.
  std::string status(Store& store, const std::string& path);
  std::string toggle(Store& store, const std::string& path, const std::string& seat);
  std::string transfer(Store& store, const std::string& path, const std::string& seat,
                       const std::string& to);
  std::string checkout(Store& store, const std::string& path, const std::string& seat);
  // Releases `seat`'s lock after a check-in; returns a line about where it went, if
  // it passed to a queued seat.
  std::string release_after_checkin(Store& store, const std::string& path, const std::string& seat);

  // Drops the locks on files the store's policy no longer admits (or that left the
  // store), records each in the edit log, and returns how many there were.
  std::size_t reconcile_stranded(Store& store, std::ostream& warn);

 private:
  struct Held {
    LockTable table;
    std::map<std::string, std::int64_t> since;  // store path -> when its lock was taken
  };
  Held& held(Store& store);
  void note_acquired(Store& store, const std::string& path, std::int64_t at);
  void journal_all();

  StoreSet& stores_;
  CheckoutJournal journal_;
  std::mutex attach_mutex_;
  std::map<const Store*, std::unique_ptr<Held>> held_;
};

// What a check-in means for the lock layer, told to the save path through the
// request: dirty goes over a foreign lock, "merge" clears a dirty flag.
SaveIntent intent_of(bool dirty, std::string_view op);

std::int64_t now_seconds();

}  // namespace kst

#pragma once
// The lock layer over every store of the process: one lock table (with its dirty
// set) per store, the save-time check installed as each store's save hooks, and the
// check-out journal that carries held locks across restarts and between processes.
//
// Every lock a seat takes (check-out or toggle) is in the journal, so the journal is
// the lock table that all kx processes share: a process catches up with it before it
// answers or checks a save, and changes it under the journal's file lock
// ("checkouts.lock" beside it), so two processes never lose each other's changes.
// Dirty flags need no journal of their own: they follow the store's edit log, where
// a dirty check-in is recorded as op "checkin-dirty" and the merge that clears it as
// op "merge"; a process reads the records added since it last looked.
//
// The merge: after a dirty check-in the file refuses every plain save. The lock
// holder (or, once nobody holds a lock, any seat) checks in the merged text with
// fsvctl:checkin; that save is recorded as op "merge" and clears the flag. The dirty
// check-in's own bytes were saved as a version, so fsvctl:diff shows both sides.
//
// Waiting seats (the queue) are known only to the process they asked.
//
// Locks are taken in one order everywhere (see store.hpp): the store's mutex, then its
// ProcessLock (store.lock), then checkouts.lock; held_mutex_ is innermost and guards
// the map only. A lock verb takes store.lock too, so no process can take a lock
// between another process's lock check and the write it lets through.
#include <cstdint>
#include <filesystem>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <ostream>
#include <string>
#include <vector>

#include "platform/durable_file.hpp"
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
  // Takes the hooks off the stores again: a store may outlive its lock layer.
  ~SeatLocks();
  SeatLocks(const SeatLocks&) = delete;
  SeatLocks& operator=(const SeatLocks&) = delete;

  // Installs the save hooks on `store`. Doing it again changes nothing.
  void attach(Store& store);
  void attach_all();

  // The lock table of a store, caught up with the journal and the edit log.
  // REQUIRES: the store's lock.
  LockTable& table(Store& store);

  // fslock verbs and check-out / check-in; each returns the command result. `path`
  // is a store path of an existing file.
  std::string status(Store& store, const std::string& path);
  // Releases `seat`'s lock; a file nobody holds is left as it is ("was not locked").
  std::string unlock(Store& store, const std::string& path, const std::string& seat);
  std::string toggle(Store& store, const std::string& path, const std::string& seat);
  std::string transfer(Store& store, const std::string& path, const std::string& seat,
                       const std::string& to);
  std::string checkout(Store& store, const std::string& path, const std::string& seat);
  // Releases `seat`'s lock after a check-in; returns a line about where it went, if
  // it passed to a queued seat.
  std::string release_after_checkin(Store& store, const std::string& path, const std::string& seat);

  // The file at store path `from` moved to `to`: its lock, dirty flag and journal
  // record follow it.
  void moved(Store& store, const std::string& from, const std::string& to);

  // Drops the locks on files the store's policy no longer admits (or that left the
  // store), records each in the edit log, and returns how many there were.
  std::size_t reconcile_stranded(Store& store, std::ostream& warn);

 private:
  // toggle() once its locks are held.
  std::string toggle_held(Store& store, const std::string& path, const std::string& seat);

  // What a file looked like when last read, to tell whether it changed since.
  struct FileMark {
    std::uintmax_t size = 0;
    std::filesystem::file_time_type time{};
    bool operator==(const FileMark&) const = default;
  };
  struct Held {
    LockTable table;
    std::map<std::string, std::int64_t> since;  // store path -> when its lock was taken
    std::optional<FileMark> journal_seen;
    std::uintmax_t edits_read = 0;  // bytes of the edit log already applied
  };
  Held& held(const Store& store);
  void catch_up(const Store& store);
  void catch_up_journal(const Store& store, Held& h);
  void catch_up_edits(const Store& store, Held& h);
  // Adds a record for a newly taken lock / rewrites this store's part of the journal.
  void journal_taken(const Store& store, const std::string& path, const std::string& seat);
  void journal_store(const Store& store);
  std::optional<FileMark> journal_mark() const;
  // Holds the journal against other processes' changes until destroyed.
  kx::platform::FileLock lock_journal() const;

  StoreSet& stores_;
  CheckoutJournal journal_;
  std::filesystem::path journal_lock_;
  std::mutex held_mutex_;  // guards the map only; each Held is guarded by its store's lock
  std::map<const Store*, std::unique_ptr<Held>> held_;
  std::vector<Store*> attached_;  // the stores whose hooks are ours
};

// What a check-in means for the lock layer, told to the save path through the
// request: dirty goes over a foreign lock, "merge" clears a dirty flag.
SaveIntent intent_of(bool dirty, std::string_view op);

std::int64_t now_seconds();

}  // namespace kst

#pragma once
// Who may save which file. Seats (the user and each bot) lock files; a seat that
// must write over another seat's lock does a dirty check-in, which flags the file
// until the parties merge. The table is keyed by the file's store path, hashed with
// 64-bit FNV-1a.
//
// REQUIRES: external synchronization. The owning store holds its lock around a
// check_save() and the save it guards, so the check and the write are one step.
#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <unordered_set>
#include <vector>

namespace kst {

// 64-bit FNV-1a (offset basis 0xcbf29ce484222325, prime 0x100000001b3).
std::uint64_t fnv1a64(std::string_view bytes);

struct PathHash {
  using is_transparent = void;
  std::size_t operator()(std::string_view path) const {
    return static_cast<std::size_t>(fnv1a64(path));
  }
};

// What the writer means by a save.
enum class SaveIntent {
  plain,          // an ordinary versioned write
  dirty_checkin,  // a check-in that may go over another seat's lock
  merge_checkin,  // a check-in whose text is the merge of a dirty file
};

struct SaveCheck {
  enum class Outcome { proceed, proceed_dirty, proceed_merge, refused };
  Outcome outcome = Outcome::proceed;
  std::string message;  // the refusal, or the dirty check-in notice
  bool allowed() const { return outcome != Outcome::refused; }
};

struct LockStatus {
  std::optional<std::string> holder;
  std::size_t queued = 0;
  bool dirty = false;
};

class LockTable {
 public:
  struct Record {
    std::string holder;
    std::deque<std::string> queue;  // waiting seats, first come first served
  };

  // The save-time check. Changes nothing: a refused save leaves the table as it was,
  // and an allowed one takes effect through commit_save() once the bytes are saved.
  SaveCheck check_save(std::string_view path, std::string_view seat, SaveIntent intent) const;
  void commit_save(std::string_view path, const SaveCheck& check);

  // Unlocked -> locked by `seat`; locked by `seat` -> unlocked (the lock passes to
  // the first queued seat, if any). Locked by another seat: `seat` joins the queue
  // and the answer is an error message.
  struct Toggle {
    bool locked = false;
    std::string message;  // error when not empty
    std::optional<std::string> passed_to;
  };
  Toggle toggle(std::string_view path, std::string_view seat);

  // Takes the lock for `seat` (check-out). Error message when another seat holds it
  // (the seat is queued). Taking a lock one already holds succeeds.
  std::optional<std::string> acquire(std::string_view path, std::string_view seat);

  // Gives up `seat`'s lock, if it holds one; returns the seat the lock passed to.
  std::optional<std::string> release(std::string_view path, std::string_view seat);

  // Hands `seat`'s lock on `path` to `to`. Error message when `seat` is not the holder.
  std::optional<std::string> transfer(std::string_view path, std::string_view seat,
                                      std::string_view to);

  // Makes the holders exactly `holders` (store path -> seat), as another process left
  // them. A lock whose holder is unchanged keeps its queue.
  void adopt_holders(const std::map<std::string, std::string>& holders);
  // Sets or clears the dirty flag directly (when replaying what was recorded).
  void mark_dirty(std::string_view path, bool dirty);
  void clear_dirty() { dirty_.clear(); }

  // The file at `from` now lives at `to`: its lock (holder and queue) and its dirty
  // flag go with it.
  void rename(std::string_view from, std::string_view to);

  // Drops every lock on a path that `admitted` rejects; returns those paths, sorted.
  std::vector<std::string> drop_stranded(const std::function<bool(std::string_view)>& admitted);

  LockStatus status(std::string_view path) const;
  bool is_dirty(std::string_view path) const { return dirty_.contains(path); }
  const std::unordered_map<std::string, Record, PathHash, std::equal_to<>>& locks() const {
    return locks_;
  }

 private:
  std::optional<std::string> pass_on(std::string_view path);

  std::unordered_map<std::string, Record, PathHash, std::equal_to<>> locks_;
  std::unordered_set<std::string, PathHash, std::equal_to<>> dirty_;
};

}  // namespace kst

#include "vfs/lock_table.hpp"

#include <algorithm>

namespace kst {

std::uint64_t fnv1a64(std::string_view bytes) {
  std::uint64_t hash = 0xcbf29ce484222325ull;
  for (unsigned char c : bytes) {
    hash ^= c;
    hash *= 0x100000001b3ull;
  }
  return hash;
}

SaveCheck LockTable::check_save(std::string_view path, std::string_view seat,
                                SaveIntent intent) const {
  using Outcome = SaveCheck::Outcome;
  auto lock = locks_.find(path);
  const bool foreign = lock != locks_.end() && lock->second.holder != seat;
  if (foreign) {
    const std::string& holder = lock->second.holder;
    if (intent == SaveIntent::dirty_checkin)
      return {Outcome::proceed_dirty,
              "dirty check-in over " + holder + "'s lock — merge required (both parties)"};
    return {Outcome::refused, "file is locked (" + holder + ")"};
  }
  if (dirty_.contains(path)) {
    // The merged text comes in as a check-in by the holder (or by anyone once the
    // lock is gone); every other write waits for it.
    if (intent == SaveIntent::merge_checkin) return {Outcome::proceed_merge, ""};
    return {Outcome::refused, "merge required (file was flagged dirty by an earlier op)"};
  }
  return {Outcome::proceed, ""};
}

void LockTable::commit_save(std::string_view path, const SaveCheck& check) {
  if (check.outcome == SaveCheck::Outcome::proceed_dirty) dirty_.emplace(path);
  if (check.outcome == SaveCheck::Outcome::proceed_merge) {
    auto it = dirty_.find(path);
    if (it != dirty_.end()) dirty_.erase(it);
  }
}

LockTable::Toggle LockTable::toggle(std::string_view path, std::string_view seat) {
  auto lock = locks_.find(path);
  if (lock == locks_.end()) {
    locks_.emplace(std::string(path), Record{std::string(seat), {}});
    return {true, "", std::nullopt};
  }
  if (lock->second.holder == seat) return {false, "", release(path, seat)};
  return {false, *acquire(path, seat), std::nullopt};
}

std::optional<std::string> LockTable::acquire(std::string_view path, std::string_view seat) {
  auto lock = locks_.find(path);
  if (lock == locks_.end()) {
    locks_.emplace(std::string(path), Record{std::string(seat), {}});
    return std::nullopt;
  }
  Record& record = lock->second;
  if (record.holder == seat) return std::nullopt;
  auto queued = std::find(record.queue.begin(), record.queue.end(), seat);
  if (queued == record.queue.end())
    queued = record.queue.insert(record.queue.end(), std::string(seat));
  const auto position = std::to_string(queued - record.queue.begin() + 1);
  return "file is locked (" + record.holder + ") — queued as #" + position +
         "; the lock passes to you when it is released";
}

std::optional<std::string> LockTable::release(std::string_view path, std::string_view seat) {
  auto lock = locks_.find(path);
  if (lock == locks_.end() || lock->second.holder != seat) return std::nullopt;
  return pass_on(path);
}

std::optional<std::string> LockTable::pass_on(std::string_view path) {
  auto lock = locks_.find(path);
  Record& record = lock->second;
  if (record.queue.empty()) {
    locks_.erase(lock);
    return std::nullopt;
  }
  record.holder = std::move(record.queue.front());
  record.queue.pop_front();
  return record.holder;
}

std::optional<std::string> LockTable::transfer(std::string_view path, std::string_view seat,
                                               std::string_view to) {
  auto lock = locks_.find(path);
  if (lock == locks_.end()) return "not locked — fslock:toggle locks it first";
  Record& record = lock->second;
  if (record.holder != seat)
    return "only the holder can transfer a lock (" + record.holder + " holds it)";
  std::erase(record.queue, to);
  record.holder = std::string(to);
  return std::nullopt;
}

void LockTable::adopt_holders(const std::map<std::string, std::string>& holders) {
  for (auto it = locks_.begin(); it != locks_.end();) {
    if (holders.contains(it->first))
      ++it;
    else
      it = locks_.erase(it);
  }
  for (const auto& [path, seat] : holders) {
    auto it = locks_.find(path);
    if (it == locks_.end()) {
      locks_.emplace(path, Record{seat, {}});
    } else if (it->second.holder != seat) {
      it->second.holder = seat;
      std::erase(it->second.queue, seat);
    }
  }
}

void LockTable::mark_dirty(std::string_view path, bool dirty) {
  if (dirty) {
    dirty_.emplace(path);
  } else if (auto it = dirty_.find(path); it != dirty_.end()) {
    dirty_.erase(it);
  }
}

void LockTable::rename(std::string_view from, std::string_view to) {
  if (auto lock = locks_.find(from); lock != locks_.end()) {
    Record record = std::move(lock->second);
    locks_.erase(lock);
    locks_.insert_or_assign(std::string(to), std::move(record));
  }
  const bool dirty = is_dirty(from);
  mark_dirty(from, false);
  if (dirty) mark_dirty(to, true);
}

std::vector<std::string> LockTable::drop_stranded(
    const std::function<bool(std::string_view)>& admitted) {
  std::vector<std::string> dropped;
  for (auto it = locks_.begin(); it != locks_.end();) {
    if (admitted(it->first)) {
      ++it;
      continue;
    }
    dropped.push_back(it->first);
    it = locks_.erase(it);
  }
  std::sort(dropped.begin(), dropped.end());
  return dropped;
}

LockStatus LockTable::status(std::string_view path) const {
  LockStatus status;
  if (auto lock = locks_.find(path); lock != locks_.end()) {
    status.holder = lock->second.holder;
    status.queued = lock->second.queue.size();
  }
  status.dirty = dirty_.contains(path);
  return status;
}

}  // namespace kst

#include "vfs/seat_locks.hpp"

#include <chrono>

#include "vfs/edit_log.hpp"
#include "vfs/save_path.hpp"

namespace kst {

namespace fs = std::filesystem;

SaveIntent intent_of(bool dirty, std::string_view op) {
  if (dirty) return SaveIntent::dirty_checkin;
  if (op == kOpMerge) return SaveIntent::merge_checkin;
  return SaveIntent::plain;
}

std::int64_t now_seconds() {
  return std::chrono::duration_cast<std::chrono::seconds>(
             std::chrono::system_clock::now().time_since_epoch())
      .count();
}

SeatLocks::SeatLocks(StoreSet& stores, fs::path journal_file)
    : stores_(stores), journal_(std::move(journal_file)) {}

void SeatLocks::attach_all() {
  for (Store* store : stores_.all()) attach(*store);
}

void SeatLocks::attach(Store& store) {
  {
    std::lock_guard guard(attach_mutex_);
    if (held_.contains(&store)) return;
    held_.emplace(&store, std::make_unique<Held>());
  }
  std::lock_guard guard(store.mutex());
  Held& h = held(store);

  for (const CheckoutRecord& record : journal_.replay()) {
    const fs::path file(record.path);
    if (stores_.containing(file) != &store) continue;
    const std::string path = file.lexically_relative(store.disk_root()).generic_string();
    if (!h.table.acquire(path, record.leaf_id)) h.since[path] = record.at;
  }
  for (const EditRecord& edit : read_edits(store.edit_log_file())) {
    if (edit.op == kOpCheckinDirty) {
      h.table.commit_save(edit.path, {SaveCheck::Outcome::proceed_dirty, ""});
    } else if (edit.op == kOpMerge) {
      h.table.commit_save(edit.path, {SaveCheck::Outcome::proceed_merge, ""});
    }
  }

  // The check and the commit run under the store's lock inside the one save, so the
  // outcome computed after the save is the one that let it through.
  LockTable* table = &h.table;
  store.hooks.before_save = [table](const Store&, const std::string& path,
                                    const SaveRequest& request) -> std::optional<std::string> {
    const SaveCheck check =
        table->check_save(path, request.seat, intent_of(request.dirty, request.op));
    if (!check.allowed()) return check.message;
    return std::nullopt;
  };
  store.hooks.policy_changed = [this](Store& changed) {
    return reconcile_stranded(changed, stores_.report());
  };
  store.hooks.after_save = [table](Store&, const std::string& path, const SaveRequest& request,
                                   const SaveResult&) {
    table->commit_save(path,
                       table->check_save(path, request.seat, intent_of(request.dirty, request.op)));
  };
}

SeatLocks::Held& SeatLocks::held(Store& store) {
  std::lock_guard guard(attach_mutex_);
  return *held_.at(&store);
}

LockTable& SeatLocks::table(Store& store) {
  attach(store);
  return held(store).table;
}

void SeatLocks::note_acquired(Store& store, const std::string& path, std::int64_t at) {
  held(store).since[path] = at;
}

void SeatLocks::journal_all() {
  std::vector<CheckoutRecord> open;
  std::lock_guard guard(attach_mutex_);
  // Check-outs in stores this process has not attached (not enrolled here, or whose
  // enrollment failed) are carried over untouched.
  for (CheckoutRecord& record : journal_.replay()) {
    const Store* owner = stores_.containing(fs::path(record.path));
    if (owner == nullptr || !held_.contains(owner)) open.push_back(std::move(record));
  }
  for (const auto& [store, h] : held_) {
    for (const auto& [path, record] : h->table.locks()) {
      auto since = h->since.find(path);
      open.push_back({record.holder, store->disk_path(path).string(),
                      since != h->since.end() ? since->second : now_seconds()});
    }
  }
  journal_.rewrite(open);
}

std::string SeatLocks::status(Store& store, const std::string& path) {
  std::lock_guard guard(store.mutex());
  const LockStatus s = table(store).status(path);
  std::string out = "OK: " + path + (s.holder ? "  LOCKED by " + *s.holder : "  unlocked");
  if (s.queued > 0) out += "  (queued: " + std::to_string(s.queued) + ")";
  if (s.dirty) out += "  [merge required]";
  return out;
}

std::string SeatLocks::toggle(Store& store, const std::string& path, const std::string& seat) {
  std::lock_guard guard(store.mutex());
  const LockTable::Toggle t = table(store).toggle(path, seat);
  if (!t.message.empty()) return "ERROR: " + t.message;
  if (t.locked) {
    const std::int64_t at = now_seconds();
    note_acquired(store, path, at);
    journal_.append({seat, store.disk_path(path).string(), at});
    return "OK: locked " + path;
  }
  if (t.passed_to) note_acquired(store, path, now_seconds());
  journal_all();
  std::string out = "OK: unlocked " + path;
  if (t.passed_to) out += "\n  lock passed to " + *t.passed_to + " (next in queue)";
  return out;
}

std::string SeatLocks::transfer(Store& store, const std::string& path, const std::string& seat,
                                const std::string& to) {
  std::lock_guard guard(store.mutex());
  if (auto error = table(store).transfer(path, seat, to)) return "ERROR: " + *error;
  note_acquired(store, path, now_seconds());
  journal_all();
  return "OK: transferred lock on " + path + " to " + to;
}

std::string SeatLocks::checkout(Store& store, const std::string& path, const std::string& seat) {
  std::lock_guard guard(store.mutex());
  LockTable& t = table(store);
  const bool already = t.status(path).holder == seat;
  if (auto error = t.acquire(path, seat)) return "ERROR: " + *error;
  if (!already) {
    const std::int64_t at = now_seconds();
    note_acquired(store, path, at);
    journal_.append({seat, store.disk_path(path).string(), at});
  }
  return "OK: checked out " + path;
}

std::string SeatLocks::release_after_checkin(Store& store, const std::string& path,
                                             const std::string& seat) {
  std::lock_guard guard(store.mutex());
  LockTable& t = table(store);
  if (t.status(path).holder != seat) return "";
  const std::optional<std::string> next = t.release(path, seat);
  if (next) note_acquired(store, path, now_seconds());
  journal_all();
  return next ? "\n  lock passed to " + *next + " (next in queue)" : "";
}

std::size_t SeatLocks::reconcile_stranded(Store& store, std::ostream& warn) {
  std::lock_guard guard(store.mutex());
  LockTable& t = table(store);
  std::map<std::string, std::string> holders;
  for (const auto& [path, record] : t.locks()) holders[path] = record.holder;
  const std::vector<std::string> dropped = t.drop_stranded([&](std::string_view path) {
    const std::string p(path);
    return store.versioned() && store.find_file(p) != nullptr && !refuse_path(store, p);
  });
  if (dropped.empty()) return 0;
  for (const std::string& path : dropped) {
    const File* file = store.find_file(path);
    const std::uint32_t version = file != nullptr ? file->current : 0;
    record_edit(store, path, std::string(kOpStrandedLock), holders[path], version, version, warn);
  }
  journal_all();
  return dropped.size();
}

}  // namespace kst

#include "vfs/seat_locks.hpp"

#include <chrono>
#include <fstream>
#include <nlohmann/json.hpp>

#include "lang/text.hpp"
#include "platform/durable_file.hpp"
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
    : stores_(stores), journal_(std::move(journal_file)) {
  journal_lock_ = journal_.file().parent_path() / "checkouts.lock";
}

SeatLocks::~SeatLocks() {
  std::vector<Store*> attached;
  {
    std::lock_guard guard(held_mutex_);
    attached = attached_;
  }
  // A hook that is running holds the store's lock; once it is ours, none can start.
  for (Store* store : attached) {
    std::lock_guard guard(store->mutex());
    store->hooks.before_save = nullptr;
    store->hooks.after_save = nullptr;
    store->hooks.policy_changed = nullptr;
    store->hooks.after_move = nullptr;
  }
}

kx::platform::FileLock SeatLocks::lock_journal() const {
  std::error_code ec;
  fs::create_directories(journal_lock_.parent_path(), ec);
  return kx::platform::FileLock(journal_lock_);
}

void SeatLocks::attach_all() {
  for (Store* store : stores_.all()) attach(*store);
}

void SeatLocks::attach(Store& store) {
  {
    std::lock_guard guard(held_mutex_);
    if (held_.contains(&store)) return;
    held_.emplace(&store, std::make_unique<Held>());
    attached_.push_back(&store);
  }
  std::lock_guard guard(store.mutex());
  // Both hooks run under the store's lock inside the one save, so the outcome
  // computed after the save is the one that let it through.
  store.hooks.before_save = [this](const Store& s, const std::string& path,
                                   const SaveRequest& request) -> std::optional<std::string> {
    catch_up(s);
    const SaveCheck check =
        held(s).table.check_save(path, request.seat, intent_of(request.dirty, request.op));
    if (!check.allowed()) return check.message;
    return std::nullopt;
  };
  store.hooks.after_save = [this](Store& s, const std::string& path, const SaveRequest& request,
                                  const SaveResult&) {
    LockTable& t = held(s).table;
    t.commit_save(path, t.check_save(path, request.seat, intent_of(request.dirty, request.op)));
  };
  store.hooks.after_move = [this](Store& s, const std::string& from, const std::string& to) {
    moved(s, from, to);
  };
  store.hooks.policy_changed = [this](Store& changed) {
    return reconcile_stranded(changed, stores_.report());
  };
}

SeatLocks::Held& SeatLocks::held(const Store& store) {
  std::lock_guard guard(held_mutex_);
  return *held_.at(&store);
}

LockTable& SeatLocks::table(Store& store) {
  attach(store);
  catch_up(store);
  return held(store).table;
}

std::optional<SeatLocks::FileMark> SeatLocks::journal_mark() const {
  std::error_code ec;
  const auto size = fs::file_size(journal_.file(), ec);
  if (ec) return std::nullopt;
  const auto time = fs::last_write_time(journal_.file(), ec);
  if (ec) return std::nullopt;
  return FileMark{size, time};
}

void SeatLocks::catch_up(const Store& store) {
  Held& h = held(store);
  catch_up_journal(store, h);
  catch_up_edits(store, h);
}

void SeatLocks::catch_up_journal(const Store& store, Held& h) {
  const std::optional<FileMark> mark = journal_mark();
  if (h.journal_seen == mark) return;
  std::map<std::string, std::string> holders;
  std::map<std::string, std::int64_t> since;
  for (const CheckoutRecord& record : journal_.replay()) {
    const fs::path file(record.path);
    if (stores_.containing(file) != &store) continue;
    const std::string path = file.lexically_relative(store.disk_root()).generic_string();
    holders[path] = record.leaf_id;
    since[path] = record.at;
  }
  h.table.adopt_holders(holders);
  h.since = std::move(since);
  h.journal_seen = mark;
}

// Applies the edit-log records written since the last look (by any process). Only
// whole lines count; a line still being written is read next time.
void SeatLocks::catch_up_edits(const Store& store, Held& h) {
  std::error_code ec;
  const std::uintmax_t size = fs::file_size(store.edit_log_file(), ec);
  if (ec) return;
  if (size < h.edits_read) {  // the log was replaced: read it again from the start
    h.table.clear_dirty();
    h.edits_read = 0;
  }
  if (size == h.edits_read) return;
  std::ifstream in(store.edit_log_file(), std::ios::binary);
  in.seekg(static_cast<std::streamoff>(h.edits_read));
  std::string tail(size - h.edits_read, '\0');
  in.read(tail.data(), static_cast<std::streamsize>(tail.size()));
  tail.resize(static_cast<std::size_t>(in.gcount()));
  std::size_t start = 0;
  for (std::size_t end; (end = tail.find('\n', start)) != std::string::npos; start = end + 1) {
    const auto record =
        nlohmann::json::parse(tail.begin() + static_cast<std::ptrdiff_t>(start),
                              tail.begin() + static_cast<std::ptrdiff_t>(end), nullptr, false);
    if (!record.is_object()) continue;
    const auto op = record.find("op");
    const auto path = record.find("path");
    if (op == record.end() || path == record.end() || !op->is_string() || !path->is_string())
      continue;
    if (*op == kOpCheckinDirty) h.table.mark_dirty(path->get<std::string>(), true);
    if (*op == kOpMerge) h.table.mark_dirty(path->get<std::string>(), false);
  }
  h.edits_read += start;
}

void SeatLocks::journal_taken(const Store& store, const std::string& path,
                              const std::string& seat) {
  Held& h = held(store);
  const std::int64_t at = now_seconds();
  h.since[path] = at;
  journal_.append({seat, store.disk_path(path).string(), at});
  h.journal_seen = journal_mark();
}

void SeatLocks::journal_store(const Store& store) {
  Held& h = held(store);
  // Check-outs of other stores, and of stores this process has not enrolled, are
  // carried over untouched.
  std::vector<CheckoutRecord> open;
  for (CheckoutRecord& record : journal_.replay())
    if (stores_.containing(fs::path(record.path)) != &store) open.push_back(std::move(record));
  for (const auto& [path, record] : h.table.locks()) {
    auto since = h.since.find(path);
    open.push_back({record.holder, store.disk_path(path).string(),
                    since != h.since.end() ? since->second : now_seconds()});
  }
  journal_.rewrite(open);
  h.journal_seen = journal_mark();
}

std::string SeatLocks::status(Store& store, const std::string& path) {
  std::lock_guard guard(store.mutex());
  const LockStatus s = table(store).status(path);
  std::string out =
      "OK: " + kx::lang::printable(path) + (s.holder ? "  LOCKED by " + *s.holder : "  unlocked");
  if (s.queued > 0) out += "  (queued: " + std::to_string(s.queued) + ")";
  if (s.dirty) out += "  [merge required]";
  return out;
}

std::string SeatLocks::toggle(Store& store, const std::string& path, const std::string& seat) {
  std::lock_guard guard(store.mutex());
  const Store::ProcessLock across_processes(store);
  const kx::platform::FileLock journal_guard = lock_journal();
  return toggle_held(store, path, seat);
}

std::string SeatLocks::unlock(Store& store, const std::string& path, const std::string& seat) {
  std::lock_guard guard(store.mutex());
  const Store::ProcessLock across_processes(store);
  const kx::platform::FileLock journal_guard = lock_journal();
  const LockStatus s = table(store).status(path);
  if (!s.holder) return "OK: " + kx::lang::printable(path) + " was not locked";
  if (*s.holder != seat)
    return "ERROR: " + kx::lang::printable(path) + " is locked by " + *s.holder +
           " — only the holder unlocks it (the holder can hand it on with fslock:transfer)";
  return toggle_held(store, path, seat);
}

std::string SeatLocks::toggle_held(Store& store, const std::string& path, const std::string& seat) {
  const LockTable::Toggle t = table(store).toggle(path, seat);
  if (!t.message.empty()) return "ERROR: " + t.message;
  if (t.locked) {
    journal_taken(store, path, seat);
    return "OK: locked " + kx::lang::printable(path);
  }
  if (t.passed_to) held(store).since[path] = now_seconds();
  journal_store(store);
  std::string out = "OK: unlocked " + kx::lang::printable(path);
  if (t.passed_to) out += "\n  lock passed to " + *t.passed_to + " (next in queue)";
  return out;
}

std::string SeatLocks::transfer(Store& store, const std::string& path, const std::string& seat,
                                const std::string& to) {
  std::lock_guard guard(store.mutex());
  const Store::ProcessLock across_processes(store);
  const kx::platform::FileLock journal_guard = lock_journal();
  if (auto error = table(store).transfer(path, seat, to)) return "ERROR: " + *error;
  held(store).since[path] = now_seconds();
  journal_store(store);
  return "OK: transferred lock on " + kx::lang::printable(path) + " to " + to;
}

std::string SeatLocks::checkout(Store& store, const std::string& path, const std::string& seat) {
  std::lock_guard guard(store.mutex());
  const Store::ProcessLock across_processes(store);
  const kx::platform::FileLock journal_guard = lock_journal();
  LockTable& t = table(store);
  const bool already = t.status(path).holder == seat;
  if (auto error = t.acquire(path, seat)) return "ERROR: " + *error;
  if (!already) journal_taken(store, path, seat);
  return "OK: checked out " + kx::lang::printable(path);
}

std::string SeatLocks::release_after_checkin(Store& store, const std::string& path,
                                             const std::string& seat) {
  std::lock_guard guard(store.mutex());
  const Store::ProcessLock across_processes(store);
  const kx::platform::FileLock journal_guard = lock_journal();
  LockTable& t = table(store);
  if (t.status(path).holder != seat) return "";
  const std::optional<std::string> next = t.release(path, seat);
  if (next) held(store).since[path] = now_seconds();
  journal_store(store);
  return next ? "\n  lock passed to " + *next + " (next in queue)" : "";
}

void SeatLocks::moved(Store& store, const std::string& from, const std::string& to) {
  std::lock_guard guard(store.mutex());
  const Store::ProcessLock across_processes(store);
  const kx::platform::FileLock journal_guard = lock_journal();
  LockTable& t = table(store);
  const bool locked = t.status(from).holder.has_value();
  t.rename(from, to);
  Held& h = held(store);
  if (auto since = h.since.find(from); since != h.since.end()) {
    h.since[to] = since->second;
    h.since.erase(from);
  }
  if (locked) journal_store(store);
}

std::size_t SeatLocks::reconcile_stranded(Store& store, std::ostream& warn) {
  std::lock_guard guard(store.mutex());
  const Store::ProcessLock across_processes(store);
  const kx::platform::FileLock journal_guard = lock_journal();
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
  journal_store(store);
  return dropped.size();
}

}  // namespace kst

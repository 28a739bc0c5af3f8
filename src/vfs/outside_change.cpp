#include "vfs/outside_change.hpp"

#include <system_error>
#include <unordered_set>
#include <vector>

#include "platform/file_clone.hpp"
#include "platform/read_file.hpp"
#include "vfs/archive.hpp"
#include "vfs/edit_log.hpp"
#include "vfs/policy.hpp"
#include "vfs/save_path.hpp"
#include "vfs/tombstone.hpp"

namespace kst {

namespace fs = std::filesystem;

namespace {

// Makes the node of `path` what the mirror, the archive and the tombstone marker on
// disk say. REQUIRES: the store's mutex.
void reload_from_disk(Store& store, const std::string& path) {
  fs::path mirror = store.mirror_path(path);
  if (mirror.empty()) return;
  std::error_code ec;
  bool mirrored = fs::exists(mirror, ec);
  auto archived = list_archived(archive_dir_of(mirror), mirror.filename().string());
  if (!mirrored && archived.empty()) {
    // Moved away or never versioned here: nothing of it is left in the store.
    if (!fs::exists(store.disk_path(path), ec) && store.find_file(path) != nullptr)
      store.detach_file(path);
    return;
  }
  std::uint32_t current = archived.empty() ? 1 : archived.back().number + (mirrored ? 1 : 0);
  bool tombstoned = fs::exists(tombstone_marker(mirror), ec);
  // Numbers are handed out under the cross-process lock, so an equal number is the
  // same version (most often this process's own record).
  if (File* known = store.find_file(path);
      known != nullptr && known->current == current && known->tombstoned == tombstoned)
    return;
  std::string text;
  if (!kx::platform::read_whole_file(mirrored ? mirror : archived.back().path, text, 0)) return;
  File& file = store.make_file(path);
  file.versions.clear();
  file.archived = std::move(archived);
  file.push_version(current, std::move(text));
  file.current = current;
  file.tombstoned = tombstoned;
}

bool admitted(const Store& store, const std::string& path) {
  return !refuse_path(store, path).has_value();
}

}  // namespace

std::size_t take_baselines(Store& store, std::ostream& warn) {
  std::lock_guard guard(store.mutex());
  if (!store.versioned() || store.policy().scope == Scope::kEdited) return 0;
  std::size_t failed = 0;
  std::string made_dir;
  for (const auto& [path, file] : store.files()) {
    if (file->tombstoned) continue;
    fs::path mirror = store.mirror_path(path);
    if (mirror.empty()) continue;
    std::error_code ec;
    std::string parent = mirror.parent_path().string();
    if (parent != made_dir) {
      fs::create_directories(mirror.parent_path(), ec);
      made_dir = parent;
    }
    if (fs::exists(mirror, ec)) continue;
    std::string reason;
    // A clone of the working file is the cheap way; when the file changed since it was
    // read, the text read is what the store knows, so that is written instead.
    if (!kx::platform::clone_file(store.disk_path(path), mirror, reason) ||
        fs::file_size(mirror, ec) != file->text().size()) {
      if (!write_replacing(mirror, file->text())) {
        warn << "warning: no baseline for '" << path << "': " << reason << "\n";
        ++failed;
      }
    }
  }
  return failed;
}

void follow_edit_log(Store& store) {
  std::lock_guard guard(store.mutex());
  auto records = read_edits_after(store.edit_log_file(), store.followed_log_bytes);
  std::vector<std::string> seen;
  for (const auto& record : records) {
    bool again = false;
    for (const auto& s : seen) again = again || s == record.path;
    if (again) continue;
    seen.push_back(record.path);
    reload_from_disk(store, record.path);
  }
}

void follow_edit_logs(StoreSet& stores) {
  for (Store* store : stores.all())
    if (store->versioned()) follow_edit_log(*store);
}

OutsideChange absorb_outside(Store& store, const std::string& path, std::ostream& warn) {
  std::lock_guard guard(store.mutex());
  if (!store.versioned() || store.disk_root().empty() || !admitted(store, path))
    return OutsideChange::kNone;
  const Store::ProcessLock across_processes(store);
  follow_edit_log(store);
  fs::path disk = store.disk_path(path);
  std::error_code ec;
  auto status = fs::symlink_status(disk, ec);
  File* file = store.find_file(path);

  if (fs::is_regular_file(status)) {
    // Read under the lock: a save of this process cannot slip in between the read and
    // the comparison and be taken for an outside edit.
    std::string text;
    if (!kx::platform::read_whole_file(disk, text, 0)) return OutsideChange::kNone;
    if (file != nullptr && !file->tombstoned && !file->versions.empty() && file->text() == text)
      return OutsideChange::kNone;
    // Files the store only versions once edited through it are not picked up here.
    if (file == nullptr && store.policy().scope == Scope::kEdited) return OutsideChange::kNone;
    SaveRequest request;
    request.seat = kOutsideSeat;
    request.outside = true;
    request.op = file == nullptr ? "create" : file->tombstoned ? "restore" : "modify";
    SaveResult saved = save_file(store, path, std::move(text), request, warn);
    if (!saved.ok) {
      warn << "warning: watch archive failed for '" << path << "' — keeping baseline, will retry\n";
      return OutsideChange::kFailed;
    }
    return OutsideChange::kVersioned;
  }
  if (status.type() != fs::file_type::not_found) return OutsideChange::kNone;
  if (file == nullptr || file->tombstoned) return OutsideChange::kNone;
  if (auto failure = write_tombstone(store, path, *file, kOutsideSeat)) {
    warn << "warning: watch could not archive final bytes of '" << path
         << "' — not advancing baseline, will retry\n";
    return OutsideChange::kFailed;
  }
  file->tombstoned = true;
  record_edit(store, path, "delete", kOutsideSeat, file->current, file->current, warn);
  return OutsideChange::kDeleted;
}

std::size_t absorb_tree(Store& store, const std::string& dir, std::ostream& warn) {
  std::vector<std::string> suspects;
  {
    std::lock_guard guard(store.mutex());
    if (!store.versioned()) return 0;
    follow_edit_log(store);
    fs::path start = dir.empty() ? store.disk_root() : store.disk_path(dir);
    std::string prefix = dir.empty() ? std::string() : dir + "/";
    std::error_code ec;
    // Every path the walk met, links aside: a store file among them still exists.
    std::unordered_set<std::string> walked;
    fs::recursive_directory_iterator it(start, fs::directory_options::skip_permission_denied, ec);
    for (fs::recursive_directory_iterator end; !ec && it != end; it.increment(ec)) {
      std::error_code sec;
      std::string name = it->path().filename().string();
      bool symlink = it->is_symlink(sec);
      // A link may dangle: whether it leads anywhere is asked below, as before.
      if (!symlink)
        walked.insert(it->path().lexically_relative(store.disk_root()).generic_string());
      if (is_machinery_name(name) || symlink ||
          (!store.excluded().empty() && it->path() == store.excluded())) {
        if (!symlink && it->is_directory(sec)) it.disable_recursion_pending();
        continue;
      }
      if (!it->is_regular_file(sec)) continue;
      std::string rel = it->path().lexically_relative(store.disk_root()).generic_string();
      if (!admitted(store, rel)) continue;
      File* file = store.find_file(rel);
      if (file != nullptr && !file->tombstoned && !file->versions.empty()) {
        fs::path mirror = store.mirror_path(rel);
        auto size = it->file_size(sec);
        auto live_time = it->last_write_time(sec);
        std::error_code mec;
        auto mirror_time = mirror.empty() ? live_time : fs::last_write_time(mirror, mec);
        // Strictly older: a write in the same clock tick as the mirror copy is read.
        if (!sec && !mec && size == file->text().size() && live_time < mirror_time) continue;
      }
      suspects.push_back(std::move(rel));
    }
    for (const auto& [path, file] : store.files()) {
      if (file->tombstoned || !path.starts_with(prefix)) continue;
      std::error_code sec;
      if (walked.count(path) != 0) continue;
      if (!fs::exists(store.disk_path(path), sec) && !sec) suspects.push_back(path);
    }
  }
  std::size_t changes = 0;
  for (const auto& path : suspects) {
    auto outcome = absorb_outside(store, path, warn);
    if (outcome == OutsideChange::kVersioned || outcome == OutsideChange::kDeleted) ++changes;
  }
  return changes;
}

}  // namespace kst

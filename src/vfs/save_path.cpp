#include "vfs/save_path.hpp"

#include <chrono>
#include <system_error>

#include "lang/text.hpp"
#include "platform/durable_file.hpp"
#include "vfs/archive.hpp"
#include "vfs/edit_log.hpp"
#include "vfs/outside_change.hpp"
#include "vfs/tombstone.hpp"

namespace kst {

namespace fs = std::filesystem;

namespace {

// The history half of a save: the new mirror copy staged, and the version it
// replaces moved (or seeded) into the archive. Everything that needs disk space
// happens here, before anything visible changes, so a full disk fails the save
// instead of acknowledging a version the chain cannot hold.
struct MirrorStep {
  std::optional<kx::platform::StagedFile> staged;
  std::filesystem::path archived_slot;  // where the replaced mirror copy went
  bool moved_mirror = false;            // the slot holds the old mirror copy (undo = move back)
  std::uint32_t archived_number = 0;
};

// Returns "" on success, else the step's message; on failure nothing is left behind.
std::string prepare_mirror(const fs::path& mirror, const File& file, const std::string& text,
                           std::uint32_t new_version, MirrorStep& step) {
  std::error_code ec;
  fs::create_directories(mirror.parent_path(), ec);
  if (ec) return "vc mkdirs failed: " + ec.message();
  std::string reason;
  step.staged = kx::platform::StagedFile::stage(mirror, text, reason);
  if (!step.staged) return "vc temp write failed: " + reason;
  if (new_version < 2) return "";
  fs::path dir = archive_dir_of(mirror);
  std::string name = mirror.filename().string();
  if (fs::exists(mirror, ec)) {
    fs::create_directories(dir, ec);
    if (ec) return "vc archive mkdir failed: " + ec.message();
    step.archived_slot = first_free_archive_name(dir, name, step.archived_number);
    fs::rename(mirror, step.archived_slot, ec);
    if (ec) return "vc archive move failed: " + ec.message();
    step.moved_mirror = true;
  } else if (const std::string* previous = file.text_of(file.current)) {
    // No mirror copy yet (the file predates enrollment): seed the archive from RAM so
    // the replaced version is never lost.
    fs::create_directories(dir, ec);
    if (ec) return "vc seed-archive mkdir failed: " + ec.message();
    step.archived_slot = first_free_archive_name(dir, name, step.archived_number);
    if (!kx::platform::write_new_file_durable(step.archived_slot, *previous, reason)) {
      fs::remove(step.archived_slot, ec);
      return "vc seed-archive write failed: " + reason;
    }
  }
  return "";
}

// Puts the history back as it was before prepare_mirror (the save did not happen).
void undo_mirror(const fs::path& mirror, MirrorStep& step) {
  std::error_code ec;
  if (step.moved_mirror)
    fs::rename(step.archived_slot, mirror, ec);
  else if (!step.archived_slot.empty())
    fs::remove(step.archived_slot, ec);
  step.staged.reset();
}

// Another process may have saved this file since it was loaded here: the mirror and
// archive on disk, read under the cross-process lock, are the truth for its number.
void catch_up_with_disk(const Store& store, const std::string& path, File& file) {
  fs::path mirror = store.mirror_path(path);
  std::error_code ec;
  if (mirror.empty() || !fs::exists(mirror, ec)) return;
  auto archived = list_archived(archive_dir_of(mirror), mirror.filename().string());
  std::uint32_t on_disk = archived.empty() ? 1 : archived.back().number + 1;
  if (on_disk > file.current) {
    file.current = on_disk;
    file.archived = std::move(archived);
  }
}

}  // namespace

std::optional<std::string> refuse_path(const Store& store, const std::string& path) {
  std::size_t start = 0;
  while (start <= path.size()) {
    std::size_t end = path.find('/', start);
    if (end == std::string::npos) end = path.size();
    std::string_view part = std::string_view(path).substr(start, end - start);
    if (is_machinery_name(part))
      return "reserved name: '" + kx::lang::printable(part) +
             "' uses a machinery suffix (.tombstone / .tmp$ / .oldversions)";
    start = end + 1;
  }
  const std::string name = fs::path(path).filename().string();
  const bool keeps_history = store.versioned() && !is_unmirrored_name(name);
  const std::size_t limit = keeps_history ? kMaxVersionedNameBytes : kMaxNameBytes;
  if (name.size() > limit)
    return "name too long: '" + kx::lang::printable(name.substr(0, 40)) + "...' is " +
           std::to_string(name.size()) + " bytes; a " +
           (keeps_history ? "versioned file's name holds at most " : "name holds at most ") +
           std::to_string(limit) + " bytes" +
           (keeps_history ? " (its history needs room for the '.oldversions' suffix)" : "");
  // The deepest path a save writes: the archive entry of the file's highest possible
  // version, beside its mirror copy.
  if (keeps_history) {
    const std::size_t deepest = store.mirror_path(path).parent_path().string().size() + 2 +
                                name.size() + 13 + name.size() + 3 + 10;
    if (deepest > kx::platform::max_path_bytes())
      return "path too long: '" + kx::lang::printable(path) + "' needs history paths of " +
             std::to_string(deepest) + " bytes; this system holds at most " +
             std::to_string(kx::platform::max_path_bytes());
  }
  std::string rule;
  if (store.versioned() && !ext_admits(store.policy(), name, rule))
    return "excluded by version-control policy [" + rule + "] — fsraw: writes it unversioned";
  return std::nullopt;
}

std::optional<std::string> check_write(const Store& store, const std::string& path,
                                       const SaveRequest& request) {
  if (!store.hooks.before_save) return std::nullopt;
  return store.hooks.before_save(store, path, request);
}

void record_edit(Store& store, const std::string& path, const std::string& op,
                 const std::string& seat, std::uint32_t new_version, std::uint32_t prev_version,
                 std::ostream& warn) {
  std::string reason;
  if (!append_edit_now(store.edit_log_file(),
                       {.path = path,
                        .op = op,
                        .seat = seat,
                        .new_version = new_version,
                        .prev_version = prev_version,
                        .store = store.disk_root().string()},
                       reason))
    warn << "warning: edit log not written for '" << path << "': " << reason << "\n";
}

SaveResult save_file(Store& store, const std::string& path, std::string text,
                     const SaveRequest& request, std::ostream& warn) {
  SaveResult result;
  std::lock_guard guard(store.mutex());
  if (store.disk_root().empty()) {
    result.message = "no disk root (enroll a directory, or setRelativePath/setDiskRoot)";
    return result;
  }
  // Serialises writes of processes that share this store (the mutex covers threads);
  // taken before the lock check so that no lock can be taken between check and write.
  const Store::ProcessLock across_processes(store);
  if (auto refusal = request.outside ? std::nullopt : check_write(store, path, request)) {
    result.message = *refusal;
    return result;
  }
  if (auto refusal = refuse_path(store, path)) {
    result.message = *refusal;
    return result;
  }
  std::error_code ec;
  fs::path target = store.disk_path(path);
  if (store.is_directory_path(path) || fs::is_directory(target, ec)) {
    result.message = "not a file";
    return result;
  }

  // An outside edit not yet versioned becomes its own version before this one replaces it.
  if (!request.outside && store.versioned()) (void)absorb_outside(store, path, warn);

  // An outside edit is already in the working file: only its history is written.
  std::string reason;
  std::optional<kx::platform::StagedFile> staged;
  if (!request.outside) {
    fs::create_directories(target.parent_path(), ec);
    if (ec) {
      result.message = "mkdirs failed: " + ec.message();
      return result;
    }
    staged = kx::platform::StagedFile::stage(target, text, reason);
    if (!staged) {
      result.message = "temp write failed";
      return result;
    }
  }

  File* existing = store.find_file(path);
  File& file = existing != nullptr ? *existing : store.make_file(path);
  if (store.versioned()) catch_up_with_disk(store, path, file);
  const std::uint32_t version = file.current + 1;

  // History first: a version is only acknowledged once the chain can hold it.
  fs::path mirror = store.versioned() ? store.mirror_path(path) : fs::path();
  MirrorStep step;
  if (!mirror.empty()) {
    std::string failure = prepare_mirror(mirror, file, text, version, step);
    if (!failure.empty()) {
      undo_mirror(mirror, step);
      if (existing == nullptr && file.versions.empty()) store.detach_file(path);
      result.message = "version history not written (" + failure + ") — nothing was saved";
      return result;
    }
  }
  if (staged && !staged->commit(reason)) {
    if (!mirror.empty()) undo_mirror(mirror, step);
    if (existing == nullptr && file.versions.empty()) store.detach_file(path);
    result.message = "promote failed";
    return result;
  }
  if (step.moved_mirror || !step.archived_slot.empty())
    file.archived.push_back({step.archived_number, step.archived_slot});
  result.previous = file.current;
  result.version = version;
  if (!mirror.empty()) {
    // Only a rename is left, which needs no space; should it fail all the same, the
    // live file holds the new bytes and the next save or load picks them up.
    if (!step.staged->commit(reason)) {
      warn << "warning: mirror write failed for '" << kx::lang::printable(path)
           << "': vc promote failed: " << reason << " — version chain not archived\n";
      result.mirror_failed = true;
    } else {
      // A save revives a tombstoned file; a marker left by a crashed fs:rm goes too.
      fs::remove(tombstone_marker(mirror), ec);
    }
  }
  file.tombstoned = false;
  file.push_version(result.version, std::move(text));
  result.ok = true;

  if (store.versioned()) {
    std::string op = !request.op.empty() ? request.op : result.version == 1 ? "create" : "modify";
    record_edit(store, path, op, request.seat, result.version, result.previous, warn);
  }
  if (store.hooks.after_save) store.hooks.after_save(store, path, request, result);
  return result;
}

std::string save_notice(const std::string& path, std::uint32_t version) {
  const std::string shown = kx::lang::printable(path);
  // A first version has nothing to roll back to: the undo is removing the file.
  const std::string undo = version > 1 ? "roll back: 'Kestrune revert " + shown + " to " +
                                             std::to_string(version - 1) + "'"
                                       : "undo: 'fs:rm " + shown + "' (history kept)";
  return "\n  [version control: automatic] " + shown + " saved as v" + std::to_string(version) +
         " — history: 'Kestrune history " + shown + "'; " + undo;
}

}  // namespace kst

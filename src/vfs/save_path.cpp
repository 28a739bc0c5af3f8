#include "vfs/save_path.hpp"

#include <chrono>
#include <system_error>

#include "platform/durable_file.hpp"
#include "vfs/archive.hpp"
#include "vfs/edit_log.hpp"
#include "vfs/outside_change.hpp"

namespace kst {

namespace fs = std::filesystem;

namespace {

fs::path with_suffix(const fs::path& path, std::string_view suffix) {
  fs::path out = path;
  out += std::string(suffix);
  return out;
}

// Mirror and archive steps. Returns "" on success, else the step's message.
std::string write_mirror(const fs::path& mirror, const File& file, const std::string& text,
                         std::uint32_t new_version, std::vector<ArchivedVersion>& archived) {
  std::error_code ec;
  fs::create_directories(mirror.parent_path(), ec);
  if (ec) return "vc mkdirs failed: " + ec.message();
  fs::path temp = with_suffix(mirror, kTempSuffix);
  std::string reason;
  if (!kx::platform::write_file_durable(temp, text, reason)) return "vc temp write failed";

  if (new_version >= 2) {
    fs::path dir = archive_dir_of(mirror);
    std::string name = mirror.filename().string();
    std::uint32_t number = 0;
    if (fs::exists(mirror, ec)) {
      fs::create_directories(dir, ec);
      if (ec) return "vc archive mkdir failed";
      fs::path slot = first_free_archive_name(dir, name, number);
      fs::rename(mirror, slot, ec);
      if (ec) return "vc archive move failed";
      archived.push_back({number, slot});
    } else if (const std::string* previous = file.text_of(file.current)) {
      // No mirror copy yet (the file predates enrollment): seed the archive from RAM so
      // the replaced version is never lost.
      fs::create_directories(dir, ec);
      if (ec) return "vc seed-archive mkdir failed";
      fs::path slot = first_free_archive_name(dir, name, number);
      if (!kx::platform::write_file_durable(slot, *previous, reason)) {
        fs::remove(slot, ec);
        return "vc seed-archive write failed";
      }
      archived.push_back({number, slot});
    }
  }
  fs::rename(temp, mirror, ec);
  if (ec) return "vc promote failed";
  return "";
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
      return "reserved name: '" + std::string(part) +
             "' uses a machinery suffix (.tombstone / .tmp$ / .oldversions)";
    start = end + 1;
  }
  std::string rule;
  if (store.versioned() && !ext_admits(store.policy(), fs::path(path).filename().string(), rule))
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
  EditRecord record;
  record.ts = std::chrono::duration_cast<std::chrono::seconds>(
                  std::chrono::system_clock::now().time_since_epoch())
                  .count();
  record.path = path;
  record.op = op;
  record.seat = seat;
  record.new_version = new_version;
  record.prev_version = prev_version;
  record.store = store.disk_root().string();
  std::error_code ec;
  fs::create_directories(store.machinery_dir(), ec);
  std::string reason;
  if (!append_edit(store.edit_log_file(), record, reason))
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

  if (!request.outside) {
    fs::create_directories(target.parent_path(), ec);
    if (ec) {
      result.message = "mkdirs failed: " + ec.message();
      return result;
    }
    fs::path temp = with_suffix(target, kTempSuffix);
    std::string reason;
    if (!kx::platform::write_file_durable(temp, text, reason)) {
      result.message = "temp write failed";
      return result;
    }
    fs::rename(temp, target, ec);
    if (ec) {
      result.message = "promote failed";
      return result;
    }
  }

  File* existing = store.find_file(path);
  File& file = existing != nullptr ? *existing : store.make_file(path);
  if (store.versioned()) catch_up_with_disk(store, path, file);
  result.previous = file.current;
  result.version = file.current + 1;

  if (store.versioned()) {
    fs::path mirror = store.mirror_path(path);
    if (!mirror.empty()) {
      std::string failure = write_mirror(mirror, file, text, result.version, file.archived);
      // A save revives a tombstoned file; a marker left by a crashed fs:rm goes too.
      if (failure.empty()) fs::remove(with_suffix(mirror, kTombstoneSuffix), ec);
      if (!failure.empty()) {
        warn << "warning: mirror write failed for '" << path << "': " << failure
             << " — version chain not archived\n";
        result.mirror_failed = true;
      }
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
  return "\n  [version control: automatic] " + path + " saved as v" + std::to_string(version) +
         " — history: 'Kestrune history " + path + "'; roll back: 'Kestrune revert " + path +
         " to " + std::to_string(version > 0 ? version - 1 : 0) + "'";
}

}  // namespace kst

#include "vfs/single_file_history.hpp"

#include <system_error>

#include "platform/durable_file.hpp"
#include "platform/read_file.hpp"
#include "vfs/archive.hpp"
#include "vfs/edit_log.hpp"
#include "vfs/seat_locks.hpp"
#include "vfs/store_key.hpp"
#include "vfs/tombstone.hpp"

namespace kst {

namespace fs = std::filesystem;

fs::path single_file_mirror(const StoreSet& stores, const fs::path& file) {
  return stores.mirror_dir() / store_key(file.parent_path().string()) / file.filename();
}

fs::path single_file_lock(const StoreSet& stores, const fs::path& file) {
  return stores.home() / ".watchlocks" / ("file_" + store_key(file.string()) + ".lock");
}

namespace {

void log_change(const fs::path& file, const fs::path& mirror, const std::string& seat,
                const std::string& who, std::ostream& report, const std::string& op,
                std::uint32_t prev, std::uint32_t next) {
  std::string reason;
  if (!append_edit_now(mirror.parent_path() / ".oldversions" / "edits.jsonl",
                       {.path = file.filename().string(),
                        .op = op,
                        .seat = seat,
                        .new_version = next,
                        .prev_version = prev,
                        .store = file.parent_path().string()},
                       reason))
    report << "warning: " << who << " could not log the change of '" << file.string()
           << "': " << reason << "\n";
}

}  // namespace

HistoryStep record_file_state(const fs::path& file, const fs::path& mirror, const std::string& seat,
                              const std::string& who, std::ostream& report,
                              std::optional<FileStamp>* seen) {
  const std::string name = file.filename().string();
  const fs::path archive = archive_dir_of(mirror);
  const fs::path marker = tombstone_marker(mirror);
  std::error_code ec;
  const bool mirrored = fs::exists(mirror, ec);
  const bool gone = fs::exists(marker, ec);
  auto archived = list_archived(archive, name);
  const std::uint32_t last_archived = archived.empty() ? 0 : archived.back().number;
  const std::uint32_t current = mirrored ? last_archived + 1 : last_archived;

  const auto status = fs::symlink_status(file, ec);
  if (!fs::is_regular_file(status)) {
    if (seen != nullptr) seen->reset();
    // Something other than a file in its place is left alone; a deletion is recorded
    // once, keeping the last bytes as the mirror copy.
    if (status.type() != fs::file_type::not_found || !mirrored || gone)
      return HistoryStep::kUnchanged;
    if (!write_replacing(marker, "tombstoned v" + std::to_string(current) + " by " + seat + " at " +
                                     std::to_string(now_seconds()) + "\n")) {
      report << "warning: " << who << " could not archive final bytes of '" << file.string()
             << "' — not advancing baseline, will retry\n";
      return HistoryStep::kFailed;
    }
    log_change(file, mirror, seat, who, report, "delete", current, current);
    return HistoryStep::kRecorded;
  }

  std::error_code size_ec, time_ec;
  const auto size = fs::file_size(file, size_ec);
  const auto time = fs::last_write_time(file, time_ec);
  std::string text;
  if (!kx::platform::read_whole_file(file, text, size_ec ? 0 : size)) return HistoryStep::kFailed;
  if (seen != nullptr && !size_ec && !time_ec) seen->emplace(size, time);
  if (mirrored && !gone) {
    std::string baseline;
    if (kx::platform::read_whole_file(mirror, baseline, text.size()) && baseline == text)
      return HistoryStep::kUnchanged;
  }
  // The new mirror copy is written first; the old one then goes to the archive and the
  // new one takes its place, so no step loses the version it replaces.
  std::string reason;
  fs::create_directories(mirror.parent_path(), ec);
  auto staged = kx::platform::StagedFile::stage(mirror, text, reason);
  if (!staged) {
    report << who << " mirror refresh failed for '" << file.string() << "'\n";
    return HistoryStep::kFailed;
  }
  std::uint32_t next = current + 1;
  if (mirrored) {
    std::uint32_t number = 0;
    fs::create_directories(archive, ec);
    const fs::path into = first_free_archive_name(archive, name, number);
    fs::rename(mirror, into, ec);
    if (ec) {
      report << "warning: " << who << " archive failed for '" << file.string()
             << "' — keeping baseline, will retry\n";
      return HistoryStep::kFailed;
    }
    next = list_archived(archive, name).back().number + 1;
  }
  if (!staged->commit(reason)) {
    report << who << " mirror refresh failed for '" << file.string() << "'\n";
    return HistoryStep::kFailed;
  }
  if (gone) fs::remove(marker, ec);
  log_change(file, mirror, seat, who, report,
             gone           ? "restore"
             : current == 0 ? "create"
                            : "modify",
             current, next);
  return HistoryStep::kRecorded;
}

}  // namespace kst

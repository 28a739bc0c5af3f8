#include "vfs/emit_run.hpp"

#include <fstream>
#include <sstream>

#include "platform/durable_file.hpp"
#include "vfs/commands.hpp"
#include "vfs/edit_log.hpp"
#include "vfs/save_path.hpp"
#include "vfs/version_chain.hpp"

namespace kst {

namespace fs = std::filesystem;

bool in_scope(std::string_view path, std::string_view scope) {
  if (scope.empty() || path == scope) return true;
  return path.size() > scope.size() && path.starts_with(scope) && path[scope.size()] == '/';
}

namespace {

std::optional<std::string> read_file(const fs::path& path) {
  std::ifstream in(path, std::ios::binary);
  if (!in) return std::nullopt;
  std::stringstream text;
  text << in.rdbuf();
  return text.str();
}

// Writes one file of a write-out tree: temporary file, fsync, rename.
bool write_out(const fs::path& target, const std::string& text, std::string& reason) {
  std::error_code ec;
  fs::create_directories(target.parent_path(), ec);
  if (ec) {
    reason = ec.message();
    return false;
  }
  return kx::platform::replace_file_durable(target, text, reason);
}

}  // namespace

EmitCounts run_emit(StoreSet& stores, Store& store, const PendingEmit& emit, EmitMode mode,
                    const fs::path& dest, const std::string& seat, std::ostream& warn) {
  EmitCounts counts;
  std::lock_guard guard(store.mutex());
  const std::vector<EditRecord> edits = read_edits(store.edit_log_file());
  // Saves below change the index; work from a snapshot of the scope's paths.
  std::vector<std::string> paths;
  for (const auto& [path, file] : store.files())
    if (in_scope(path, emit.scope)) paths.push_back(path);

  for (const std::string& path : paths) {
    File* file = store.find_file(path);
    if (file == nullptr) continue;
    const AsOfChoice choice = version_as_of(version_stamps(edits, path, *file), emit.asof);
    if (choice.kind == AsOfChoice::Kind::not_yet_existing) {
      ++counts.not_yet_existing;
      continue;
    }
    if (choice.kind == AsOfChoice::Kind::deleted) {
      if (mode == EmitMode::write_out) {
        std::error_code ec;
        fs::remove(dest / path, ec);
        ++counts.deleted;
      } else if (file->tombstoned) {
        ++counts.unchanged;
      } else {
        // Deleting over the current files is a tombstone, so the history stays.
        CommandContext ctx{stores, seat, store.disk_root(), warn};
        const std::string answer = fs_rm(ctx, "<path>" + path + "</path>");
        if (answer.starts_with("OK")) {
          ++counts.deleted;
        } else {
          warn << "warning: emit: '" << path << "' not deleted: " << answer << "\n";
          ++counts.refused;
        }
      }
      continue;
    }
    const std::optional<std::string> text = read_version(*file, choice.version);
    if (!text) {
      warn << "warning: emit: v" << choice.version << " of '" << path << "' is unreadable\n";
      ++counts.failed;
      continue;
    }
    if (mode == EmitMode::over_current) {
      if (!file->tombstoned && file->text() == *text) {
        ++counts.unchanged;
        continue;
      }
      SaveRequest request;
      request.seat = seat;
      request.op = "emit";
      const SaveResult saved = save_file(store, path, *text, request, warn);
      if (saved.ok) {
        ++counts.written;
      } else {
        warn << "warning: emit: '" << path << "' not written: " << saved.message << "\n";
        ++counts.refused;
      }
      continue;
    }
    const fs::path target = dest / path;
    if (read_file(target) == text) {
      ++counts.unchanged;
      continue;
    }
    std::string reason;
    if (write_out(target, *text, reason)) {
      ++counts.written;
    } else {
      warn << "warning: emit: '" << target.string() << "' not written: " << reason << "\n";
      ++counts.failed;
    }
  }
  return counts;
}

}  // namespace kst

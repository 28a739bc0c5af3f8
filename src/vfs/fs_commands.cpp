// fs: and fsmk: — reading, tombstoning, moving, copying, restoring and creating files
// of the active store. Every content change goes through save_file.
//
// A tombstone marker "<mirror path>.tombstone" holds one line:
//   tombstoned v<N> by <seat> at <seconds since the epoch>
// The working file is deleted; the mirror copy and archive stay, so fs:restore can
// bring the file back and a restart finds it tombstoned again.
#include <chrono>
#include <fstream>
#include <system_error>

#include "lang/text.hpp"
#include "platform/durable_file.hpp"
#include "vfs/archive.hpp"
#include "vfs/args.hpp"
#include "vfs/commands.hpp"
#include "vfs/path_resolve.hpp"
#include "vfs/save_path.hpp"
#include "vfs/tombstone.hpp"

namespace kst {

namespace fs = std::filesystem;

namespace {

// The lock check of a write that is not a save (tombstone, move, restore). REQUIRES:
// the store's mutex and a Store::ProcessLock, held until the write is done.
std::optional<std::string> refuse_write(const Store& store, const std::string& path,
                                        const CommandContext& ctx, std::string op) {
  SaveRequest request;
  request.seat = ctx.seat;
  request.op = std::move(op);
  if (auto refusal = check_write(store, path, request)) return "ERROR: " + *refusal;
  return std::nullopt;
}

fs::path with_suffix(const fs::path& path, std::string_view suffix) {
  fs::path out = path;
  out += std::string(suffix);
  return out;
}

// Up to two path arguments: elements <path>/<src> and <dest>/<dst> or plain words.
struct PathArgs {
  std::string first, second;
  std::vector<std::string> names;  // every name given, in order, the destination last
  Args all;
};

std::optional<PathArgs> path_args(std::string_view text) {
  std::string error;
  auto parsed = parse_args(text, error);
  if (!parsed) return std::nullopt;
  PathArgs p;
  p.all = *parsed;
  std::vector<std::string> positional;
  for (const char* tag : {"path", "src", "source"})
    if (auto e = parsed->element(tag)) {
      positional.push_back(*e);
      break;
    }
  for (const auto& w : parsed->words) positional.push_back(w);
  std::optional<std::string> dest;
  for (const char* tag : {"dest", "dst", "to"})
    if (!dest) dest = parsed->element(tag);
  if (!positional.empty()) p.first = positional[0];
  if (dest)
    p.second = *dest;
  else if (positional.size() > 1)
    p.second = positional[1];
  p.names = positional;
  if (dest) p.names.push_back(*dest);
  return p;
}

std::string with_notice(std::string text, const Store& store, const std::string& path,
                        const SaveResult& saved) {
  if (saved.mirror_failed) text += " [mirror-fail]";
  if (store.versioned()) text += save_notice(path, saved.version);
  return text;
}

// A file of the store named by `arg`: resolved in the tree, or for a cache
// write-through store read from disk into the cache on first use.
struct Located {
  File* file = nullptr;
  std::string path;
  std::string error;  // full result text when the lookup failed
  bool directory = false;
};

Located locate(Store& store, const std::string& arg) {
  Located l;
  if (!store.versioned()) {
    auto path = store_path_of(store, arg, l.error);
    if (!path) {
      l.error = "ERROR: " + l.error;
      return l;
    }
    l.path = *path;
    std::error_code ec;
    fs::path disk = store.disk_path(*path);
    if (fs::is_directory(disk, ec)) {
      l.directory = true;
      return l;
    }
    if (!fs::is_regular_file(disk, ec)) {
      store.detach_file(*path);
      l.error = "ERROR: no such file: " + kx::lang::printable(arg);
      return l;
    }
    std::ifstream in(disk, std::ios::binary);
    std::string text((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    File& file = store.make_file(*path);
    file.versions.clear();
    file.push_version(0, std::move(text));
    l.file = &file;
    return l;
  }
  Resolved r = resolve_node(store, arg);
  if (!r.error.empty()) {
    l.error = "ERROR: " + r.error;
    return l;
  }
  if (!r.found) {
    l.error = "ERROR: no such file: " + kx::lang::printable(arg);
    return l;
  }
  l.path = r.path;
  l.file = store.find_file(r.path);
  l.directory = l.file == nullptr;
  return l;
}

}  // namespace

std::string fs_cat(CommandContext& ctx, std::string_view args) {
  auto p = path_args(args);
  if (!p || p->first.empty()) return "ERROR: usage  fs:cat <path>";
  if (p->names.size() > 1)
    return too_many_names("ERROR: usage  fs:cat <path>", "fs:cat", p->names, {"path"});
  Store* store = ctx.stores.active();
  if (store == nullptr) return kNoStore;
  std::lock_guard guard(store->mutex());
  Located l = locate(*store, p->first);
  if (!l.error.empty()) return l.error;
  if (l.directory) return "ERROR: not a file";
  if (l.file->tombstoned)
    return "ERROR: file tombstoned: " + kx::lang::printable(l.path) +
           " (fs:restore to bring it back)";
  return l.file->text();
}

std::string fs_rm(CommandContext& ctx, std::string_view args) {
  auto p = path_args(args);
  if (!p || p->first.empty()) return "ERROR: usage  fs:rm <path>";
  if (p->names.size() > 1)
    return too_many_names("ERROR: usage  fs:rm <path>", "fs:rm", p->names, {"path"});
  Store* store = ctx.stores.active();
  if (store == nullptr) return kNoStore;
  std::lock_guard guard(store->mutex());
  Located l = locate(*store, p->first);
  if (!l.error.empty()) return l.error;
  if (l.directory) return "ERROR: not a file";
  if (l.file->tombstoned)
    return "ERROR: file tombstoned: " + kx::lang::printable(l.path) +
           " (fs:restore to bring it back)";
  const Store::ProcessLock across_processes(*store);
  if (auto refusal = refuse_write(*store, l.path, ctx, "tombstone")) return *refusal;
  std::error_code ec;
  if (!store->versioned()) {
    fs::remove(store->disk_path(l.path), ec);
    if (ec) return "ERROR: remove failed: " + ec.message();
    store->detach_file(l.path);
    return "OK: removed " + kx::lang::printable(l.path) +
           " (cache write-through store, no history kept)";
  }
  File& file = *l.file;
  fs::path mirror = store->mirror_path(l.path);
  if (auto failure = write_tombstone(*store, l.path, file, ctx.seat)) return "ERROR: " + *failure;
  fs::remove(store->disk_path(l.path), ec);
  if (ec) {
    if (!mirror.empty()) fs::remove(with_suffix(mirror, kTombstoneSuffix), ec);
    return "ERROR: could not remove " + kx::lang::printable(l.path) + " from the working tree";
  }
  file.tombstoned = true;
  record_edit(*store, l.path, "tombstone", ctx.seat, file.current, file.current, ctx.warn);
  return "OK: tombstoned " + kx::lang::printable(l.path) + " (append-only; fs:restore to undo)";
}

std::string fs_restore(CommandContext& ctx, std::string_view args) {
  auto p = path_args(args);
  if (!p || p->first.empty()) return "ERROR: usage  fs:restore <path>";
  if (p->names.size() > 1)
    return too_many_names("ERROR: usage  fs:restore <path>", "fs:restore", p->names, {"path"});
  Store* store = ctx.stores.active();
  if (store == nullptr) return kNoStore;
  std::lock_guard guard(store->mutex());
  Located l = locate(*store, p->first);
  if (!l.error.empty()) return l.error;
  if (l.directory) return "ERROR: not a file";
  File& file = *l.file;
  if (!file.tombstoned) return "ERROR: " + kx::lang::printable(l.path) + " is not tombstoned";
  if (file.versions.empty()) return "ERROR: no content version to restore";
  const Store::ProcessLock across_processes(*store);
  if (auto refusal = refuse_write(*store, l.path, ctx, "restore")) return *refusal;
  if (!write_replacing(store->disk_path(l.path), file.text()))
    return "ERROR: could not write " + kx::lang::printable(l.path);
  fs::path mirror = store->mirror_path(l.path);
  std::error_code ec;
  if (!mirror.empty()) {
    if (!fs::exists(mirror, ec)) write_replacing(mirror, file.text());
    fs::remove(with_suffix(mirror, kTombstoneSuffix), ec);
  }
  file.tombstoned = false;
  record_edit(*store, l.path, "restore", ctx.seat, file.current, file.current, ctx.warn);
  return "OK: restored " + kx::lang::printable(l.path);
}

std::string fs_move(CommandContext& ctx, std::string_view args) {
  auto p = path_args(args);
  if (!p || p->first.empty() || p->second.empty()) return "ERROR: usage  fs:move <src> <dst>";
  if (p->names.size() > 2)
    return too_many_names("ERROR: usage  fs:move <src> <dst>", "fs:move", p->names,
                          {"path", "dest"});
  Store* store = ctx.stores.active();
  if (store == nullptr) return kNoStore;
  std::lock_guard guard(store->mutex());
  // Held from the first look at the destination to the last rename.
  const Store::ProcessLock across_processes(*store);
  Located l = locate(*store, p->first);
  if (!l.error.empty()) {
    if (l.error.starts_with("ERROR: no such file: "))
      return "ERROR: no such file: " + kx::lang::printable(p->first);
    return l.error;
  }
  if (l.directory) return "ERROR: not a file";
  std::string error;
  auto dest = store_path_of(*store, p->second, error);
  if (!dest) return "ERROR: " + error;
  if (*dest == l.path) return "ERROR: source and destination are the same";
  std::error_code ec;
  if (store->find_node(*dest) != nullptr || fs::exists(store->disk_path(*dest), ec))
    return "ERROR: destination '" + kx::lang::printable(p->second) +
           "' already exists — fs:rm it first, or fs:copy to keep its history";
  if (auto refusal = refuse_path(*store, *dest)) return "ERROR: " + *refusal;
  if (l.file->tombstoned)
    return "ERROR: file tombstoned: " + kx::lang::printable(l.path) +
           " (fs:restore to bring it back)";
  if (auto refusal = refuse_write(*store, l.path, ctx, "move")) return *refusal;

  fs::path from = store->disk_path(l.path), to = store->disk_path(*dest);
  fs::create_directories(to.parent_path(), ec);
  std::string reason;
  if (!move_on_disk(from, to, reason)) return "ERROR: move failed: " + reason;

  // The history follows: mirror copy, then the archive renamed entry by entry.
  File& file = *l.file;
  fs::path old_mirror = store->mirror_path(l.path), new_mirror = store->mirror_path(*dest);
  if (store->versioned() && !old_mirror.empty() && !new_mirror.empty()) {
    fs::create_directories(new_mirror.parent_path(), ec);
    if (fs::exists(old_mirror, ec))
      fs::rename(old_mirror, new_mirror, ec);
    else
      write_replacing(new_mirror, file.text());
    fs::path old_dir = archive_dir_of(old_mirror), new_dir = archive_dir_of(new_mirror);
    std::string new_name = new_mirror.filename().string();
    if (!file.archived.empty()) fs::create_directories(new_dir, ec);
    for (auto& a : file.archived) {
      fs::path target = new_dir / (new_name + ".xx" + std::to_string(a.number));
      fs::rename(a.path, target, ec);
      if (ec) {
        ctx.warn << "warning: archived v" << a.number << " of '" << l.path
                 << "' could not follow the move: " << ec.message() << "\n";
        continue;
      }
      a.path = target;
    }
    fs::remove(old_dir, ec);  // only when empty
  }
  std::uint32_t version = file.current;
  store->attach_file(*dest, store->detach_file(l.path));
  if (store->hooks.after_move) store->hooks.after_move(*store, l.path, *dest);
  record_edit(*store, l.path, "move-away", ctx.seat, 0, version, ctx.warn);
  record_edit(*store, *dest, "move", ctx.seat, version, version, ctx.warn);
  return "OK: moved " + kx::lang::printable(l.path) + " -> " + kx::lang::printable(*dest) +
         " (history followed)";
}

std::string fs_copy(CommandContext& ctx, std::string_view args) {
  auto p = path_args(args);
  if (!p || p->first.empty() || p->second.empty()) return "ERROR: usage  fs:copy <src> <dst>";
  if (p->names.size() > 2)
    return too_many_names("ERROR: usage  fs:copy <src> <dst>", "fs:copy", p->names,
                          {"path", "dest"});
  Store* store = ctx.stores.active();
  if (store == nullptr) return kNoStore;
  std::lock_guard guard(store->mutex());
  Located l = locate(*store, p->first);
  if (!l.error.empty()) {
    if (l.error.starts_with("ERROR: no such file: "))
      return "ERROR: no such file: " + kx::lang::printable(p->first);
    return l.error;
  }
  if (l.directory) return "ERROR: not a file";
  if (l.file->tombstoned)
    return "ERROR: source is tombstoned: " + kx::lang::printable(l.path) + " (fs:restore it first)";
  std::string error;
  auto dest = store_path_of(*store, p->second, error);
  if (!dest) return "ERROR: " + error;
  std::error_code ec;
  if (dest->empty() || store->is_directory_path(*dest) ||
      fs::is_directory(store->disk_path(*dest), ec))
    return "ERROR: destination is a directory: " + kx::lang::printable(p->second);
  if (*dest == l.path) return "ERROR: source and destination are the same";
  bool existed = store->find_file(*dest) != nullptr;
  SaveRequest request;
  request.seat = ctx.seat;
  request.op = "copy";
  SaveResult saved = save_file(*store, *dest, l.file->text(), request, ctx.warn);
  if (!saved.ok) return "ERROR: " + saved.message;
  std::string text =
      "OK: copied " + kx::lang::printable(l.path) + " -> " + kx::lang::printable(*dest);
  text += existed ? " (v" + std::to_string(saved.version) +
                        "; incoming copy replaced the working bytes)"
                  : " (v1, new versioned file)";
  return with_notice(text, *store, *dest, saved);
}

std::string fsmk_file(CommandContext& ctx, std::string_view args) {
  const char* usage = "ERROR: usage  fsmk:file <path> [<content><![CDATA[..]]></content>]";
  auto p = path_args(args);
  if (!p || p->first.empty()) return usage;
  if (p->names.size() > 1) return too_many_names(usage, "fsmk:file", p->names, {"path"});
  Store* store = ctx.stores.active();
  if (store == nullptr) return kNoStore;
  std::string error;
  auto path = store_path_of(*store, p->first, error);
  if (!path) return "ERROR: " + error;
  if (path->empty()) return "ERROR: not a file";
  SaveRequest request;
  request.seat = ctx.seat;
  SaveResult saved =
      save_file(*store, *path, p->all.element("content").value_or(""), request, ctx.warn);
  if (!saved.ok) return "ERROR: " + saved.message;
  return with_notice("OK: created file " + *path, *store, *path, saved);
}

std::string fsmk_dir(CommandContext& ctx, std::string_view args) {
  auto p = path_args(args);
  if (!p || p->first.empty()) return "ERROR: usage  fsmk:dir <path>";
  if (p->names.size() > 1)
    return too_many_names("ERROR: usage  fsmk:dir <path>", "fsmk:dir", p->names, {"path"});
  Store* store = ctx.stores.active();
  if (store == nullptr) return kNoStore;
  std::lock_guard guard(store->mutex());
  std::string error;
  auto path = store_path_of(*store, p->first, error);
  if (!path) return "ERROR: " + error;
  if (auto refusal = refuse_path(*store, *path); refusal && refusal->starts_with("reserved"))
    return "ERROR: " + *refusal;
  std::error_code ec;
  fs::path disk = store->disk_path(*path);
  if (store->find_file(*path) != nullptr || fs::is_regular_file(disk, ec))
    return "ERROR: not a directory: " + *path;
  fs::create_directories(disk, ec);
  if (ec) return "ERROR: mkdirs failed: " + ec.message();
  store->make_directory(*path);
  return "OK: created dir " + (path->empty() ? std::string(".") : *path);
}

}  // namespace kst

// fsraw: — plain disk operations for files the policy keeps out of version control.
// No version, no mirror, no archive. Paths are taken relative to the active store's
// root and may not leave it; without a store they are relative to the working
// directory. In a versioned store a raw operation that would remove, move or overwrite
// a versioned file (or write one the policy admits) is refused: the fs: verbs do the
// same with the history kept. Outside every store, a file below a tree that grep
// remembered gets its prior bytes archived in its single-file history first.
#include <initializer_list>
#include <optional>
#include <sstream>
#include <system_error>
#include <vector>

#include "lang/text.hpp"
#include "platform/instance_lock.hpp"
#include "vfs/archive.hpp"
#include "vfs/args.hpp"
#include "vfs/commands.hpp"
#include "vfs/outside_change.hpp"
#include "vfs/path_resolve.hpp"
#include "vfs/save_path.hpp"
#include "vfs/single_file_history.hpp"
#include "vfs/tracked_trees.hpp"

namespace kst {

namespace fs = std::filesystem;

namespace {

struct RawTarget {
  fs::path disk;
  std::string store_path;  // empty without a store
  bool ok = false;
  std::string error;
};

RawTarget raw_target(CommandContext& ctx, Store* store, const std::string& arg) {
  RawTarget t;
  if (store == nullptr) {
    fs::path p(arg);
    t.disk = p.is_absolute() ? p : ctx.cwd / p;
    t.ok = true;
    return t;
  }
  auto path = store_path_of(*store, arg, t.error);
  if (!path) return t;
  if (path->empty()) {
    t.error = "refusing a raw operation on the store root";
    return t;
  }
  for (std::size_t start = 0; start <= path->size();) {
    std::size_t end = path->find('/', start);
    if (end == std::string::npos) end = path->size();
    if (is_machinery_name(std::string_view(*path).substr(start, end - start))) {
      t.error = "reserved name: '" + kx::lang::printable(path->substr(start, end - start)) +
                "' uses a machinery suffix (.tombstone / .tmp$ / .oldversions)";
      return t;
    }
    start = end + 1;
  }
  t.disk = store->disk_path(*path);
  t.store_path = *path;
  t.ok = true;
  return t;
}

std::vector<std::string> two_args(std::string_view text, bool& ok) {
  std::string error;
  auto parsed = parse_args(text, error);
  std::vector<std::string> out;
  ok = parsed.has_value();
  if (!parsed) return out;
  if (auto e = parsed->element("path"))
    out.push_back(*e);
  else if (auto s = parsed->element("src"))
    out.push_back(*s);
  for (const auto& w : parsed->words) out.push_back(w);
  if (auto d = parsed->element("dest"))
    out.push_back(*d);
  else if (auto d2 = parsed->element("dst"))
    out.push_back(*d2);
  return out;
}

// A raw write still honours the locks of versioned files: it runs the same check as
// every other write. REQUIRES: the store's mutex and a Store::ProcessLock.
std::optional<std::string> refuse_raw(const CommandContext& ctx, const Store* store,
                                      std::initializer_list<const RawTarget*> targets) {
  if (store == nullptr) return std::nullopt;
  SaveRequest request;
  request.seat = ctx.seat;
  request.op = "raw";
  for (const RawTarget* t : targets)
    if (!t->store_path.empty())
      if (auto refusal = check_write(*store, t->store_path, request)) return "ERROR: " + *refusal;
  return std::nullopt;
}

// The live versioned files at `path` or below it, in path order. REQUIRES: the
// store's mutex.
std::vector<std::string> versioned_at(const Store& store, const std::string& path) {
  std::vector<std::string> out;
  const std::string below = path + "/";
  for (auto it = store.files().lower_bound(path); it != store.files().end(); ++it) {
    if (it->first != path && !it->first.starts_with(below)) break;
    if (!it->second->tombstoned) out.push_back(it->first);
  }
  return out;
}

// Why a raw operation must not take `source` away (remove, or the source of a move);
// nothing when it may. REQUIRES: the store's mutex.
std::optional<std::string> source_reason(const Store& store, const RawTarget& source) {
  if (!store.versioned() || source.store_path.empty()) return std::nullopt;
  auto versioned = versioned_at(store, source.store_path);
  const std::string shown = kx::lang::printable(source.store_path);
  if (versioned.empty()) return std::nullopt;
  if (versioned.size() == 1 && versioned[0] == source.store_path) return shown + " is versioned";
  return shown + " holds " + std::to_string(versioned.size()) + " versioned file(s) (" +
         kx::lang::printable(versioned[0]) + (versioned.size() > 1 ? ", ..." : "") + ")";
}

// Why a raw operation must not write the store paths `written`: one is a versioned
// file, or (every file being versioned in this store) the policy admits one.
// REQUIRES: the store's mutex.
std::optional<std::string> destination_reason(const Store& store,
                                              const std::vector<std::string>& written) {
  if (!store.versioned()) return std::nullopt;
  for (const std::string& path : written)
    if (const File* file = store.find_file(path); file != nullptr && !file->tombstoned)
      return kx::lang::printable(path) + " is versioned";
  if (store.policy().scope != Scope::kAll) return std::nullopt;
  for (const std::string& path : written) {
    std::string rule;
    if (ext_admits(store.policy(), fs::path(path).filename().string(), rule))
      return kx::lang::printable(path) + " would be versioned (the policy admits it)";
  }
  return std::nullopt;
}

std::string refused(std::string_view verb, const std::string& reason) {
  return "ERROR: fsraw:" + std::string(verb) + " refused: " + reason +
         " — use fs:rm (tombstone, history kept; fs:restore undoes), fs:move or fs:copy; "
         "fsraw: is for files the version-control policy excludes";
}

// The store paths a copy or move of `from` to `to` writes: the destination itself for a
// file, each file below it for a directory.
std::vector<std::string> written_paths(const RawTarget& from, const RawTarget& to) {
  if (to.store_path.empty()) return {};
  std::error_code ec;
  const auto kind = fs::symlink_status(from.disk, ec);
  // Links are copied as links, which the store does not version.
  if (fs::is_symlink(kind)) return {};
  if (!fs::is_directory(kind)) {
    // A file copied into an existing directory keeps its name.
    if (fs::is_directory(to.disk, ec)) return {to.store_path + "/" + from.disk.filename().string()};
    return {to.store_path};
  }
  std::vector<std::string> out;
  fs::recursive_directory_iterator it(from.disk, fs::directory_options::skip_permission_denied, ec);
  for (fs::recursive_directory_iterator end; !ec && it != end; it.increment(ec)) {
    std::error_code type;
    if (!it->is_symlink(type) && it->is_regular_file(type))
      out.push_back(to.store_path + "/" +
                    it->path().lexically_relative(from.disk).generic_string());
  }
  return out;
}

void forget(Store* store, const std::string& path) {
  if (store != nullptr && !path.empty() && store->find_file(path) != nullptr)
    store->detach_file(path);
}

// The regular files (not links) a raw operation on `path` touches: the file itself,
// or every file below a directory.
std::vector<fs::path> files_at(const fs::path& path) {
  std::vector<fs::path> out;
  std::error_code ec;
  const auto kind = fs::symlink_status(path, ec);
  if (fs::is_regular_file(kind)) out.push_back(path);
  if (!fs::is_directory(kind)) return out;
  fs::recursive_directory_iterator it(path, fs::directory_options::skip_permission_denied, ec);
  for (fs::recursive_directory_iterator end; !ec && it != end; it.increment(ec)) {
    std::error_code type;
    if (!it->is_symlink(type) && it->is_regular_file(type)) out.push_back(it->path());
  }
  return out;
}

// The existing files a copy or move of `from` onto `to` overwrites.
std::vector<fs::path> overwritten_at(const fs::path& from, const fs::path& to) {
  std::error_code ec;
  if (!fs::is_directory(fs::symlink_status(from, ec)))
    return files_at(fs::is_directory(to, ec) ? to / from.filename() : to);
  std::vector<fs::path> out;
  for (const fs::path& file : files_at(from)) {
    const fs::path into = to / file.lexically_relative(from);
    if (fs::is_regular_file(fs::symlink_status(into, ec))) out.push_back(into);
  }
  return out;
}

// Keeps the prior bytes of the files a raw operation is about to change when they lie
// below a tree grep remembered and outside every store. Each file's history lock is
// held from before the operation until its outcome is recorded.
class PriorBytes {
 public:
  PriorBytes(CommandContext& ctx, std::string_view verb)
      : ctx_(ctx), verb_(verb), trees_(ctx.stores.tracked_trees_file()) {}

  // Archives the current bytes of each of `files` that is tracked; an ERROR text when
  // one could not be kept (the operation must then not run).
  std::optional<std::string> keep(const std::vector<fs::path>& files) {
    if (files.empty() || TrackedTrees::read(trees_).empty()) return std::nullopt;
    std::error_code ec;
    const fs::path home = fs::weakly_canonical(ctx_.stores.home(), ec);
    for (const fs::path& named : files) {
      fs::path file =
          fs::weakly_canonical(fs::absolute(named, ec).parent_path(), ec) / named.filename();
      if (ec || under(file, home) || ctx_.stores.containing(file) != nullptr ||
          !TrackedTrees::covering(trees_, file))
        continue;
      bool seen = false;
      for (const Held& h : held_) seen = seen || h.file == file;
      if (seen) continue;
      const fs::path lock_file = single_file_lock(ctx_.stores, file);
      fs::create_directories(lock_file.parent_path(), ec);
      auto lock = kx::platform::try_lock_file(lock_file);
      if (!lock) {
        // A live watch of this file owns its history and records the change itself.
        ++watched_;
        continue;
      }
      Held held{file, single_file_mirror(ctx_.stores, file), std::move(*lock)};
      std::ostringstream problems;
      if (record_file_state(held.file, held.mirror, kOutsideSeat, "fsraw", problems) ==
          HistoryStep::kFailed) {
        std::string why = problems.str();
        while (!why.empty() && why.back() == '\n') why.pop_back();
        if (why.starts_with("warning: ")) why.erase(0, 9);
        if (why.empty()) why = "cannot read it";
        return "ERROR: fsraw:" + verb_ + " refused: could not archive the prior bytes of '" +
               kx::lang::printable(file.string()) + "' (" + why + "); nothing was changed";
      }
      held_.push_back(std::move(held));
    }
    return std::nullopt;
  }

  // Records what the operation made of each kept file and says so after `result`.
  std::string settle(std::string result) {
    std::ostringstream problems;
    const int kept = static_cast<int>(held_.size());
    for (const Held& h : held_)
      (void)record_file_state(h.file, h.mirror, ctx_.seat, "fsraw", problems);
    held_.clear();
    if (result.starts_with("ERROR")) return result;
    if (kept > 0 || watched_ > 0 || !problems.str().empty()) result += "\n";
    if (kept > 0)
      result += "-- TrackEditHistory: prior bytes of " + std::to_string(kept) +
                " file(s) archived under .Kestrune\\.versioncontrol";
    if (watched_ > 0)
      result += std::string(kept > 0 ? "; " : "-- TrackEditHistory: ") + std::to_string(watched_) +
                " file(s) left to their live watch";
    std::string tail = problems.str();
    while (!tail.empty() && tail.back() == '\n') tail.pop_back();
    if (!tail.empty()) result += (kept > 0 || watched_ > 0 ? "\n" : "") + tail;
    return result;
  }

 private:
  struct Held {
    fs::path file;
    fs::path mirror;
    kx::platform::InstanceLock lock;
  };
  static bool under(const fs::path& path, const fs::path& dir) {
    auto rel = path.lexically_relative(dir);
    return !rel.empty() && *rel.begin() != "..";
  }

  CommandContext& ctx_;
  std::string verb_;
  fs::path trees_;
  std::vector<Held> held_;
  int watched_ = 0;
};

}  // namespace

std::string fsraw_copy(CommandContext& ctx, std::string_view args) {
  bool ok = false;
  auto a = two_args(args, ok);
  if (!ok || a.size() < 2) return "ERROR: usage  fsraw:copy <src> <dst>";
  if (a.size() > 2)
    return too_many_names("ERROR: usage  fsraw:copy <src> <dst>", "fsraw:copy", a,
                          {"path", "dest"});
  Store* store = ctx.stores.active();
  std::unique_lock<std::recursive_mutex> guard;
  if (store != nullptr) guard = std::unique_lock(store->mutex());
  RawTarget from = raw_target(ctx, store, a[0]), to = raw_target(ctx, store, a[1]);
  if (!from.ok) return "ERROR: " + from.error;
  if (!to.ok) return "ERROR: " + to.error;
  std::optional<Store::ProcessLock> across_processes;
  if (store != nullptr) across_processes.emplace(*store);
  if (auto refusal = refuse_raw(ctx, store, {&to})) return *refusal;
  if (store != nullptr)
    if (auto link = link_out_of_store(*store, from.disk))
      return "ERROR: raw copy refused: '" +
             kx::lang::printable(link->lexically_relative(store->disk_root()).generic_string()) +
             "' is a link to outside the store; copy what it points to by its own path";
  if (store != nullptr)
    if (auto why = destination_reason(*store, written_paths(from, to)))
      return refused("copy", *why);
  PriorBytes prior(ctx, "copy");
  if (auto refusal = prior.keep(overwritten_at(from.disk, to.disk))) return *refusal;
  std::error_code ec;
  // Links are copied as links: the check above keeps them pointing inside the store.
  fs::copy(from.disk, to.disk,
           fs::copy_options::recursive | fs::copy_options::overwrite_existing |
               fs::copy_options::copy_symlinks,
           ec);
  if (ec) return prior.settle("ERROR: raw copy failed");
  forget(store, to.store_path);
  return prior.settle("OK: raw copy " + kx::lang::printable(a[0]) + " -> " +
                      kx::lang::printable(a[1]));
}

std::string fsraw_move(CommandContext& ctx, std::string_view args) {
  bool ok = false;
  auto a = two_args(args, ok);
  if (!ok || a.size() < 2) return "ERROR: usage  fsraw:move <src> <dst>";
  if (a.size() > 2)
    return too_many_names("ERROR: usage  fsraw:move <src> <dst>", "fsraw:move", a,
                          {"path", "dest"});
  Store* store = ctx.stores.active();
  std::unique_lock<std::recursive_mutex> guard;
  if (store != nullptr) guard = std::unique_lock(store->mutex());
  RawTarget from = raw_target(ctx, store, a[0]), to = raw_target(ctx, store, a[1]);
  if (!from.ok) return "ERROR: " + from.error;
  if (!to.ok) return "ERROR: " + to.error;
  std::optional<Store::ProcessLock> across_processes;
  if (store != nullptr) across_processes.emplace(*store);
  if (auto refusal = refuse_raw(ctx, store, {&from, &to})) return *refusal;
  if (store != nullptr) {
    if (auto why = source_reason(*store, from)) return refused("move", *why);
    if (auto why = destination_reason(*store, written_paths(from, to)))
      return refused("move", *why);
  }
  PriorBytes prior(ctx, "move");
  auto touched = files_at(from.disk);
  for (fs::path& file : overwritten_at(from.disk, to.disk)) touched.push_back(std::move(file));
  if (auto refusal = prior.keep(touched)) return *refusal;
  std::error_code ec;
  fs::rename(from.disk, to.disk, ec);
  if (ec) return prior.settle("ERROR: raw move failed");
  forget(store, from.store_path);
  forget(store, to.store_path);
  return prior.settle("OK: raw move " + kx::lang::printable(a[0]) + " -> " +
                      kx::lang::printable(a[1]));
}

std::string fsraw_remove(CommandContext& ctx, std::string_view args) {
  bool ok = false;
  auto a = two_args(args, ok);
  if (!ok || a.size() < 1) return "ERROR: usage  fsraw:remove <path>";
  if (a.size() > 1)
    return too_many_names("ERROR: usage  fsraw:remove <path>", "fsraw:remove", a, {"path"});
  Store* store = ctx.stores.active();
  std::unique_lock<std::recursive_mutex> guard;
  if (store != nullptr) guard = std::unique_lock(store->mutex());
  RawTarget target = raw_target(ctx, store, a[0]);
  if (!target.ok) return "ERROR: " + target.error;
  std::optional<Store::ProcessLock> across_processes;
  if (store != nullptr) across_processes.emplace(*store);
  if (auto refusal = refuse_raw(ctx, store, {&target})) return *refusal;
  if (store != nullptr)
    if (auto why = source_reason(*store, target)) return refused("remove", *why);
  std::error_code ec;
  if (!fs::exists(fs::symlink_status(target.disk, ec))) return "ERROR: raw remove failed";
  PriorBytes prior(ctx, "remove");
  if (auto refusal = prior.keep(files_at(target.disk))) return *refusal;
  fs::remove_all(target.disk, ec);
  if (ec) return prior.settle("ERROR: raw remove failed");
  forget(store, target.store_path);
  return prior.settle("OK: raw remove " + kx::lang::printable(a[0]));
}

}  // namespace kst

// fsraw: — plain disk operations for files the policy keeps out of version control.
// No version, no mirror, no archive. Paths are taken relative to the active store's
// root and may not leave it; without a store they are relative to the working
// directory. A versioned file touched this way is dropped from RAM (its history stays
// on disk and is found again at the next load).
#include <initializer_list>
#include <optional>
#include <system_error>

#include "lang/text.hpp"
#include "vfs/archive.hpp"
#include "vfs/args.hpp"
#include "vfs/commands.hpp"
#include "vfs/path_resolve.hpp"
#include "vfs/save_path.hpp"

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

void forget(Store* store, const std::string& path) {
  if (store != nullptr && !path.empty() && store->find_file(path) != nullptr)
    store->detach_file(path);
}

}  // namespace

std::string fsraw_copy(CommandContext& ctx, std::string_view args) {
  bool ok = false;
  auto a = two_args(args, ok);
  if (!ok || a.size() != 2) return "ERROR: usage  fsraw:copy <src> <dst>";
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
  std::error_code ec;
  // Links are copied as links: the check above keeps them pointing inside the store.
  fs::copy(from.disk, to.disk,
           fs::copy_options::recursive | fs::copy_options::overwrite_existing |
               fs::copy_options::copy_symlinks,
           ec);
  if (ec) return "ERROR: raw copy failed";
  forget(store, to.store_path);
  return "OK: raw copy " + kx::lang::printable(a[0]) + " -> " + kx::lang::printable(a[1]);
}

std::string fsraw_move(CommandContext& ctx, std::string_view args) {
  bool ok = false;
  auto a = two_args(args, ok);
  if (!ok || a.size() != 2) return "ERROR: usage  fsraw:move <src> <dst>";
  Store* store = ctx.stores.active();
  std::unique_lock<std::recursive_mutex> guard;
  if (store != nullptr) guard = std::unique_lock(store->mutex());
  RawTarget from = raw_target(ctx, store, a[0]), to = raw_target(ctx, store, a[1]);
  if (!from.ok) return "ERROR: " + from.error;
  if (!to.ok) return "ERROR: " + to.error;
  std::optional<Store::ProcessLock> across_processes;
  if (store != nullptr) across_processes.emplace(*store);
  if (auto refusal = refuse_raw(ctx, store, {&from, &to})) return *refusal;
  std::error_code ec;
  fs::rename(from.disk, to.disk, ec);
  if (ec) return "ERROR: raw move failed";
  forget(store, from.store_path);
  forget(store, to.store_path);
  return "OK: raw move " + kx::lang::printable(a[0]) + " -> " + kx::lang::printable(a[1]);
}

std::string fsraw_remove(CommandContext& ctx, std::string_view args) {
  bool ok = false;
  auto a = two_args(args, ok);
  if (!ok || a.size() != 1) return "ERROR: usage  fsraw:remove <path>";
  Store* store = ctx.stores.active();
  std::unique_lock<std::recursive_mutex> guard;
  if (store != nullptr) guard = std::unique_lock(store->mutex());
  RawTarget target = raw_target(ctx, store, a[0]);
  if (!target.ok) return "ERROR: " + target.error;
  std::optional<Store::ProcessLock> across_processes;
  if (store != nullptr) across_processes.emplace(*store);
  if (auto refusal = refuse_raw(ctx, store, {&target})) return *refusal;
  std::error_code ec;
  if (!fs::exists(fs::symlink_status(target.disk, ec))) return "ERROR: raw remove failed";
  fs::remove_all(target.disk, ec);
  if (ec) return "ERROR: raw remove failed";
  forget(store, target.store_path);
  return "OK: raw remove " + kx::lang::printable(a[0]);
}

}  // namespace kst

// fsstat: — questions about nodes, stores and the edit log; nothing here writes.
#include <algorithm>
#include <system_error>

#include "lang/text.hpp"
#include "vfs/args.hpp"
#include "vfs/commands.hpp"
#include "vfs/edit_log.hpp"
#include "vfs/enroll.hpp"
#include "vfs/path_resolve.hpp"

namespace kst {

namespace fs = std::filesystem;

namespace {

// The one path of a verb; the usage error (`usage`, for `verb`) when there is none or
// more than one was given.
struct OnePath {
  std::optional<std::string> path;
  std::string error;
};

OnePath one_path(std::string_view text, std::string_view verb, std::string_view usage) {
  OnePath out;
  out.error = std::string(usage);
  std::string error;
  auto parsed = parse_args(text, error);
  if (!parsed) return out;
  std::vector<std::string> names;
  if (auto e = parsed->element("path")) names.push_back(*e);
  names.insert(names.end(), parsed->words.begin(), parsed->words.end());
  if (names.size() > 1) {
    out.error = too_many_names(usage, verb, names, {"path"});
    return out;
  }
  if (names.size() == 1) out.path = names[0];
  return out;
}

bool path_matches(std::string_view pattern, std::string_view path) {
  if (pattern.find_first_of("*?") != std::string_view::npos)
    return kx::lang::glob_match(pattern, path);
  return path.find(pattern) != std::string_view::npos;
}

}  // namespace

std::string fsstat_exists(CommandContext& ctx, std::string_view args) {
  auto one = one_path(args, "fsstat:exists", "ERROR: usage  fsstat:exists <path>");
  if (!one.path) return one.error;
  const auto& arg = one.path;
  Store* store = ctx.stores.active();
  if (store == nullptr) return kNoStore;
  std::lock_guard guard(store->mutex());
  Resolved r = resolve_node(*store, *arg);
  if (!r.error.empty()) return "ERROR: " + r.error;
  iFileSystemObj* node = r.found ? store->find_node(r.path) : nullptr;
  auto* file = dynamic_cast<File*>(node);
  if (node == nullptr || (file != nullptr && file->tombstoned))
    return "OK: no  (" + *arg + " not found)";
  return std::string("OK: yes ") + (file != nullptr ? "file" : "dir") + "  " +
         (r.path.empty() ? "." : r.path);
}

std::string fsstat_version(CommandContext& ctx, std::string_view args) {
  auto one = one_path(args, "fsstat:version", "ERROR: usage  fsstat:version <path>");
  if (!one.path) return one.error;
  const auto& arg = one.path;
  Store* store = ctx.stores.active();
  if (store == nullptr) return kNoStore;
  std::lock_guard guard(store->mutex());
  Resolved r = resolve_node(*store, *arg);
  if (!r.error.empty()) return "ERROR: " + r.error;
  if (!r.found) return "ERROR: no such node: " + *arg;
  return "OK: " + std::to_string(store->find_node(r.path)->version());
}

std::string fsstat_ls(CommandContext& ctx, std::string_view args) {
  auto one = one_path(args, "fsstat:ls", "ERROR: usage  fsstat:ls <dirpath>");
  if (!one.path) return one.error;
  const auto& arg = one.path;
  Store* store = ctx.stores.active();
  if (store == nullptr) return kNoStore;
  std::lock_guard guard(store->mutex());
  std::string error;
  auto path = store_path_of(*store, *arg, error);
  if (!path) return "ERROR: " + error;
  auto* dir = dynamic_cast<Directory*>(store->find_node(*path));
  if (dir == nullptr) return "ERROR: not a directory: " + *arg;
  std::string out = "OK: " + (path->empty() ? std::string(".") : *path) + "/\n";
  for (const auto& child : dir->children) out += child->render(child->name) + "\n";
  out += "(" + std::to_string(dir->children.size()) + " children)\n";
  return out;
}

std::string fsstat_stores(CommandContext& ctx, std::string_view) {
  auto all = ctx.stores.all();
  Store* active = ctx.stores.active();
  std::string out = std::to_string(all.size()) +
                    " store(s) under version control  (* = active; retarget with Kestrune "
                    "EnrollVersionControl <root>)\n";
  for (Store* s : all) {
    std::lock_guard guard(s->mutex());
    out += std::string(s == active ? "* " : "  ") + s->disk_root().string() + "  " +
           std::to_string(s->files().size()) + (s->versioned() ? " file(s)" : " cached file(s)") +
           "  [" + policy_text(s->policy()) + "]\n";
  }
  // A start reports a listed directory that failed only once; here it stays in view.
  for (const auto& entry : read_config_entries(ctx.stores.config_file())) {
    std::error_code ec;
    fs::path root = fs::canonical(entry.path, ec);
    if (!ec && ctx.stores.find(root) != nullptr) continue;
    std::string error;
    const char* why = !fs::is_directory(entry.path, ec)   ? "no such directory"
                      : !parse_policy(entry.flags, error) ? "bad policy"
                                                          : "not loaded";
    out += "! " + entry.path + "  listed in " + ctx.stores.config_file().filename().string() +
           " but not enrolled (" + why + ")\n";
  }
  return out;
}

std::string fsstat_vcstatus(CommandContext& ctx, std::string_view) {
  std::string out = "{\"ok\":true,\"dirs\":[";
  bool first = true;
  for (Store* s : ctx.stores.all()) {
    std::error_code ec;
    bool present = fs::is_directory(s->disk_root(), ec);
    out += std::string(first ? "" : ",") +
           "{\"dir\":" + kx::lang::json_quoted(s->disk_root().string()) + ",\"status\":\"" +
           (present ? "insync" : "error") + "\"}";
    first = false;
  }
  return out + "]}";
}

std::string fsstat_history(CommandContext& ctx, std::string_view args) {
  std::size_t limit = 50;
  std::string error;
  auto parsed = parse_args(args, error);
  if (!parsed) return "ERROR: usage  fsstat:history [limit=N]";
  for (const auto& w : parsed->words) {
    if (!w.starts_with("limit=")) return "ERROR: usage  fsstat:history [limit=N]";
    try {
      limit = std::stoul(w.substr(6));
    } catch (...) {
      return "ERROR: usage  fsstat:history [limit=N]";
    }
  }
  Store* store = ctx.stores.active();
  if (store == nullptr) return kNoStore;
  auto records = read_edits(store->edit_log_file());
  if (records.empty()) return "OK: no edits recorded in " + store->disk_root().string();
  std::string out;
  std::size_t shown = 0;
  for (auto it = records.rbegin(); it != records.rend() && shown < limit; ++it, ++shown)
    out += edit_record_json(*it) + "\n";
  return out;
}

std::string fsstat_paths(CommandContext& ctx, std::string_view args) {
  std::string error;
  auto parsed = parse_args(args, error);
  std::string pattern;
  if (parsed) {
    if (auto e = parsed->element("pattern"))
      pattern = *e;
    else if (!parsed->words.empty())
      pattern = parsed->words[0];
  }
  Store* store = ctx.stores.active();
  if (store == nullptr) return kNoStore;
  std::lock_guard guard(store->mutex());
  std::string lines;
  std::size_t count = 0;
  for (const auto& [path, file] : store->files()) {
    if (!pattern.empty() && !path_matches(pattern, path)) continue;
    lines += file->render(path) + "\n";
    ++count;
  }
  std::string header =
      "OK: " + std::to_string(count) + " file(s) in " + store->disk_root().string();
  if (!pattern.empty()) header += "  matching " + pattern;
  return header + "  (f = file, t = tombstoned)\n" + lines;
}

}  // namespace kst

#include "vfs/enroll.hpp"
#include "vfs/outside_change.hpp"

#include <fstream>
#include <sstream>
#include <system_error>

#include "platform/durable_file.hpp"
#include "platform/home.hpp"
#include "vfs/archive.hpp"
#include "vfs/args.hpp"
#include "vfs/free_memory.hpp"
#include "vfs/policy.hpp"
#include "vfs/start_record.hpp"

namespace kst {

namespace fs = std::filesystem;

namespace {

constexpr std::uint64_t kGiB = 1024ull * 1024 * 1024;
constexpr std::uint64_t kDefaultMaxRepoSize = 2 * kGiB;
constexpr std::uint64_t kRamReserve = 4 * kGiB;     // the tree must be this much under free RAM
constexpr std::uint64_t kTightHeadroom = 8 * kGiB;  // below this the note is shown
constexpr std::size_t kExcludedNamesShown = 10;

const char* kUsage = "ERROR: usage  Kestrune EnrollVersionControl <directory> [flags]\n";

struct TreeSurvey {
  std::uint64_t bytes = 0;  // every walked file
  std::uint64_t admitted_bytes = 0;
  std::size_t admitted = 0;
  std::vector<std::string> excluded;  // store paths refused by the ext rule
  std::uint64_t excluded_bytes = 0;
};

TreeSurvey survey(const fs::path& root, const fs::path& home, const Policy& policy) {
  TreeSurvey s;
  std::error_code ec;
  fs::recursive_directory_iterator it(root, fs::directory_options::skip_permission_denied, ec);
  for (fs::recursive_directory_iterator end; !ec && it != end; it.increment(ec)) {
    std::error_code sec;
    // Types come from the directory listing itself: no stat per entry.
    bool symlink = it->is_symlink(sec);
    bool directory = !symlink && it->is_directory(sec);
    std::string name = it->path().filename().string();
    if (is_machinery_name(name) || symlink || it->path() == home) {
      if (directory) it.disable_recursion_pending();
      continue;
    }
    if (symlink || !it->is_regular_file(sec)) continue;
    auto size = it->file_size(sec);
    if (sec) size = 0;
    s.bytes += size;
    std::string rule;
    if (ext_admits(policy, name, rule)) {
      ++s.admitted;
      s.admitted_bytes += size;
    } else {
      s.excluded.push_back(it->path().lexically_relative(root).generic_string());
      s.excluded_bytes += size;
    }
  }
  return s;
}

std::uint64_t configured_max_repo_size() {
  std::ifstream in(kx::platform::main_config_file());
  std::string line;
  while (std::getline(in, line)) {
    auto eq = line.find('=');
    if (eq == std::string::npos) continue;
    std::string key = line.substr(0, eq), value = line.substr(eq + 1);
    auto trim = [](std::string& t) {
      t.erase(0, t.find_first_not_of(" \t"));
      t.erase(t.find_last_not_of(" \t\r") + 1);
    };
    trim(key);
    trim(value);
    if (key == "vc.maxreposize")
      if (auto size = parse_size(value)) return *size;
  }
  return kDefaultMaxRepoSize;
}

fs::path absolute_dir(std::string_view arg, const fs::path& cwd) {
  std::string text(arg);
  if (text == "~" || text.starts_with("~/"))
    text = kx::platform::user_profile_dir().string() + text.substr(1);
  fs::path p(text);
  if (!p.is_absolute()) p = cwd / p;
  p = p.lexically_normal();
  std::string s = p.string();
  while (s.size() > 1 && s.ends_with("/")) s.pop_back();
  std::error_code ec;
  fs::path real = fs::canonical(s, ec);
  return ec ? fs::path(s) : real;
}

bool same_or_inside(const fs::path& dir, const fs::path& base) {
  auto rel = dir.lexically_relative(base);
  return !rel.empty() && *rel.begin() != "..";
}

// Rewrites versioncontroldirs.cfg without `dir`, then (with a policy) with `dir` as its
// last entry; other lines stay.
bool rewrite_config(const fs::path& file, const fs::path& dir, const Policy* policy) {
  std::vector<std::string> lines;
  {
    std::ifstream in(file);
    std::string line;
    while (std::getline(in, line)) {
      std::string path = line.substr(0, line.find(" :: "));
      if (path == dir.string()) continue;
      lines.push_back(line);
    }
  }
  bool has_header = false;
  for (const auto& l : lines)
    if (l.starts_with("[versioncontroldirs]")) has_header = true;
  std::string text = has_header ? "" : "[versioncontroldirs]\n";
  for (const auto& l : lines) text += l + "\n";
  if (policy != nullptr) text += dir.string() + " :: " + policy_text(*policy) + "\n";
  std::error_code ec;
  fs::create_directories(file.parent_path(), ec);
  std::string reason;
  if (!kx::platform::replace_file_durable(file, text, reason)) return false;
  // A listing made by a verb was already answered: the next start has nothing to add.
  StartRecord record(start_record_file(file.parent_path()));
  record.set("dir " + dir.string(), policy ? "enrolled [" + policy_text(*policy) + "]" : "");
  (void)record.save();  // a failure costs one repeated line at the next start
  return true;
}

bool record_in_config(const fs::path& file, const fs::path& dir, const Policy& policy) {
  return rewrite_config(file, dir, &policy);
}

std::uint64_t history_bytes(const Store& store) {
  std::uint64_t total = 0;
  for (const auto& [path, file] : store.files())
    for (const auto& a : file->archived) {
      std::error_code ec;
      auto size = fs::file_size(a.path, ec);
      if (!ec) total += size;
    }
  return total;
}

// Builds and loads a store; nullptr when the load failed. The answer counts the
// files, so only warnings go to `warn`.
std::unique_ptr<Store> ingest(StoreSet& stores, const fs::path& dir, const Policy& policy,
                              std::ostream& warn) {
  auto store = stores.make_store(dir, policy);
  std::string reason;
  if (policy.mode == StoreMode::kCacheWriteThrough) return store;
  if (!store->load(warn, reason)) return nullptr;
  (void)take_baselines(*store, warn);
  return store;
}

std::string watch_text(const Policy& policy) {
  return policy.watch ? "watching for changes" : "NOT watching (watch=off)";
}

std::string mode_name(StoreMode mode) {
  return mode == StoreMode::kCacheWriteThrough ? "cache-based VC (mode=cachewt)"
                                               : "versioned VC (mode=vc)";
}

bool flag_given(std::string_view flags, std::initializer_list<std::string_view> keys) {
  std::istringstream words{std::string(flags)};
  std::string word;
  while (words >> word)
    for (auto key : keys)
      if (word.starts_with(std::string(key) + "=")) return true;
  return false;
}

struct Request {
  fs::path dir;
  std::string flags;
  Policy policy;
};

std::optional<Request> parse_request(std::string_view args, const fs::path& cwd,
                                     std::string& error) {
  std::string parse_error;
  auto parsed = parse_args(args, parse_error);
  if (!parsed) {
    error = kUsage;
    return std::nullopt;
  }
  std::vector<std::string> words = parsed->words;
  std::string dir_arg;
  if (auto e = parsed->element("path"))
    dir_arg = *e;
  else if (auto d = parsed->element("dir"))
    dir_arg = *d;
  else if (!words.empty()) {
    dir_arg = words.front();
    words.erase(words.begin());
  }
  if (dir_arg.empty()) {
    error = kUsage;
    return std::nullopt;
  }
  Request r;
  for (const auto& w : words) r.flags += (r.flags.empty() ? "" : " ") + w;
  std::string policy_error;
  auto policy = parse_policy(r.flags, policy_error);
  if (!policy) {
    error = "ERROR: bad policy: " + policy_error;
    return std::nullopt;
  }
  r.policy = *policy;
  r.dir = absolute_dir(dir_arg, cwd);
  return r;
}

// Re-enrollment of a directory already in the set.
std::string reenroll(StoreSet& stores, Store& existing, Request& r, std::ostream& warn) {
  const fs::path& dir = r.dir;
  if (!flag_given(r.flags, {"mode", "cache"})) r.policy.mode = existing.policy().mode;
  if (r.policy.mode != existing.policy().mode) {
    return "ERROR: " + dir.string() + " is already enrolled as " +
           mode_name(existing.policy().mode) +
           ".\n  A directory uses one mode at a time and modes are not switched in place.\n"
           "  To change it: UNENROLL this directory (VC panel -> remove, or the unenroll\n"
           "  verb), then re-enroll with mode=" +
           (r.policy.mode == StoreMode::kCacheWriteThrough ? "cachewt" : "vc") +
           ".\n  (Tip: use different directories for cache-based vs versioned VC.)";
  }
  if (r.flags.empty() || r.policy == existing.policy()) {
    stores.set_active(&existing);
    record_in_config(stores.config_file(), dir, existing.policy());
    return "OK: " + dir.string() + " is already enrolled — now the active directory";
  }
  auto fresh = ingest(stores, dir, r.policy, warn);
  if (!fresh) return "ERROR: ingest failed";
  std::size_t left = 0;
  {
    std::lock_guard guard(existing.mutex());
    for (const auto& [path, file] : existing.files())
      if (fresh->find_file(path) == nullptr) ++left;
  }
  Store& store = stores.adopt(std::move(fresh));
  stores.set_active(&store);
  std::string text = "OK: " + dir.string() + " re-enrolled — policy now [" + policy_text(r.policy) +
                     "]; active directory\n  " + std::to_string(left) +
                     " file(s) left VC under the new rules (mirror history kept)";
  if (store.hooks.policy_changed) {
    std::lock_guard guard(store.mutex());
    if (std::size_t stranded = store.hooks.policy_changed(store); stranded > 0)
      text += "\n  " + std::to_string(stranded) +
              " locked file(s) no longer policy-admitted; CheckIn them before tightening policy";
  }
  if (!record_in_config(stores.config_file(), dir, r.policy))
    text += "\n  WARNING: could not update " + stores.config_file().string();
  return text;
}

}  // namespace

std::vector<ConfigEntry> read_config_entries(const fs::path& file) {
  std::vector<ConfigEntry> entries;
  std::ifstream in(file);
  std::string line;
  while (std::getline(in, line)) {
    if (!line.empty() && line.back() == '\r') line.pop_back();
    std::size_t first = line.find_first_not_of(" \t");
    if (first == std::string::npos) continue;
    if (line[first] == '#' || line[first] == ';' || line[first] == '[') continue;
    line = line.substr(first);
    ConfigEntry e;
    auto sep = line.find(" :: ");
    e.path = line.substr(0, sep);
    if (sep != std::string::npos) e.flags = line.substr(sep + 4);
    e.path.erase(e.path.find_last_not_of(" \t") + 1);
    entries.push_back(std::move(e));
  }
  return entries;
}

std::string enroll(StoreSet& stores, std::string_view args, const fs::path& cwd,
                   std::ostream& warn) {
  std::string error;
  auto request = parse_request(args, cwd, error);
  if (!request) return error;
  Request& r = *request;
  const fs::path& dir = r.dir;
  std::error_code ec;
  if (!fs::is_directory(dir, ec)) {
    return "ERROR: no such directory: " + dir.string();
  }
  fs::path home = fs::weakly_canonical(stores.home(), ec);
  if (same_or_inside(dir, home) || dir == home)
    return "ERROR: refusing to enroll the tool's own .Kestrune home";
  std::string note;
  if (dir == dir.root_path()) {
    r.policy.mode = StoreMode::kCacheWriteThrough;
    note =
        "\n  note: whole-drive enrollment auto-selected mode=cachewt (cache write-through, no "
        "version)";
  }
  if (Store* existing = stores.find(dir)) return reenroll(stores, *existing, r, warn) + note;

  // A cache write-through store is not held in RAM and may be a whole drive: no survey.
  TreeSurvey tree;
  if (r.policy.mode == StoreMode::kVersioned) tree = survey(dir, home, r.policy);
  std::uint64_t limit = r.policy.max_bytes ? *r.policy.max_bytes : configured_max_repo_size();
  if (limit != 0 && tree.bytes > limit) {
    return "ERROR: " + dir.string() + " is " + format_size(tree.bytes) +
           " — over the max repo size " + format_size(limit) +
           ".\n  Raise it for this repo:  Kestrune EnrollVersionControl " + dir.string() +
           " max=<size>   (e.g. max=1gb, max=0 = unlimited)\n  Or change the default:   set "
           "vc.maxreposize in .Kestrune\\config\\Kestrune.cfg";
  }
  if (r.policy.mode == StoreMode::kVersioned) {
    if (auto free = free_memory()) {
      if (tree.admitted_bytes + kRamReserve > *free) {
        return "ERROR: enrolling " + dir.string() + " in cached (RAM) VC needs ~" +
               format_size(tree.admitted_bytes) + " of RAM but only " + format_size(*free) +
               " is free — the tree must be at least 4 GB\n  smaller than your free RAM. Free "
               "up memory, or enroll it as the non-cached\n  fallback (caches on access, writes "
               "through to disk, evicts under pressure):\n    Kestrune EnrollVersionControl " +
               dir.string() + " mode=cachewt";
      }
      if (*free - tree.admitted_bytes < kTightHeadroom) {
        note += "\n  note: this leaves ~" + format_size(*free - tree.admitted_bytes) +
                " of RAM headroom — the configuration is a little tight.\n        Consider "
                "installing more RAM, or enroll this directory as the\n        non-cached "
                "fallback instead:\n          Kestrune EnrollVersionControl " +
                dir.string() + " mode=cachewt";
      }
    }
  }

  auto loaded = ingest(stores, dir, r.policy, warn);
  if (!loaded) return "ERROR: ingest failed";
  Store& store = stores.adopt(std::move(loaded));
  stores.set_active(&store);
  bool recorded = record_in_config(stores.config_file(), dir, r.policy);
  std::string flags = policy_text(r.policy);
  std::string listed = recorded ? "\n  listed in: " + stores.config_file().string() +
                                      " — every spawn re-enrolls this list automatically"
                                : "\n  WARNING: could not update " + stores.config_file().string();

  if (r.policy.mode == StoreMode::kCacheWriteThrough) {
    return "OK: cache write-through (no version) enrolled"
           "\n  nothing ingested — a file joins the RAM cache the moment its contents are"
           "\n  looked at or used through an approved verb; writes go straight to the real file"
           "\n  RAM watermarks: when free RAM drops under 8GB, the oldest-recency cache entries"
           "\n  are dumped until 10GB is free again (version-controlled stores are NEVER evicted)"
           "\n  tracked separately from version control: no mirror, no chains, no watcher"
           "\n  policy: [" +
           flags + "]" + listed + note;
  }

  std::uint64_t current = 0;
  for (const auto& [path, file] : store.files()) current += file->text().size();
  std::uint64_t history = history_bytes(store);
  std::string text = "OK: enrolled " + dir.string() + " — " + std::to_string(store.files().size()) +
                     " file(s) ingested (" + format_size(current) + "), " + watch_text(r.policy);
  text += "\n  policy: [" + flags + "]";
  text += "\n  versioned data: " + format_size(current + history) + " (current " +
          format_size(current) + " + history " + format_size(history) + ")";
  if (tree.excluded.empty()) {
    text += "\n  NOT source controlled: nothing — every walked file was admitted";
  } else {
    text += "\n  NOT source controlled: " + std::to_string(tree.excluded.size()) + " file(s), " +
            format_size(tree.excluded_bytes) + " — excluded by the ext policy:";
    for (std::size_t i = 0; i < tree.excluded.size() && i < kExcludedNamesShown; ++i)
      text += "\n    - " + tree.excluded[i];
    if (tree.excluded.size() > kExcludedNamesShown)
      text += "\n    … +" + std::to_string(tree.excluded.size() - kExcludedNamesShown) +
              " more (re-enroll with ext= flags — the ⚙ rules — to include them)";
  }
  text += "\n  data kept at: " + store.mirror_root().string() +
          "\n    (mirror copy + .oldversions chains + tombstones; the working tree stays clean"
          "\n     — history survives anything that happens to it, and reloads whole across "
          "spawns)";
  text += listed;
  text += "\n  bot access: run  Kestrune EnrollVersionControl " + dir.string() +
          " to make this the ACTIVE store\n    (idempotent — re-running just retargets); then "
          "fs:read / fs:write auto-version,\n    fsvctl:log/diff/revert/open reach the history, "
          "fsstat:paths lists the store";
  return text + note;
}

std::string unenroll(StoreSet& stores, std::string_view args, const fs::path& cwd) {
  const char* usage = "ERROR: usage  Kestrune unenroll <directory>";
  std::string parse_error;
  auto parsed = parse_args(args, parse_error);
  if (!parsed) return usage;
  std::string dir_arg = parsed->element("path").value_or(parsed->element("dir").value_or(""));
  if (dir_arg.empty()) {
    if (parsed->words.size() != 1) return usage;
    dir_arg = parsed->words.front();
  } else if (!parsed->words.empty()) {
    return usage;
  }
  // The directory itself may be gone from disk: it is still unenrolled by its name.
  const fs::path dir = absolute_dir(dir_arg, cwd);
  const fs::path config = stores.config_file();
  Store* store = stores.find(dir);
  bool listed = false;
  for (const auto& entry : read_config_entries(config)) {
    std::error_code ec;
    fs::path real = fs::canonical(entry.path, ec);
    if (entry.path == dir.string() || (!ec && real == dir)) listed = true;
  }
  if (store == nullptr && !listed)
    return "ERROR: " + dir.string() +
           " is not enrolled (fsstat:stores lists the enrolled directories)";

  const bool recorded = !listed || rewrite_config(config, dir, nullptr);
  std::string text = "OK: unenrolled " + dir.string() + " — no longer versioned or watched";
  if (store != nullptr) {
    // The next active store is the most recently enrolled one left, as after a restart.
    Store* next = nullptr;
    for (const auto& entry : read_config_entries(config)) {
      std::error_code ec;
      fs::path real = fs::canonical(entry.path, ec);
      if (Store* s = stores.find(ec ? fs::path(entry.path) : real); s != nullptr && s != store)
        next = s;
    }
    if (next == nullptr)
      for (Store* s : stores.all())
        if (s != store) next = s;
    const fs::path mirror = store->mirror_root();
    stores.retire(*store, next);
    text += "\n  history kept at: " + mirror.string() +
            "\n    (enroll the directory again to reach its versions)";
  }
  if (Store* active = stores.active())
    text += "\n  active directory: " + active->disk_root().string();
  else
    text += "\n  no directory is enrolled now";
  if (!recorded) text += "\n  WARNING: could not update " + config.string();
  return text;
}

std::string change_policy(StoreSet& stores, std::string_view args, const fs::path& cwd,
                          std::ostream& warn) {
  std::string error;
  auto request = parse_request(args, cwd, error);
  if (!request) {
    if (error == kUsage) return "ERROR: usage  policy <directory> <flags>";
    return error;
  }
  Store* existing = stores.find(request->dir);
  if (existing == nullptr)
    return "ERROR: " + request->dir.string() +
           " is not enrolled (Kestrune EnrollVersionControl <directory> [flags] first)";
  return reenroll(stores, *existing, *request, warn);
}

}  // namespace kst

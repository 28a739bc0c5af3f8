#include "search/grep_engine.hpp"

#include <algorithm>
#include <atomic>
#include <charconv>
#include <condition_variable>
#include <fstream>
#include <sstream>
#include <thread>
#include <unordered_set>
#include <vector>

#include "lang/text.hpp"
#include "platform/durable_file.hpp"
#include "platform/home.hpp"
#include "platform/read_file.hpp"
#include "search/file_search.hpp"
#include "search/grep_options.hpp"
#include "search/matcher.hpp"

namespace kx::search {
namespace fs = std::filesystem;

GrepSettings parse_grep_settings(std::string_view text) {
  GrepSettings settings;
  std::string section;
  for (std::string_view rest = text; !rest.empty();) {
    std::size_t nl = rest.find('\n');
    std::string_view line = lang::trim(rest.substr(0, nl));
    rest = nl == std::string_view::npos ? std::string_view() : rest.substr(nl + 1);
    if (line.empty() || line[0] == '#' || line[0] == ';') continue;
    if (line.front() == '[' && line.back() == ']') {
      section = std::string(lang::trim(line.substr(1, line.size() - 2)));
      continue;
    }
    std::size_t eq = line.find('=');
    if (eq == std::string_view::npos) continue;
    std::string key = lang::to_lower(lang::trim(line.substr(0, eq)));
    std::string_view value = lang::trim(line.substr(eq + 1));
    if (section == "grep") key = "grep." + key;
    if (key == "grep.cachesearchedfiles") settings.cache_searched_files = value == "true";
    if (key == "grep.trackedithistory") settings.track_edit_history = value == "true";
    if (key == "grep.cachemb") {
      std::uint64_t mb = 0;
      auto [end, ec] = std::from_chars(value.data(), value.data() + value.size(), mb);
      if (ec == std::errc() && end == value.data() + value.size())
        settings.cache_limit_bytes = mb << 20;
    }
  }
  return settings;
}

GrepEngine::GrepEngine(std::shared_ptr<kst::StoreSet> stores, fs::path config_file)
    : stores_(std::move(stores)),
      config_file_(std::move(config_file)),
      cache_(GrepSettings().cache_limit_bytes),
      tracked_(stores_->tracked_trees_file()) {}

namespace {

enum class Source { kStore, kCache, kDisk };

struct Job {
  std::string name;                  // as printed
  std::string disk_path;             // absolute; the cache key
  const std::string* ram = nullptr;  // the store's live bytes, read in place
};

struct JobResult {
  FileResult file;
  Source source = Source::kDisk;
  bool unreadable = false;
  bool done = false;
};

bool has_wildcard(std::string_view word) {
  return word.find_first_of("*?") != std::string_view::npos;
}

// The scope of one call: the files to search, the stores whose locks are held
// while their bytes are searched in place, and the notes for missing paths.
class Scope {
 public:
  Scope(const kst::StoreSet& stores, const fs::path& cwd, const GrepOptions& options)
      : stores_(stores), cwd_(cwd), options_(options) {}

  std::vector<Job> jobs;
  std::string notes;
  std::vector<std::string> disk_trees;  // roots walked on disk, for TrackEditHistory
  bool single_named_file = false;

  void add_word(const std::string& word) {
    fs::path path = absolute(word);
    std::error_code ec;
    if (has_wildcard(word) && !fs::exists(path, ec)) return add_glob(word);
    if (kst::Store* store = stores_.containing(path)) {
      if (add_from_store(*store, path, nullptr)) return;
    }
    fs::file_status status = fs::status(path, ec);
    if (ec || !fs::exists(status)) {
      note(word, "no such file or directory");
      return;
    }
    if (fs::is_directory(status)) {
      disk_trees.push_back(path.generic_string());
      walk(path, nullptr);
    } else {
      disk_trees.push_back(path.parent_path().generic_string());
      add_disk_file(path);
    }
  }

  void add_default() {
    if (kst::Store* store = stores_.active()) {
      add_from_store(*store, store->disk_root(), nullptr);
      return;
    }
    disk_trees.push_back(cwd_.generic_string());
    walk(cwd_, nullptr);
  }

  std::vector<std::unique_lock<std::recursive_mutex>> held;

 private:
  fs::path absolute(const std::string& word) const {
    fs::path path(word);
    if (path.is_relative()) path = cwd_ / path;
    std::error_code ec;
    fs::path canonical = fs::weakly_canonical(path, ec);
    return ec ? path.lexically_normal() : canonical;
  }

  std::string display(const fs::path& path) const {
    fs::path rel = path.lexically_relative(cwd_);
    if (!rel.empty() && *rel.begin() != ".." && rel != ".") return rel.generic_string();
    return path.generic_string();
  }

  void note(const std::string& path, const char* what) {
    if (!options_.suppress_notes) notes += "grep: " + path + ": " + what + "\n";
  }

  bool admitted(const std::string& name) const {
    std::string_view base = name;
    if (std::size_t slash = base.rfind('/'); slash != std::string_view::npos)
      base = base.substr(slash + 1);
    auto matches = [&](const std::string& glob) {
      return lang::glob_match(glob, glob.find('/') != std::string::npos ? name : base);
    };
    if (!options_.includes.empty() &&
        std::none_of(options_.includes.begin(), options_.includes.end(), matches))
      return false;
    return std::none_of(options_.excludes.begin(), options_.excludes.end(), matches);
  }

  void push(Job job, const std::string* glob) {
    if (glob && !lang::glob_match(*glob, job.name)) return;
    if (!admitted(job.name)) return;
    if (!seen_.insert(job.disk_path).second) return;
    jobs.push_back(std::move(job));
  }

  void hold(kst::Store& store) {
    if (std::find(locked_.begin(), locked_.end(), &store) != locked_.end()) return;
    locked_.push_back(&store);
    held.emplace_back(store.mutex());
  }

  // The files of `store` under `path`; false when the store has nothing there.
  bool add_from_store(kst::Store& store, const fs::path& path, const std::string* glob) {
    hold(store);
    fs::path rel = path.lexically_relative(store.disk_root());
    std::string prefix = rel == "." ? "" : rel.generic_string();
    const auto& files = store.files();
    bool any = false;
    if (auto exact = files.find(prefix); !prefix.empty() && exact != files.end()) {
      if (!exact->second->tombstoned) {
        push({display(path), path.generic_string(), &exact->second->text()}, glob);
        any = true;
      }
      return any;
    }
    std::string under = prefix.empty() ? "" : prefix + "/";
    // Names are joined as strings: a large tree has tens of thousands of files.
    const std::string root = store.disk_root().generic_string() + "/";
    std::string shown_root = display(store.disk_root()) + "/";
    std::string cwd_part;  // the store path of the working directory, "" when outside
    bool cwd_inside = false;
    if (fs::path rel = cwd_.lexically_relative(store.disk_root());
        !rel.empty() && *rel.begin() != "..") {
      cwd_inside = true;
      cwd_part = rel == "." ? "" : rel.generic_string() + "/";
      shown_root = root;
    }
    for (auto it = files.lower_bound(under); it != files.end() && it->first.starts_with(under);
         ++it) {
      if (it->second->tombstoned) continue;
      const std::string& path = it->first;
      std::string name = cwd_inside && path.starts_with(cwd_part) ? path.substr(cwd_part.size())
                                                                  : shown_root + path;
      push({std::move(name), root + path, &it->second->text()}, glob);
      any = true;
    }
    return any || store.is_directory_path(prefix);
  }

  void add_disk_file(const fs::path& path) {
    push({display(path), path.generic_string(), nullptr}, nullptr);
  }

  void walk(const fs::path& root, const std::string* glob) {
    std::error_code ec;
    const fs::path& home = platform::home_dir();
    fs::recursive_directory_iterator it(root, fs::directory_options::skip_permission_denied, ec);
    if (ec) {
      note(display(root), "cannot read");
      return;
    }
    std::vector<fs::path> files;
    for (; it != fs::recursive_directory_iterator(); it.increment(ec)) {
      if (ec) break;
      const fs::directory_entry& entry = *it;
      if (entry.is_symlink(ec)) continue;
      if (entry.is_directory(ec)) {
        const fs::path& dir = entry.path();
        std::string leaf = dir.filename().string();
        // Version-control internals and this program's own home are not source.
        if (leaf == ".git" || leaf == ".hg" || leaf == ".svn" || dir == home) {
          it.disable_recursion_pending();
        } else if (kst::Store* store = stores_.find(dir)) {
          add_from_store(*store, dir, glob);
          it.disable_recursion_pending();
        }
        continue;
      }
      if (entry.is_regular_file(ec)) files.push_back(entry.path());
    }
    std::sort(files.begin(), files.end());
    for (const auto& file : files) push({display(file), file.generic_string(), nullptr}, glob);
  }

  void add_glob(const std::string& word) {
    // The directory part before the first wildcard is walked; the glob ('*' crosses
    // '/') is matched against each file's printed path.
    std::size_t wild = word.find_first_of("*?");
    std::size_t slash = word.rfind('/', wild);
    std::string base = slash == std::string::npos ? "." : word.substr(0, slash);
    fs::path root = absolute(base);
    std::string glob = display(root / word.substr(slash == std::string::npos ? 0 : slash + 1));
    if (root == cwd_) glob = word.substr(word.starts_with("./") ? 2 : 0);
    std::error_code ec;
    if (kst::Store* store = stores_.containing(root); store && add_from_store(*store, root, &glob))
      return;
    if (!fs::is_directory(root, ec)) {
      note(word, "no such file or directory");
      return;
    }
    disk_trees.push_back(root.generic_string());
    walk(root, &glob);
  }

  const kst::StoreSet& stores_;
  fs::path cwd_;
  const GrepOptions& options_;
  std::unordered_set<std::string> seen_;
  std::vector<kst::Store*> locked_;
};

FileStamp stamp_of(const std::string& path, bool& ok) {
  std::error_code ec;
  FileStamp stamp;
  stamp.size = fs::file_size(path, ec);
  ok = !ec;
  if (!ok) return stamp;
  stamp.mtime = fs::last_write_time(path, ec).time_since_epoch().count();
  ok = !ec;
  return stamp;
}

std::string summary(std::size_t lines, std::size_t files, std::size_t searched,
                    const std::size_t (&by_source)[3]) {
  return "-- " + std::to_string(lines) + " matching line(s) in " + std::to_string(files) +
         " file(s); searched " + std::to_string(searched) + ": " + std::to_string(by_source[0]) +
         " store-cached, " + std::to_string(by_source[1]) + " grep-cached, " +
         std::to_string(by_source[2]) + " disk";
}

}  // namespace

std::string GrepEngine::run(lang::Session& session, std::string_view args) {
  GrepOptions options;
  if (auto answer = parse_grep_options(split_grep_words(args), options)) return *answer;

  GrepSettings settings;
  {
    std::ifstream in(config_file_);
    std::stringstream text;
    text << in.rdbuf();
    settings = parse_grep_settings(text.str());
  }
  const bool use_cache = options.cache.value_or(settings.cache_searched_files);
  const bool track = options.track.value_or(settings.track_edit_history);
  cache_.set_limit(settings.cache_limit_bytes);

  std::string error;
  GrepOptions unwrapped = options;  // a required literal is looked for before -w/-x wrapping
  unwrapped.words = unwrapped.whole_lines = false;
  std::string hint = combined_pattern(unwrapped);
  auto matcher = Matcher::compile(combined_pattern(options), hint, options.ignore_case,
                                  !options.words && !options.whole_lines, error);
  if (!matcher) return error;

  Scope scope(*stores_, session.cwd, options);
  if (options.scope.empty()) scope.add_default();
  for (const auto& word : options.scope) scope.add_word(word);
  if (options.scope.size() == 1 && scope.jobs.size() == 1 && scope.disk_trees.size() <= 1) {
    std::error_code ec;
    fs::path named(options.scope[0]);
    if (named.is_relative()) named = session.cwd / named;
    scope.single_named_file = fs::is_regular_file(named, ec) && !has_wildcard(options.scope[0]);
  }

  std::atomic<bool> output_full{false};
  std::atomic<bool> stop_all{false};
  FilePlan plan{options, *matcher, false, &output_full, &stop_all};
  plan.show_names = options.names == FileNames::kForce ||
                    (options.names == FileNames::kAuto && !scope.single_named_file);

  const std::vector<Job>& jobs = scope.jobs;
  std::vector<JobResult> results(jobs.size());
  std::string output;
  bool truncated = false;
  std::size_t folded = 0;
  std::mutex fold_mutex;
  const bool separate_files = options.context && !options.only_matching;

  auto fold_locked = [&] {
    // Results join the output in file order, as soon as every earlier file is done.
    while (folded < results.size() && results[folded].done) {
      JobResult& r = results[folded];
      const Job& job = jobs[folded];
      ++folded;
      if (r.unreadable) continue;
      std::string chunk;
      if (options.count) {
        chunk = plan.show_names ? job.name + ":" : "";
        chunk += std::to_string(r.file.selected) + "\n";
      } else if (options.files_with) {
        if (r.file.selected > 0) chunk = job.name + "\n";
      } else if (options.files_without) {
        if (r.file.selected == 0) chunk = job.name + "\n";
      } else {
        chunk = std::move(r.file.output);
        if (separate_files && !chunk.empty() && !output.empty()) chunk = "--\n" + chunk;
      }
      r.file.output.clear();
      if (truncated || chunk.empty()) continue;
      if (output.size() + chunk.size() > kOutputCap) {
        // Stop at the last whole line that fits.
        std::size_t room = kOutputCap - output.size();
        std::size_t cut = chunk.rfind('\n', room == 0 ? 0 : room - 1);
        if (room > 0 && cut != std::string::npos) output.append(chunk, 0, cut + 1);
        truncated = true;
        output_full.store(true);
      } else {
        output += chunk;
      }
    }
  };

  std::atomic<std::size_t> next{0};
  auto worker = [&] {
    MatchScratch scratch;
    for (std::size_t i = next++; i < jobs.size(); i = next++) {
      const Job& job = jobs[i];
      JobResult& r = results[i];
      std::shared_ptr<const std::string> owned;
      std::string_view text;
      if (job.ram) {
        r.source = Source::kStore;
        text = *job.ram;
      } else {
        bool ok = false;
        FileStamp stamp = stamp_of(job.disk_path, ok);
        if (ok) owned = cache_.find(job.disk_path, stamp);
        if (owned) {
          r.source = Source::kCache;
        } else {
          auto bytes = std::make_shared<std::string>();
          if (!ok || !platform::read_whole_file(job.disk_path, *bytes, stamp.size)) {
            r.unreadable = true;
          } else {
            owned = std::move(bytes);
            if (use_cache) cache_.put(job.disk_path, stamp, owned);
          }
        }
        if (owned) text = *owned;
      }
      if (!r.unreadable && !stop_all.load(std::memory_order_relaxed))
        search_file(text, job.name, plan, scratch, r.file);
      std::lock_guard lock(fold_mutex);
      r.done = true;
      fold_locked();
    }
  };
  std::size_t threads =
      std::min<std::size_t>(std::max(1u, std::thread::hardware_concurrency()), jobs.size());
  if (jobs.size() < 4) threads = std::min<std::size_t>(threads, 1);
  std::vector<std::thread> pool;
  for (std::size_t t = 1; t < threads; ++t) pool.emplace_back(worker);
  worker();
  for (auto& t : pool) t.join();
  scope.held.clear();  // the stores' bytes are no longer read

  std::size_t lines = 0, files_matched = 0, searched = 0;
  std::size_t by_source[3] = {0, 0, 0};
  std::vector<std::string> hits;
  std::string notes = scope.notes;
  for (std::size_t i = 0; i < results.size(); ++i) {
    const JobResult& r = results[i];
    if (r.unreadable) {
      if (!options.suppress_notes) notes += "grep: " + jobs[i].name + ": cannot read\n";
      continue;
    }
    ++searched;
    ++by_source[static_cast<int>(r.source)];
    lines += r.file.selected;
    files_matched += r.file.selected > 0;
    for (std::size_t line : r.file.hit_lines)
      hits.push_back(jobs[i].name + ":" + std::to_string(line));
  }
  if (options.publish) session.registers.publish(hits);
  if (options.quiet) return lines > 0 ? "OK: match" : "OK: no match";

  std::string result = notes + output;
  if (truncated) {
    if (!result.empty() && result.back() != '\n') result += '\n';
    result += kTruncationLine;
  }
  if (!result.empty() && result.back() != '\n') result += '\n';
  result += summary(lines, files_matched, searched, by_source);
  if (use_cache && cache_.bytes() > 0)
    result += "  [cache " + std::to_string((cache_.bytes() + 1023) / 1024) + "KB]";
  if (options.publish) {
    result += "\n-- published " + std::to_string(hits.size()) + " hit(s) as $[]";
    if (!hits.empty()) result += " registers $[0.." + std::to_string(hits.size() - 1) + "]";
  }
  if (track) {
    for (const auto& tree : scope.disk_trees) {
      std::string save_error;
      if (!tracked_.remember(tree, save_error)) continue;
      result += "\n-- TrackEditHistory: remembering " + tree +
                " — tool edits will archive prior versions under .Kestrune\\.versioncontrol (no "
                "file events; EnrollVersionControl for live tracking)";
      if (!save_error.empty())
        result += "\nwarning: the tracked-tree list could not be saved: " + save_error;
    }
  }
  return result;
}

}  // namespace kx::search

#include "vfs/file_watches.hpp"

#include <algorithm>
#include <chrono>
#include <fstream>
#include <system_error>

#include "platform/dir_watch.hpp"
#include "platform/durable_file.hpp"
#include "platform/home.hpp"
#include "platform/read_file.hpp"
#include "vfs/archive.hpp"
#include "vfs/args.hpp"
#include "vfs/edit_log.hpp"
#include "vfs/enroll.hpp"
#include "vfs/outside_change.hpp"
#include "vfs/seat_locks.hpp"
#include "vfs/single_file_history.hpp"
#include "vfs/start_record.hpp"
#include "vfs/store_key.hpp"
#include "vfs/tombstone.hpp"
#include "vfs/tree_watcher.hpp"

namespace kst {

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

namespace {

constexpr int kWaitMs = 250;
// Every this many quiet waits (about a second) the file is looked at anyway, so that a
// change the notifications missed is still caught.
constexpr int kLookEvery = 4;
constexpr auto kLongestBurst = std::chrono::milliseconds(1000);

const char* kUsage = "ERROR: usage  watch <file>";

bool inside(const fs::path& path, const fs::path& dir) {
  auto rel = path.lexically_relative(dir);
  return !rel.empty() && *rel.begin() != "..";
}

// The file an argument names, absolute and with its directory's links resolved; the
// file itself may be missing. Nothing when the argument is not one name.
std::optional<fs::path> named_file(std::string_view args, const fs::path& cwd,
                                   std::string_view verb, std::string_view usage,
                                   std::string& error) {
  error = std::string(usage);
  std::string parse_error;
  auto parsed = parse_args(args, parse_error);
  if (!parsed) return std::nullopt;
  std::vector<std::string> names;
  if (auto e = parsed->element("path")) names.push_back(*e);
  names.insert(names.end(), parsed->words.begin(), parsed->words.end());
  if (names.size() > 1) error = too_many_names(usage, verb, names, {"path"});
  if (names.size() != 1 || names[0].empty()) return std::nullopt;
  std::string text = names[0];
  if (text == "~" || text.starts_with("~/"))
    text = kx::platform::user_profile_dir().string() + text.substr(1);
  fs::path p(text);
  if (!p.is_absolute()) p = cwd / p;
  return p.lexically_normal();
}

}  // namespace

// --- one file ------------------------------------------------------------------------

FileWatch::FileWatch(fs::path file, fs::path mirror, fs::path lock_file, std::ostream& report)
    : file_(std::move(file)),
      mirror_(std::move(mirror)),
      lock_file_(std::move(lock_file)),
      report_(report) {}

FileWatch::~FileWatch() {
  stop();
}

bool FileWatch::try_own() {
  std::error_code ec;
  fs::create_directories(lock_file_.parent_path(), ec);
  lock_ = kx::platform::try_lock_file(lock_file_);
  owner_ = lock_.has_value();
  return owner_;
}

void FileWatch::start(bool live) {
  if (try_own()) check();
  if (!live) return;
  running_ = true;
  thread_ = std::thread([this] { run(); });
}

void FileWatch::stop() {
  running_ = false;
  if (thread_.joinable()) thread_.join();
  std::lock_guard guard(check_mutex_);
  lock_.reset();
  owner_ = false;
}

void FileWatch::wait_steps(int steps) {
  for (int i = 0; i < steps && running_; ++i)
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
}

bool FileWatch::check() {
  std::lock_guard guard(check_mutex_);
  if (!owner_) return false;
  return record_file_state(file_, mirror_, kOutsideSeat, "watch", report_, &seen_) ==
         HistoryStep::kRecorded;
}

void FileWatch::run() {
  std::unique_ptr<kx::platform::DirWatch> watch;
  int quiet = 0;
  while (running_) {
    if (!owner_) {
      // Another process owns the watch; when it ends, this one takes it over.
      wait_steps(10);
      if (running_ && try_own()) check();
      continue;
    }
    if (!watch) {
      std::string reason;
      watch = kx::platform::watch_directory(file_.parent_path(), false, {}, reason);
      if (!watch) {
        // The directory cannot be watched (or is gone): look once a second.
        check();
        wait_steps(10);
        continue;
      }
      check();
    }
    kx::platform::DirChanges changes;
    if (!watch->wait(kWaitMs, changes)) {
      if (++quiet % kLookEvery != 0) continue;
      // Read the file only when its size or time moved since it was last read.
      std::error_code size_ec, time_ec;
      const auto size = fs::file_size(file_, size_ec);
      const auto time = fs::last_write_time(file_, time_ec);
      bool same;
      {
        std::lock_guard guard(check_mutex_);
        same = !size_ec && !time_ec && seen_ && seen_->first == size && seen_->second == time;
      }
      if (!same) check();
      continue;
    }
    const auto first = Clock::now();
    while (running_ && Clock::now() - first < kLongestBurst && watch->wait(kSettleMs, changes)) {
    }
    quiet = 0;
    bool ours = changes.overflow;
    for (const auto& path : changes.paths) ours = ours || path == file_;
    if (ours) check();
  }
}

// --- the list ------------------------------------------------------------------------

FileWatches::FileWatches(std::shared_ptr<StoreSet> stores, bool live, std::ostream& report)
    : stores_(std::move(stores)), live_(live), report_(report) {}

FileWatches::~FileWatches() {
  for (auto& w : watches_) w->stop();
}

fs::path FileWatches::mirror_of(const fs::path& file) const {
  return single_file_mirror(*stores_, file);
}

std::unique_ptr<FileWatch> FileWatches::make_watch(const fs::path& file) const {
  return std::make_unique<FileWatch>(file, mirror_of(file), single_file_lock(*stores_, file),
                                     report_);
}

bool FileWatches::write_config() const {
  const fs::path config = stores_->watched_files_file();
  std::string text = "[watchedfiles]\n";
  {
    // Comments stay where the person wrote them.
    std::ifstream in(config);
    std::string line;
    while (std::getline(in, line))
      if (line.starts_with("#") || line.starts_with(";")) text += line + "\n";
  }
  for (const auto& w : watches_) text += w->file().string() + "\n";
  std::error_code ec;
  fs::create_directories(config.parent_path(), ec);
  std::string reason;
  return kx::platform::replace_file_durable(config, text, reason);
}

std::string FileWatches::watch(std::string_view args, const fs::path& cwd) {
  std::string error;
  auto named = named_file(args, cwd, "watch", kUsage, error);
  if (!named) return error;
  const std::string shown = named->string();
  std::error_code ec;
  if (fs::is_directory(*named, ec))
    return "ERROR: " + shown +
           " is a directory — watch takes ONE file; EnrollVersionControl "
           "watches trees";
  if (!fs::exists(*named, ec)) return "ERROR: no such file: " + shown;
  const fs::path parent = fs::canonical(named->parent_path(), ec);
  if (ec) return "ERROR: cannot resolve the parent directory of " + shown;
  const fs::path file = parent / named->filename();
  const fs::path home = fs::weakly_canonical(stores_->home(), ec);
  if (inside(file, home)) return "ERROR: refusing to watch inside the tool's own .Kestrune home";
  if (Store* store = stores_->containing(file))
    return "OK: already covered — " + shown + " lives in the enrolled store " +
           store->disk_root().string();
  std::lock_guard guard(mutex_);
  for (const auto& w : watches_)
    if (w->file() == file) return "OK: already watching " + shown;
  std::string probe;
  if (!kx::platform::read_whole_file(file, probe, 0)) return "ERROR: cannot read " + shown;
  auto watch = make_watch(file);
  fs::create_directories(watch->mirror().parent_path(), ec);
  if (!fs::is_directory(watch->mirror().parent_path(), ec))
    return "ERROR: cannot create the mirror dir for " + shown;
  watch->start(live_);
  watches_.push_back(std::move(watch));
  std::string text = "OK: watching " + shown +
                     " — live events on this ONE file; every change archives the prior bytes\n"
                     "  mirror: " +
                     watches_.back()->mirror().string();
  const fs::path config = stores_->watched_files_file();
  text += write_config() ? "\n  listed in: " + config.string()
                         : "\n  WARNING: could not update " + config.string();
  return text;
}

std::string FileWatches::unwatch(std::string_view args, const fs::path& cwd) {
  std::string error;
  auto named = named_file(args, cwd, "unwatch", "ERROR: usage  unwatch <file>", error);
  if (!named) return error;
  std::error_code ec;
  fs::path parent = fs::canonical(named->parent_path(), ec);
  const fs::path file = ec ? *named : parent / named->filename();
  std::unique_ptr<FileWatch> ending;
  std::string text;
  {
    std::lock_guard guard(mutex_);
    for (auto it = watches_.begin(); it != watches_.end(); ++it) {
      if ((*it)->file() != file && (*it)->file() != *named) continue;
      ending = std::move(*it);
      watches_.erase(it);
      break;
    }
    if (!ending) return "OK: was not watching " + named->string();
    text = "OK: unwatched " + named->string() + " (mirror history kept)";
    if (!write_config())
      text += "\n  WARNING: could not update " + stores_->watched_files_file().string();
  }
  ending->stop();
  return text;
}

std::string FileWatches::list() const {
  std::lock_guard guard(mutex_);
  std::string text = "OK: " + std::to_string(watches_.size()) + " watched file(s)\n";
  for (const auto& w : watches_) {
    std::error_code ec;
    const bool live = fs::is_regular_file(w->file(), ec);
    const auto archived = list_archived(archive_dir_of(w->mirror()), w->file().filename().string());
    text += std::string(live ? "  live " : "  gone ") + w->file().string() + "  (" +
            std::to_string(archived.size()) + " archived version(s))\n";
  }
  return text +
         "\n  watch <file> subscribes to one file; EnrollVersionControl <dir> watches a whole tree";
}

void FileWatches::resume(std::ostream& report) {
  add_listed(report, true);
}

void FileWatches::add_listed(std::ostream& report, bool at_start) {
  std::lock_guard guard(mutex_);
  StartRecord record(start_record_file(stores_->watched_files_file().parent_path()));
  for (const auto& entry : read_config_entries(stores_->watched_files_file())) {
    const fs::path file(entry.path);
    // At a start only what changed since the last one is news; later, a file another
    // process listed always is.
    auto tell = [&](const std::string& outcome, bool healthy, const std::string& text) {
      if (!at_start || record.note("file " + entry.path, outcome, healthy))
        report << "[watchedfiles] " << entry.path << " -> " << text << "\n";
    };
    bool known = false;
    for (const auto& w : watches_) known = known || w->file() == file;
    if (known) continue;
    if (Store* store = stores_->containing(file)) {
      const std::string root = store->disk_root().string();
      tell("covered " + root, false, "covered by the enrolled store " + root);
      continue;
    }
    auto watch = make_watch(file);
    watch->start(live_);
    // Whether this process or another one owns the watch is no news to the person.
    std::error_code ec;
    if (fs::is_regular_file(file, ec))
      tell("watching", true, "watching");
    else
      tell("gone", false, "watching (the file is gone for now)");
    watches_.push_back(std::move(watch));
  }
  if (!at_start) return;
  record.forget_unnoted("file ");
  (void)record.save();  // a failure costs one repeated line at the next start
}

void FileWatches::follow_config(std::ostream& report) {
  std::vector<fs::path> listed;
  for (const auto& entry : read_config_entries(stores_->watched_files_file()))
    listed.emplace_back(entry.path);
  std::vector<std::unique_ptr<FileWatch>> ending;
  {
    std::lock_guard guard(mutex_);
    for (auto it = watches_.begin(); it != watches_.end();) {
      if (std::find(listed.begin(), listed.end(), (*it)->file()) != listed.end()) {
        ++it;
        continue;
      }
      report << "[watchedfiles] " << (*it)->file().string() << " -> unwatched by another process\n";
      ending.push_back(std::move(*it));
      it = watches_.erase(it);
    }
  }
  for (auto& w : ending) w->stop();
  add_listed(report, false);
}

}  // namespace kst

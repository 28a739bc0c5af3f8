#include "vfs/file_watches.hpp"

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

bool FileWatch::record(const std::string& op, std::uint32_t prev, std::uint32_t next) {
  EditRecord r;
  r.ts = now_seconds();
  r.path = file_.filename().string();
  r.op = op;
  r.seat = kOutsideSeat;
  r.new_version = next;
  r.prev_version = prev;
  r.store = file_.parent_path().string();
  std::string reason;
  const fs::path log = mirror_.parent_path() / ".oldversions" / "edits.jsonl";
  std::error_code ec;
  fs::create_directories(log.parent_path(), ec);
  if (append_edit(log, r, reason)) return true;
  report_ << "warning: watch could not log the change of '" << file_.string() << "': " << reason
          << "\n";
  return false;
}

bool FileWatch::check() {
  std::lock_guard guard(check_mutex_);
  if (!owner_) return false;
  const std::string name = file_.filename().string();
  const fs::path archive = archive_dir_of(mirror_);
  const fs::path marker = tombstone_marker(mirror_);
  std::error_code ec;
  const bool mirrored = fs::exists(mirror_, ec);
  const bool gone = fs::exists(marker, ec);
  auto archived = list_archived(archive, name);
  const std::uint32_t last_archived = archived.empty() ? 0 : archived.back().number;
  const std::uint32_t current = mirrored ? last_archived + 1 : last_archived;

  const auto status = fs::symlink_status(file_, ec);
  if (!fs::is_regular_file(status)) {
    seen_.reset();
    // Something other than a file in its place is left alone; a deletion is recorded
    // once, keeping the last bytes as the mirror copy.
    if (status.type() != fs::file_type::not_found || !mirrored || gone) return false;
    if (!write_replacing(marker, "tombstoned v" + std::to_string(current) + " by " + kOutsideSeat +
                                     " at " + std::to_string(now_seconds()) + "\n")) {
      report_ << "warning: watch could not archive final bytes of '" << file_.string()
              << "' — not advancing baseline, will retry\n";
      return false;
    }
    record("delete", current, current);
    return true;
  }

  std::error_code size_ec, time_ec;
  const auto size = fs::file_size(file_, size_ec);
  const auto time = fs::last_write_time(file_, time_ec);
  std::string text;
  if (!kx::platform::read_whole_file(file_, text, size_ec ? 0 : size)) return false;
  if (!size_ec && !time_ec) seen_.emplace(size, time);
  if (mirrored && !gone) {
    std::string baseline;
    if (kx::platform::read_whole_file(mirror_, baseline, text.size()) && baseline == text)
      return false;
  }
  // The new mirror copy is written first; the old one then goes to the archive and the
  // new one takes its place, so no step loses the version it replaces.
  std::string reason;
  fs::create_directories(mirror_.parent_path(), ec);
  auto staged = kx::platform::StagedFile::stage(mirror_, text, reason);
  if (!staged) {
    report_ << "watch mirror refresh failed for '" << file_.string() << "'\n";
    return false;
  }
  std::uint32_t next = current + 1;
  if (mirrored) {
    std::uint32_t number = 0;
    fs::create_directories(archive, ec);
    const fs::path into = first_free_archive_name(archive, name, number);
    fs::rename(mirror_, into, ec);
    if (ec) {
      report_ << "warning: watch archive failed for '" << file_.string()
              << "' — keeping baseline, will retry\n";
      return false;
    }
    next = list_archived(archive, name).back().number + 1;
  }
  if (!staged->commit(reason)) {
    report_ << "watch mirror refresh failed for '" << file_.string() << "'\n";
    return false;
  }
  if (gone) fs::remove(marker, ec);
  record(gone ? "restore" : current == 0 ? "create" : "modify", current, next);
  return true;
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
  return stores_->mirror_dir() / store_key(file.parent_path().string()) / file.filename();
}

std::unique_ptr<FileWatch> FileWatches::make_watch(const fs::path& file) const {
  auto lock = stores_->home() / ".watchlocks" / ("file_" + store_key(file.string()) + ".lock");
  return std::make_unique<FileWatch>(file, mirror_of(file), lock, report_);
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
  std::lock_guard guard(mutex_);
  for (const auto& entry : read_config_entries(stores_->watched_files_file())) {
    report << "[watchedfiles] " << entry.path << " -> ";
    const fs::path file(entry.path);
    if (Store* store = stores_->containing(file)) {
      report << "covered by the enrolled store " << store->disk_root().string() << "\n";
      continue;
    }
    bool known = false;
    for (const auto& w : watches_) known = known || w->file() == file;
    if (known) {
      report << "already watching\n";
      continue;
    }
    auto watch = make_watch(file);
    watch->start(live_);
    std::error_code ec;
    if (watch->follower())
      report << "followed (another Kestrune process owns its watch)\n";
    else if (!fs::is_regular_file(file, ec))
      report << "watching (the file is gone for now)\n";
    else
      report << "watching\n";
    watches_.push_back(std::move(watch));
  }
}

}  // namespace kst

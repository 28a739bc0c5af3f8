#include "vfs/store.hpp"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <fstream>
#include <sstream>
#include <system_error>
#include <thread>
#include <unordered_map>
#include <unordered_set>

#include "platform/durable_file.hpp"
#include "platform/read_file.hpp"
#include "vfs/archive.hpp"
#include "vfs/free_memory.hpp"

namespace kst {

namespace fs = std::filesystem;

namespace {

std::vector<std::string> split_path(const std::string& path) {
  std::vector<std::string> parts;
  std::size_t start = 0;
  while (start < path.size()) {
    std::size_t end = path.find('/', start);
    if (end == std::string::npos) end = path.size();
    if (end > start) parts.push_back(path.substr(start, end - start));
    start = end + 1;
  }
  return parts;
}

bool read_text(const fs::path& path, std::string& out, std::uint64_t size_hint = 0) {
  return kx::platform::read_whole_file(path, out, size_hint);
}

std::uint64_t size_of(const fs::path& path) {
  std::error_code ec;
  auto size = fs::file_size(path, ec);
  return ec ? 0 : size;
}

struct Candidate {
  std::string path;
  bool tombstoned = false;
  bool mirrored = false;  // the mirror copy exists: it is the current version's text
  std::vector<ArchivedVersion> archived;
  std::uint64_t size = 0;  // of the text to load: the working file, or the mirror copy
};

}  // namespace

Store::Store(fs::path disk_root, fs::path mirror_root, Policy policy)
    : disk_root_(std::move(disk_root)),
      mirror_root_(std::move(mirror_root)),
      policy_(std::move(policy)),
      root_(std::make_unique<Directory>(disk_root_.filename().string())) {}

File* Store::find_file(const std::string& path) const {
  auto it = files_.find(path);
  return it == files_.end() ? nullptr : it->second;
}

iFileSystemObj* Store::find_node(const std::string& path) const {
  iFileSystemObj* node = root_.get();
  for (const auto& part : split_path(path)) {
    auto* dir = dynamic_cast<Directory*>(node);
    if (dir == nullptr) return nullptr;
    node = dir->child(part);
    if (node == nullptr) return nullptr;
  }
  return node;
}

bool Store::is_directory_path(const std::string& path) const {
  auto* node = find_node(path);
  return node != nullptr && node->is_directory();
}

Directory& Store::make_directory(const std::string& path) {
  Directory* dir = root_.get();
  for (const auto& part : split_path(path)) {
    auto* next = dynamic_cast<Directory*>(dir->child(part));
    if (next == nullptr) {
      if (auto* file = dynamic_cast<File*>(dir->child(part))) {
        // A directory replaces a stale file node of the same name.
        (void)file;
        std::string file_path;
        for (auto& [p, f] : files_)
          if (f == file) file_path = p;
        files_.erase(file_path);
      }
      next = static_cast<Directory*>(dir->adopt(std::make_unique<Directory>(part)));
    }
    dir = next;
  }
  return *dir;
}

File& Store::make_file(const std::string& path) {
  if (File* existing = find_file(path)) return *existing;
  auto slash = path.rfind('/');
  Directory& parent =
      make_directory(slash == std::string::npos ? std::string() : path.substr(0, slash));
  std::string name = slash == std::string::npos ? path : path.substr(slash + 1);
  auto* file = static_cast<File*>(parent.adopt(std::make_unique<File>(name)));
  index_file(path, file);
  return *file;
}

std::unique_ptr<iFileSystemObj> Store::detach_file(const std::string& path) {
  if (find_file(path) == nullptr) return nullptr;
  auto slash = path.rfind('/');
  auto* parent = dynamic_cast<Directory*>(
      find_node(slash == std::string::npos ? std::string() : path.substr(0, slash)));
  files_.erase(path);
  return parent->release(slash == std::string::npos ? path : path.substr(slash + 1));
}

File& Store::attach_file(const std::string& path, std::unique_ptr<iFileSystemObj> node) {
  auto slash = path.rfind('/');
  Directory& parent =
      make_directory(slash == std::string::npos ? std::string() : path.substr(0, slash));
  node->name = slash == std::string::npos ? path : path.substr(slash + 1);
  auto* file = static_cast<File*>(parent.adopt(std::move(node)));
  index_file(path, file);
  return *file;
}

void Store::replace_with(Store&& other) {
  policy_ = std::move(other.policy_);
  root_ = std::move(other.root_);
  files_ = std::move(other.files_);
}

Store::ProcessLock::ProcessLock(Store& store) : store_(store) {
  if (store_.process_lock_depth_++ > 0) return;
  std::error_code ec;
  fs::create_directories(store_.machinery_dir(), ec);
  store_.process_lock_ =
      std::make_unique<kx::platform::FileLock>(store_.machinery_dir() / "store.lock");
}

Store::ProcessLock::~ProcessLock() {
  if (--store_.process_lock_depth_ == 0) store_.process_lock_.reset();
}

void Store::index_file(const std::string& path, File* file) {
  files_[path] = file;
}

fs::path Store::mirror_path(const std::string& path) const {
  fs::path p(path);
  if (is_unmirrored_name(p.filename().string())) return {};
  return mirror_root_ / p;
}

bool Store::load(std::ostream& warn, std::string& reason) {
  if (disk_root_.empty()) {
    reason = "no disk root (enroll a directory, or setRelativePath/setDiskRoot)";
    return false;
  }
  root_ = std::make_unique<Directory>(disk_root_.filename().string());
  files_.clear();
  // Records appended while the tree is read are applied again later; that is harmless.
  {
    std::error_code lec;
    auto size = fs::file_size(edit_log_file(), lec);
    followed_log_bytes = lec ? 0 : size;
  }

  // Walk the working tree. Symbolic links are not followed, so nothing outside the
  // root can enter the store; the store's own temporary names are skipped.
  std::vector<Candidate> candidates;
  std::vector<std::string> directories;
  // Names in each mirror directory, listed once: whether a file has a mirror copy and an
  // archive directory is then known without asking the disk file by file.
  std::unordered_map<std::string, std::unordered_set<std::string>> mirror_dirs;
  std::error_code ec;
  fs::recursive_directory_iterator it(disk_root_, fs::directory_options::skip_permission_denied,
                                      ec);
  for (fs::recursive_directory_iterator end; !ec && it != end; it.increment(ec)) {
    const auto& entry = *it;
    std::string name = entry.path().filename().string();
    std::error_code sec;
    // Types come from the directory listing itself: no stat per entry.
    bool symlink = entry.is_symlink(sec);
    bool directory = !symlink && entry.is_directory(sec);
    if (is_machinery_name(name) || symlink || (!excluded_.empty() && entry.path() == excluded_)) {
      if (directory) it.disable_recursion_pending();
      if (!symlink && !directory) kx::platform::remove_if_stale_temp(entry.path());
      continue;
    }
    std::string rel = entry.path().lexically_relative(disk_root_).generic_string();
    if (directory) {
      directories.push_back(rel);
      continue;
    }
    if (symlink || !entry.is_regular_file(sec)) continue;
    std::string rule;
    if (!ext_admits(policy_, name, rule)) continue;
    Candidate c{rel, false, false, {}, 0};
    c.size = entry.file_size(sec);
    if (sec) c.size = 0;
    fs::path mirror = mirror_path(rel);
    // Most directories of a freshly enrolled tree have no mirror yet: ask once per directory.
    if (!mirror.empty()) {
      std::string parent = mirror.parent_path().string();
      auto known = mirror_dirs.find(parent);
      if (known == mirror_dirs.end()) {
        std::unordered_set<std::string> names;
        std::error_code dec;
        for (fs::directory_iterator d(mirror.parent_path(), dec), dend; !dec && d != dend;
             d.increment(dec))
          names.insert(d->path().filename().string());
        known = mirror_dirs.emplace(std::move(parent), std::move(names)).first;
      }
      const std::unordered_set<std::string>& names = known->second;
      if (names.count(archive_dir_of(mirror).filename().string()) != 0)
        c.archived = list_archived(archive_dir_of(mirror), name);
      c.mirrored = names.count(name) != 0;
      if (c.mirrored) c.size = size_of(mirror);
    }
    if (policy_.scope == Scope::kEdited && c.archived.empty() && !c.mirrored) continue;
    candidates.push_back(std::move(c));
  }

  // Tombstoned files are gone from the working tree; their markers are in the mirror.
  std::error_code mec;
  if (fs::is_directory(mirror_root_, mec)) {
    for (fs::recursive_directory_iterator mit(mirror_root_, mec), mend; !mec && mit != mend;
         mit.increment(mec)) {
      std::string name = mit->path().filename().string();
      if (name.ends_with(".oldversions") && mit->is_directory()) {
        mit.disable_recursion_pending();
        continue;
      }
      if (!name.ends_with(kTombstoneSuffix) || !mit->is_regular_file()) continue;
      fs::path target = mit->path();
      target.replace_filename(name.substr(0, name.size() - kTombstoneSuffix.size()));
      std::string rel = target.lexically_relative(mirror_root_).generic_string();
      std::error_code sec;
      if (fs::exists(disk_root_ / rel, sec)) continue;  // recreated outside; live wins
      Candidate c{rel, true, true,
                  list_archived(archive_dir_of(target), target.filename().string()),
                  size_of(target)};
      candidates.push_back(std::move(c));
    }
  }

  // Children in name order on every platform, whatever order the disk lists them in.
  std::sort(directories.begin(), directories.end());
  std::sort(candidates.begin(), candidates.end(),
            [](const Candidate& a, const Candidate& b) { return a.path < b.path; });

  // Memory check before reading anything.
  std::uint64_t total = 0;
  for (const auto& c : candidates) {
    total += c.size;
    std::size_t first = c.archived.size() > kVersionsInRam ? c.archived.size() - kVersionsInRam : 0;
    for (std::size_t i = first; i < c.archived.size(); ++i) total += size_of(c.archived[i].path);
  }
  if (auto free = free_memory(); free && *free < total + 2147483648ull) {
    char line[200];
    std::snprintf(line, sizeof line,
                  "warning: performance may be degraded due to memory constraints (loading %llu "
                  "bytes, ~%llu free after)\n",
                  static_cast<unsigned long long>(total),
                  static_cast<unsigned long long>(*free > total ? *free - total : 0));
    warn << line;
  }

  // Reading the texts is most of the work; it runs on a few threads, each filling the
  // versions of its own candidates, and the tree is built afterwards on this thread.
  std::vector<std::vector<Version>> texts(candidates.size());
  std::vector<char> live_read(candidates.size(), 0);  // not vector<bool>: written concurrently
  std::atomic<std::size_t> next{0};
  auto reader = [&] {
    for (std::size_t i = next++; i < candidates.size(); i = next++) {
      const Candidate& c = candidates[i];
      std::size_t first =
          c.archived.size() > kVersionsInRam ? c.archived.size() - kVersionsInRam : 0;
      for (std::size_t k = first; k < c.archived.size(); ++k) {
        std::string text;
        if (read_text(c.archived[k].path, text, size_of(c.archived[k].path)))
          texts[i].push_back({c.archived[k].number, std::move(text)});
      }
      std::string text;
      // The mirror copy is the last text the store knew; a working file that differs
      // was changed outside, and the watcher versions that change on top.
      live_read[i] =
          read_text(c.mirrored ? mirror_root_ / c.path : disk_root_ / c.path, text, c.size);
      texts[i].push_back({0, std::move(text)});
    }
  };
  std::size_t workers = std::clamp<std::size_t>(std::thread::hardware_concurrency(), 1, 4);
  workers = std::min(workers, candidates.size() / 256 + 1);
  std::vector<std::thread> threads;
  for (std::size_t w = 1; w < workers; ++w) threads.emplace_back(reader);
  reader();
  for (auto& t : threads) t.join();

  for (const auto& dir : directories) make_directory(dir);
  for (std::size_t i = 0; i < candidates.size(); ++i) {
    Candidate& c = candidates[i];
    File& file = make_file(c.path);
    file.tombstoned = c.tombstoned;
    if (c.archived.size() > kVersionsInRam)
      warn << "warning: '" << c.path << "' has " << c.archived.size()
           << " archived versions; loading the most recent " << kVersionsInRam
           << " into RAM (older remain on disk)\n";
    Version live = std::move(texts[i].back());
    texts[i].pop_back();
    for (auto& v : texts[i]) file.push_version(v.number, std::move(v.text));
    std::uint32_t current = c.archived.empty() ? 1 : c.archived.back().number + 1;
    // A tombstoned file without a mirror copy keeps its newest archived version as current.
    if (live_read[i] || !c.tombstoned) file.push_version(current, std::move(live.text));
    file.archived = std::move(c.archived);
  }
  return true;
}

}  // namespace kst

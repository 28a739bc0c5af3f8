// inotify watches one directory per descriptor, so a tree is watched by adding every
// directory, and each directory that appears later as its creation is reported.
#include <poll.h>
#include <sys/inotify.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <system_error>
#include <unordered_map>

#include "platform/dir_watch.hpp"

namespace kx::platform {

namespace fs = std::filesystem;

namespace {

constexpr std::uint32_t kMask = IN_CREATE | IN_MODIFY | IN_CLOSE_WRITE | IN_DELETE | IN_MOVED_FROM |
                                IN_MOVED_TO | IN_DELETE_SELF | IN_MOVE_SELF | IN_ONLYDIR |
                                IN_DONT_FOLLOW | IN_EXCL_UNLINK;

class InotifyWatch final : public DirWatch {
 public:
  InotifyWatch(int fd, bool recursive, fs::path skip)
      : fd_(fd), recursive_(recursive), skip_(std::move(skip)) {}
  ~InotifyWatch() override { ::close(fd_); }

  // False when the directory itself cannot be watched.
  bool add_tree(const fs::path& dir, std::string& reason) {
    if (!add_one(dir, reason)) return false;
    if (!recursive_) return true;
    std::error_code ec;
    fs::recursive_directory_iterator it(dir, fs::directory_options::skip_permission_denied, ec);
    for (fs::recursive_directory_iterator end; !ec && it != end; it.increment(ec)) {
      std::error_code sec;
      if (it->is_symlink(sec) || !it->is_directory(sec)) continue;
      if (!skip_.empty() && it->path() == skip_) {
        it.disable_recursion_pending();
        continue;
      }
      std::string why;
      // A directory that vanished meanwhile is no loss; a full watch table is, and is
      // reported as lost events so that the caller looks everywhere.
      if (!add_one(it->path(), why) && errno == ENOSPC) lost_ = true;
    }
    return true;
  }

  bool wait(int timeout_ms, DirChanges& out) override {
    if (lost_) {
      lost_ = false;
      out.overflow = true;
      return true;
    }
    pollfd p{fd_, POLLIN, 0};
    int rc = ::poll(&p, 1, timeout_ms);
    if (rc <= 0) return false;
    alignas(inotify_event) char buffer[64 * 1024];
    bool any = false;
    for (;;) {
      ssize_t n = ::read(fd_, buffer, sizeof buffer);
      if (n <= 0) break;
      for (char* at = buffer; at < buffer + n;) {
        auto* ev = reinterpret_cast<inotify_event*>(at);
        at += sizeof(inotify_event) + ev->len;
        any = true;
        if (ev->mask & IN_Q_OVERFLOW) {
          out.overflow = true;
          continue;
        }
        auto dir = dirs_.find(ev->wd);
        if (dir == dirs_.end()) continue;
        if (ev->mask & IN_IGNORED) {
          dirs_.erase(dir);
          continue;
        }
        fs::path path = ev->len > 0 ? dir->second / ev->name : dir->second;
        if (recursive_ && (ev->mask & IN_ISDIR) && (ev->mask & (IN_CREATE | IN_MOVED_TO)) &&
            path != skip_) {
          std::string why;
          add_tree(path, why);
        }
        out.paths.push_back(std::move(path));
      }
    }
    if (lost_) {
      lost_ = false;
      out.overflow = true;
    }
    return any;
  }

 private:
  bool add_one(const fs::path& dir, std::string& reason) {
    int wd = ::inotify_add_watch(fd_, dir.c_str(), kMask);
    if (wd < 0) {
      reason = std::strerror(errno);
      return false;
    }
    dirs_[wd] = dir;
    return true;
  }

  int fd_;
  bool recursive_;
  fs::path skip_;
  bool lost_ = false;
  std::unordered_map<int, fs::path> dirs_;
};

}  // namespace

std::unique_ptr<DirWatch> watch_directory(const fs::path& dir, bool recursive, const fs::path& skip,
                                          std::string& reason) {
  int fd = ::inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
  if (fd < 0) {
    reason = std::strerror(errno);
    return nullptr;
  }
  auto watch = std::make_unique<InotifyWatch>(fd, recursive, skip);
  if (!watch->add_tree(dir, reason)) return nullptr;
  return watch;
}

}  // namespace kx::platform

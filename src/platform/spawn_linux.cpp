// Detached start: fork, setsid, streams to /dev/null, every other descriptor
// closed, exec. A second fork makes the child an orphan adopted by init, so the
// caller never has to reap it; a pipe with close-on-exec reports whether the exec
// itself succeeded.
#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <string>

#include "platform/env.hpp"
#include "platform/spawn.hpp"

namespace kx::platform {
namespace {

void close_inherited_descriptors(int keep) {
  long max_fd = sysconf(_SC_OPEN_MAX);
  if (max_fd < 0 || max_fd > 65536) max_fd = 65536;
  for (int fd = 3; fd < max_fd; ++fd)
    if (fd != keep) ::close(fd);
}

bool find_on_path(const std::string& name, std::string& found) {
  std::string path = get_env_nonempty("PATH").value_or("/usr/bin:/bin");
  std::size_t start = 0;
  while (start <= path.size()) {
    std::size_t end = path.find(':', start);
    if (end == std::string::npos) end = path.size();
    std::string candidate = path.substr(start, end - start) + "/" + name;
    if (end > start && ::access(candidate.c_str(), X_OK) == 0) {
      found = candidate;
      return true;
    }
    start = end + 1;
  }
  return false;
}

}  // namespace

bool spawn_detached(const std::filesystem::path& program, const std::vector<std::string>& args,
                    const std::filesystem::path& workdir) {
  std::vector<std::string> argv_storage;
  argv_storage.push_back(program.string());
  argv_storage.insert(argv_storage.end(), args.begin(), args.end());
  std::vector<char*> argv;
  for (auto& arg : argv_storage) argv.push_back(arg.data());
  argv.push_back(nullptr);
  std::string dir = workdir.string();

  int status_pipe[2];
  if (::pipe2(status_pipe, O_CLOEXEC) != 0) return false;
  pid_t child = ::fork();
  if (child < 0) {
    ::close(status_pipe[0]);
    ::close(status_pipe[1]);
    return false;
  }
  if (child == 0) {
    // Only async-signal-safe calls from here on.
    ::close(status_pipe[0]);
    ::setsid();
    pid_t grandchild = ::fork();
    if (grandchild != 0) ::_exit(grandchild < 0 ? 127 : 0);
    int null_fd = ::open("/dev/null", O_RDWR);
    if (null_fd >= 0) {
      ::dup2(null_fd, 0);
      ::dup2(null_fd, 1);
      ::dup2(null_fd, 2);
      if (null_fd > 2) ::close(null_fd);
    }
    close_inherited_descriptors(status_pipe[1]);
    if (!dir.empty() && ::chdir(dir.c_str()) != 0) {
      // Stay where we are: the resident does not depend on its working directory.
    }
    ::execv(argv[0], argv.data());
    int error = errno;
    ssize_t ignored = ::write(status_pipe[1], &error, sizeof error);
    (void)ignored;
    ::_exit(127);
  }
  ::close(status_pipe[1]);
  int child_status = 0;
  while (::waitpid(child, &child_status, 0) < 0 && errno == EINTR) {
  }
  int exec_error = 0;
  ssize_t n;
  do {
    n = ::read(status_pipe[0], &exec_error, sizeof exec_error);
  } while (n < 0 && errno == EINTR);
  ::close(status_pipe[0]);
  bool forked = WIFEXITED(child_status) && WEXITSTATUS(child_status) == 0;
  return forked && n == 0;
}

bool open_url(const std::string& url) {
  std::string opener;
  if (!find_on_path("xdg-open", opener)) return false;
  return spawn_detached(opener, {url}, "/");
}

}  // namespace kx::platform

// A pseudo-terminal pair: the child leads a new session with the slave as its
// controlling terminal, the master stays here. The session id doubles as the
// handle on the whole tree: job control puts each pipeline in a process group of
// its own, but all of them stay in the session.
#include <dirent.h>
#include <fcntl.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <mutex>
#include <string_view>
#include <thread>
#include <vector>

#include "platform/env.hpp"
#include "platform/pseudo_terminal.hpp"

namespace kx::platform {
namespace {

// Every process whose session is `sid`, the leader's group first.
void kill_session(pid_t sid) {
  ::kill(-sid, SIGKILL);
  DIR* proc = ::opendir("/proc");
  if (proc == nullptr) return;
  while (dirent* entry = ::readdir(proc)) {
    char* end = nullptr;
    long pid = std::strtol(entry->d_name, &end, 10);
    if (pid <= 0 || *end != '\0') continue;
    if (::getsid(static_cast<pid_t>(pid)) == sid) ::kill(static_cast<pid_t>(pid), SIGKILL);
  }
  ::closedir(proc);
}

void set_size(int fd, int cols, int rows) {
  winsize size{};
  size.ws_col = static_cast<unsigned short>(cols);
  size.ws_row = static_cast<unsigned short>(rows);
  ::ioctl(fd, TIOCSWINSZ, &size);
}

class LinuxPseudoTerminal final : public PseudoTerminal {
 public:
  LinuxPseudoTerminal(int master, int wake_read, int wake_write, pid_t child)
      : master_(master), wake_read_(wake_read), wake_write_(wake_write), child_(child) {}
  ~LinuxPseudoTerminal() override {
    terminate();
    ::close(master_);
    ::close(wake_read_);
    ::close(wake_write_);
    reap(0);  // the killed leader must not linger as a zombie
  }

  long read(char* buffer, std::size_t capacity) override {
    pollfd fds[2] = {{master_, POLLIN, 0}, {wake_read_, POLLIN, 0}};
    for (;;) {
      int ready = ::poll(fds, 2, -1);
      if (ready < 0 && errno == EINTR) continue;
      if (ready < 0 || (fds[1].revents & POLLIN) != 0) return 0;
      ssize_t n = ::read(master_, buffer, capacity);
      if (n < 0 && (errno == EINTR || errno == EAGAIN)) continue;
      if (n <= 0) return 0;  // EIO: no process holds the slave any more
      return static_cast<long>(n) + read_ready(buffer + n, capacity - static_cast<std::size_t>(n));
    }
  }

  // The kernel hands out at most a few KB per read; taking what is already
  // waiting in the same call lets a fast producer reach clients in fewer, larger
  // pieces without delaying a lone keystroke's echo.
  long read_ready(char* buffer, std::size_t capacity) {
    long total = 0;
    pollfd fd{master_, POLLIN, 0};
    while (capacity > 0 && ::poll(&fd, 1, 0) == 1 && (fd.revents & POLLIN) != 0) {
      ssize_t n = ::read(master_, buffer, capacity);
      if (n <= 0) break;  // the next blocking read reports the end
      buffer += n;
      capacity -= static_cast<std::size_t>(n);
      total += n;
    }
    return total;
  }

  bool write(std::string_view bytes) override {
    while (!bytes.empty()) {
      ssize_t n = ::write(master_, bytes.data(), bytes.size());
      if (n < 0 && errno == EINTR) continue;
      if (n <= 0) return false;
      bytes.remove_prefix(static_cast<std::size_t>(n));
    }
    return true;
  }

  bool resize(int cols, int rows) override {
    winsize size{};
    size.ws_col = static_cast<unsigned short>(cols);
    size.ws_row = static_cast<unsigned short>(rows);
    return ::ioctl(master_, TIOCSWINSZ, &size) == 0;  // the kernel sends SIGWINCH
  }

  bool ended_within(int millis) override {
    auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(millis);
    for (;;) {
      if (reap(WNOHANG)) return true;
      if (std::chrono::steady_clock::now() >= deadline) return false;
      std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
  }

  int exit_code() override {
    reap(0);
    std::lock_guard guard(lock_);
    return status_;
  }

  void terminate() override {
    {
      std::lock_guard guard(lock_);
      if (!terminated_) kill_session(child_);
      terminated_ = true;
    }
    char wake = 1;
    ssize_t ignored = ::write(wake_write_, &wake, 1);
    (void)ignored;
  }

 private:
  // True once the started process has been waited for.
  bool reap(int options) {
    std::lock_guard guard(lock_);
    if (reaped_) return true;
    int status = 0;
    pid_t done;
    do {
      done = ::waitpid(child_, &status, options);
    } while (done < 0 && errno == EINTR);
    if (done == 0) return false;
    reaped_ = true;
    if (done < 0) return true;
    status_ = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    return true;
  }

  int master_, wake_read_, wake_write_;
  pid_t child_;
  std::mutex lock_;
  bool reaped_ = false;
  bool terminated_ = false;
  int status_ = 0;
};

}  // namespace

std::string default_terminal_command() {
  return get_env_nonempty("SHELL").value_or("/bin/sh");
}

std::unique_ptr<PseudoTerminal> start_pseudo_terminal(const std::string& command, int cols,
                                                      int rows) {
  int master = ::posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC);
  if (master < 0) return nullptr;
  char slave_name[128];
  if (::grantpt(master) != 0 || ::unlockpt(master) != 0 ||
      ::ptsname_r(master, slave_name, sizeof slave_name) != 0) {
    ::close(master);
    return nullptr;
  }
  set_size(master, cols, rows);
  int wake[2];
  if (::pipe2(wake, O_CLOEXEC) != 0) {
    ::close(master);
    return nullptr;
  }

  // Everything the child needs is prepared before fork: after it only
  // async-signal-safe calls are allowed.
  std::string shell = command.empty() ? default_terminal_command() : std::string("/bin/sh");
  std::vector<std::string> args = command.empty() ? std::vector<std::string>{shell}
                                                  : std::vector<std::string>{shell, "-c", command};
  std::vector<char*> argv;
  for (auto& arg : args) argv.push_back(arg.data());
  argv.push_back(nullptr);
  std::string home = get_env_nonempty("HOME").value_or("/");
  std::vector<std::string> env_storage{"TERM=xterm-256color"};
  for (char** var = environ; *var != nullptr; ++var)
    if (std::string_view(*var).substr(0, 5) != "TERM=") env_storage.emplace_back(*var);
  std::vector<char*> envp;
  for (auto& var : env_storage) envp.push_back(var.data());
  envp.push_back(nullptr);

  pid_t child = ::fork();
  if (child < 0) {
    ::close(master);
    ::close(wake[0]);
    ::close(wake[1]);
    return nullptr;
  }
  if (child == 0) {
    ::setsid();
    int slave = ::open(slave_name, O_RDWR);
    if (slave < 0) ::_exit(127);
    ::ioctl(slave, TIOCSCTTY, 0);
    ::dup2(slave, 0);
    ::dup2(slave, 1);
    ::dup2(slave, 2);
    if (slave > 2) ::close(slave);
    // The resident ignores or blocks some signals; a shell must start with defaults.
    for (int sig : {SIGPIPE, SIGINT, SIGQUIT, SIGTERM, SIGHUP, SIGCHLD, SIGTSTP, SIGTTIN, SIGTTOU})
      ::signal(sig, SIG_DFL);
    sigset_t none;
    sigemptyset(&none);
    ::sigprocmask(SIG_SETMASK, &none, nullptr);
    // The resident's sockets and files are not the shell's business.
    if (::close_range(3, ~0U, 0) != 0)
      for (int fd = 3; fd < 65536; ++fd) ::close(fd);
    if (::chdir(home.c_str()) != 0) {
      // Stay in the resident's directory.
    }
    ::execve(argv[0], argv.data(), envp.data());
    ::_exit(127);
  }
  return std::make_unique<LinuxPseudoTerminal>(master, wake[0], wake[1], child);
}

}  // namespace kx::platform

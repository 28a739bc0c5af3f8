#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <fstream>
#include <optional>
#include <string>
#include <vector>

#include "platform/env.hpp"
#include "platform/shell.hpp"

namespace kx::platform {
namespace {

bool is_executable_file(const std::string& path) {
  struct stat info {};
  return ::stat(path.c_str(), &info) == 0 && S_ISREG(info.st_mode) &&
         ::access(path.c_str(), X_OK) == 0;
}

constexpr const char* kRunMarkName = "KX_SHELL_RUN";

// A mark no other run of any process shares: pid, then a count.
std::string next_run_mark() {
  static std::atomic<unsigned long> count{0};
  return std::to_string(::getpid()) + "." + std::to_string(++count);
}

// Whether the process's environment holds KX_SHELL_RUN=<mark>. Only our own
// processes are readable, which are the only ones we could have started.
bool has_mark(const std::string& pid_dir, const std::string& entry) {
  std::ifstream variables(pid_dir + "/environ", std::ios::binary);
  std::string variable;
  while (std::getline(variables, variable, '\0'))
    if (variable == entry) return true;
  return false;
}

// Kills every process carrying the mark: children that called setsid left the
// group but not their environment. Repeated while new ones turn up (a dying
// parent may have been forking).
void kill_marked(const std::string& mark) {
  std::string entry = std::string(kRunMarkName) + "=" + mark;
  for (int round = 0; round < 5; ++round) {
    bool found = false;
    std::error_code error;
    for (const auto& item : std::filesystem::directory_iterator("/proc", error)) {
      std::string name = item.path().filename().string();
      if (name.empty() || name.find_first_not_of("0123456789") != std::string::npos) continue;
      pid_t other = static_cast<pid_t>(std::stol(name));
      if (other == ::getpid() || !has_mark(item.path().string(), entry)) continue;
      ::kill(other, SIGKILL);
      found = true;
    }
    if (!found) return;
  }
}

}  // namespace

bool is_program_on_path(std::string_view name) {
  if (name.empty()) return false;
  std::string word(name);
  if (word.find('/') != std::string::npos) return is_executable_file(word);
  std::string path = get_env("PATH").value_or("/usr/bin:/bin");
  std::size_t start = 0;
  while (start <= path.size()) {
    std::size_t end = path.find(':', start);
    if (end == std::string::npos) end = path.size();
    std::string dir = end > start ? path.substr(start, end - start) : std::string(1, '.');
    if (is_executable_file(dir + "/" + word)) return true;
    start = end + 1;
  }
  return false;
}

ShellOutcome run_shell(std::string_view command, const std::filesystem::path& cwd,
                       std::chrono::milliseconds timeout, std::size_t output_cap) {
  ShellOutcome outcome;
  int fds[2];
  if (::pipe2(fds, O_CLOEXEC) != 0) {
    outcome.failure = "pipe";
    return outcome;
  }
  std::string cmd(command);
  std::string dir = cwd.string();
  std::string mark = next_run_mark();
  std::string mark_entry = std::string(kRunMarkName) + "=" + mark;
  // The child's environment is built here: after fork only async-signal-safe calls.
  std::vector<char*> child_env;
  for (char** entry = environ; *entry != nullptr; ++entry)
    if (!std::string_view(*entry).starts_with(std::string(kRunMarkName) + "="))
      child_env.push_back(*entry);
  child_env.push_back(mark_entry.data());  // inherited by every descendant, setsid or not
  child_env.push_back(nullptr);
  pid_t pid = ::fork();
  if (pid < 0) {
    outcome.failure = "fork errno " + std::to_string(errno);
    ::close(fds[0]);
    ::close(fds[1]);
    return outcome;
  }
  if (pid == 0) {
    ::setsid();  // own session and process group: the kill reaches the whole group
    int null_in = ::open("/dev/null", O_RDONLY);
    if (null_in >= 0) ::dup2(null_in, STDIN_FILENO);
    ::dup2(fds[1], STDOUT_FILENO);
    ::dup2(fds[1], STDERR_FILENO);
    if (!dir.empty() && ::chdir(dir.c_str()) != 0) _exit(126);
    ::execle("/bin/sh", "sh", "-c", cmd.c_str(), static_cast<char*>(nullptr), child_env.data());
    _exit(127);
  }
  ::close(fds[1]);
  ::fcntl(fds[0], F_SETFL, O_NONBLOCK);

  auto read_ready = [&]() -> bool {  // false at end of output
    char buffer[8192];
    for (;;) {
      ssize_t n = ::read(fds[0], buffer, sizeof buffer);
      if (n < 0 && errno == EINTR) continue;
      if (n < 0) return errno == EAGAIN;
      if (n == 0) return false;
      std::size_t room =
          output_cap > outcome.output.size() ? output_cap - outcome.output.size() : 0;
      if (static_cast<std::size_t>(n) > room) outcome.truncated = true;
      outcome.output.append(buffer, std::min<std::size_t>(room, static_cast<std::size_t>(n)));
    }
  };

  using Clock = std::chrono::steady_clock;
  const auto deadline = Clock::now() + timeout;
  std::optional<Clock::time_point> drain_until;  // set once the shell has ended
  bool output_open = true;
  int status = 0;
  bool reaped = false;
  for (;;) {
    if (!reaped) {
      pid_t done = ::waitpid(pid, &status, WNOHANG);
      if (done == pid) {
        reaped = true;
        drain_until = Clock::now() + std::chrono::milliseconds(kDrainGraceMillis);
      }
    }
    auto now = Clock::now();
    if (!reaped && now >= deadline) {
      outcome.timed_out = true;
      break;
    }
    if (!output_open || (drain_until && now >= *drain_until)) break;
    auto until = drain_until ? *drain_until : deadline;
    auto left = std::chrono::duration_cast<std::chrono::milliseconds>(until - now).count();
    // Short polls while the shell runs: its end is noticed by waitpid, not the pipe.
    pollfd entry{fds[0], POLLIN, 0};
    int ready = ::poll(&entry, 1, static_cast<int>(std::clamp<long long>(left, 0, 20)));
    if (ready < 0 && errno != EINTR) break;
    if (ready > 0) output_open = read_ready();
  }
  ::close(fds[0]);

  // Whatever is left of the tree goes: the group, then strays found by their mark.
  ::kill(-pid, SIGKILL);
  kill_marked(mark);
  if (!reaped) {
    while (::waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
  }
  if (outcome.timed_out) {
    outcome.exit_code = 1;
  } else {
    outcome.exit_code = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
  }
  return outcome;
}

}  // namespace kx::platform

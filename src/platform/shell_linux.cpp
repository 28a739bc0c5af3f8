#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
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
  pid_t pid = ::fork();
  if (pid < 0) {
    outcome.failure = "fork errno " + std::to_string(errno);
    ::close(fds[0]);
    ::close(fds[1]);
    return outcome;
  }
  if (pid == 0) {
    ::setsid();  // own session and process group: the kill reaches the whole tree
    int null_in = ::open("/dev/null", O_RDONLY);
    if (null_in >= 0) ::dup2(null_in, STDIN_FILENO);
    ::dup2(fds[1], STDOUT_FILENO);
    ::dup2(fds[1], STDERR_FILENO);
    if (!dir.empty() && ::chdir(dir.c_str()) != 0) _exit(126);
    ::execl("/bin/sh", "sh", "-c", cmd.c_str(), static_cast<char*>(nullptr));
    _exit(127);
  }
  ::close(fds[1]);

  const auto deadline = std::chrono::steady_clock::now() + timeout;
  char buffer[8192];
  for (;;) {
    auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
        deadline - std::chrono::steady_clock::now());
    if (left.count() <= 0) {
      outcome.timed_out = true;
      break;
    }
    pollfd entry{fds[0], POLLIN, 0};
    int ready = ::poll(&entry, 1, static_cast<int>(std::min<long long>(left.count(), 250)));
    if (ready < 0 && errno != EINTR) break;
    if (ready <= 0) continue;
    ssize_t n = ::read(fds[0], buffer, sizeof buffer);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) break;  // every writer closed: the tree is done with its output
    std::size_t room = output_cap > outcome.output.size() ? output_cap - outcome.output.size() : 0;
    if (static_cast<std::size_t>(n) > room) outcome.truncated = true;
    outcome.output.append(buffer, std::min<std::size_t>(room, static_cast<std::size_t>(n)));
  }
  ::close(fds[0]);

  if (outcome.timed_out) ::kill(-pid, SIGKILL);
  int status = 0;
  while (::waitpid(pid, &status, 0) < 0 && errno == EINTR) {
  }
  if (!outcome.timed_out) {
    ::kill(-pid, SIGKILL);  // descendants that outlived the command do not linger
    outcome.exit_code = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
  } else {
    outcome.exit_code = 1;
  }
  return outcome;
}

}  // namespace kx::platform

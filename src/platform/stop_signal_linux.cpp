// A self-pipe: the signal handler may only write(), so every stop request is one
// byte on a pipe that wait_for_stop reads.
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <mutex>

#include "platform/stop_signal.hpp"

namespace kx::platform {
namespace {

int g_pipe[2] = {-1, -1};
std::once_flag g_pipe_once;
std::atomic<bool> g_stopped{false};

void make_pipe() {
  std::call_once(g_pipe_once, [] {
    if (::pipe2(g_pipe, O_CLOEXEC | O_NONBLOCK) != 0) g_pipe[0] = g_pipe[1] = -1;
  });
}

extern "C" void on_stop_signal(int) {
  int saved = errno;
  g_stopped.store(true);
  if (g_pipe[1] >= 0) {
    char byte = 1;
    ssize_t ignored = ::write(g_pipe[1], &byte, 1);
    (void)ignored;
  }
  errno = saved;
}

}  // namespace

void install_stop_signals() {
  make_pipe();
  struct sigaction action {};
  action.sa_handler = on_stop_signal;
  sigemptyset(&action.sa_mask);
  ::sigaction(SIGINT, &action, nullptr);
  ::sigaction(SIGTERM, &action, nullptr);
}

void request_stop() {
  make_pipe();
  on_stop_signal(0);
}

void wait_for_stop() {
  make_pipe();
  while (!g_stopped.load()) {
    pollfd pfd{g_pipe[0], POLLIN, 0};
    int ready = ::poll(&pfd, 1, g_pipe[0] >= 0 ? 1000 : 100);
    if (ready > 0) {
      char buffer[16];
      while (::read(g_pipe[0], buffer, sizeof buffer) > 0) {
      }
    }
  }
}

void ignore_broken_pipe() {
  ::signal(SIGPIPE, SIG_IGN);
}

}  // namespace kx::platform

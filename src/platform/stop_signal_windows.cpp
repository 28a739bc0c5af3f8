// Stop requests: the shutdown route, or the console's Ctrl+C, Ctrl+Break and close
// events. The console handler runs on a thread of its own, so a condition
// variable is enough.
#include <windows.h>

#include <condition_variable>
#include <mutex>

#include "platform/stop_signal.hpp"

namespace kx::platform {
namespace {

std::mutex g_lock;
std::condition_variable g_wake;
bool g_stopped = false;

BOOL WINAPI on_console_event(DWORD event) {
  if (event == CTRL_C_EVENT || event == CTRL_BREAK_EVENT || event == CTRL_CLOSE_EVENT ||
      event == CTRL_SHUTDOWN_EVENT || event == CTRL_LOGOFF_EVENT) {
    request_stop();
    return TRUE;
  }
  return FALSE;
}

}  // namespace

void install_stop_signals() {
  ::SetConsoleCtrlHandler(on_console_event, TRUE);
}

void request_stop() {
  {
    std::lock_guard guard(g_lock);
    g_stopped = true;
  }
  g_wake.notify_all();
}

void wait_for_stop() {
  std::unique_lock guard(g_lock);
  g_wake.wait(guard, [] { return g_stopped; });
}

void ignore_broken_pipe() {}

}  // namespace kx::platform

#include <signal.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <chrono>
#include <thread>

#include "platform/parent_watch.hpp"

namespace kx::platform {

void end_with_parent() {
  const pid_t parent = ::getppid();
  // The kernel signals us when the parent goes; the poll below backs it up for a
  // parent that died before the call and for a parent thread that ends early.
  ::prctl(PR_SET_PDEATHSIG, SIGTERM);
  if (::getppid() != parent) ::_exit(0);
  std::thread([parent] {
    for (;;) {
      std::this_thread::sleep_for(std::chrono::milliseconds(250));
      if (::getppid() != parent) ::_exit(0);
    }
  }).detach();
}

}  // namespace kx::platform

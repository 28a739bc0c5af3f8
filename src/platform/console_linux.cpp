#include <unistd.h>

#include <cerrno>

#include "platform/console.hpp"

namespace kx::platform {

bool stdin_is_terminal() {
  return isatty(STDIN_FILENO) == 1;
}
bool stdout_is_terminal() {
  return isatty(STDOUT_FILENO) == 1;
}
bool stderr_is_terminal() {
  return isatty(STDERR_FILENO) == 1;
}
void enable_virtual_terminal_output() {}

}  // namespace kx::platform

namespace kx::platform {

std::size_t read_stdin(char* buffer, std::size_t max) {
  for (;;) {
    ssize_t n = ::read(STDIN_FILENO, buffer, max);
    if (n >= 0) return static_cast<std::size_t>(n);
    if (errno != EINTR) return 0;
  }
}

}  // namespace kx::platform

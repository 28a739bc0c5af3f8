#include <unistd.h>

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

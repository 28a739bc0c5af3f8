#include <poll.h>
#include <sys/ioctl.h>
#include <termios.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "platform/raw_console.hpp"

namespace kx::platform {

static_assert(sizeof(termios) <= 128);

RawConsole::RawConsole() {
  termios mode{};
  if (::tcgetattr(STDIN_FILENO, &mode) != 0) return;
  std::memcpy(saved_, &mode, sizeof mode);
  // Fully raw, output too: the session's program already sends the line ends
  // its terminal needs.
  ::cfmakeraw(&mode);
  if (::tcsetattr(STDIN_FILENO, TCSAFLUSH, &mode) == 0) active_ = true;
}

RawConsole::~RawConsole() {
  if (!active_) return;
  termios mode{};
  std::memcpy(&mode, saved_, sizeof mode);
  ::tcsetattr(STDIN_FILENO, TCSAFLUSH, &mode);
}

bool console_size(int& cols, int& rows) {
  winsize size{};
  if (::ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) != 0 &&
      ::ioctl(STDIN_FILENO, TIOCGWINSZ, &size) != 0)
    return false;
  if (size.ws_col == 0 || size.ws_row == 0) return false;
  cols = size.ws_col;
  rows = size.ws_row;
  return true;
}

bool wait_for_input(int millis) {
  pollfd fd{STDIN_FILENO, POLLIN, 0};
  int ready = ::poll(&fd, 1, millis);
  return ready > 0;
}

void write_console(const char* bytes, std::size_t size) {
  while (size > 0) {
    ssize_t n = ::write(STDOUT_FILENO, bytes, size);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return;
    bytes += n;
    size -= static_cast<std::size_t>(n);
  }
}

}  // namespace kx::platform

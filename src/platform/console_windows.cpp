#include <fcntl.h>
#include <io.h>
#include <windows.h>

#include <cstdio>

#include "platform/console.hpp"

namespace kx::platform {
namespace {

bool is_console(DWORD which) {
  DWORD mode = 0;
  return ::GetConsoleMode(::GetStdHandle(which), &mode) != 0;
}

// Results are written byte for byte, as on every other platform: no CR is added
// in front of each LF.
const bool g_binary_stdout = [] {
  ::_setmode(::_fileno(stdout), _O_BINARY);
  ::_setmode(::_fileno(stderr), _O_BINARY);
  return true;
}();

}  // namespace

// Only a console counts: _isatty() is also true for NUL and other character
// devices, and `kx < NUL` is no person at a keyboard.
bool stdin_is_terminal() {
  return is_console(STD_INPUT_HANDLE);
}
bool stdout_is_terminal() {
  return is_console(STD_OUTPUT_HANDLE);
}
bool stderr_is_terminal() {
  return is_console(STD_ERROR_HANDLE);
}

void enable_virtual_terminal_output() {
  (void)g_binary_stdout;
  HANDLE out = ::GetStdHandle(STD_OUTPUT_HANDLE);
  DWORD mode = 0;
  if (::GetConsoleMode(out, &mode))
    ::SetConsoleMode(out, mode | ENABLE_VIRTUAL_TERMINAL_PROCESSING);
  ::SetConsoleOutputCP(CP_UTF8);
}

std::size_t read_stdin(char* buffer, std::size_t max) {
  DWORD got = 0;
  if (!::ReadFile(::GetStdHandle(STD_INPUT_HANDLE), buffer, static_cast<DWORD>(max), &got, nullptr))
    return 0;
  return got;
}

}  // namespace kx::platform

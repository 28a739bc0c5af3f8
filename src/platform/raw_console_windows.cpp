#include <windows.h>

#include <cstring>

#include "platform/raw_console.hpp"

namespace kx::platform {
namespace {

struct SavedModes {
  DWORD input;
  DWORD output;
};

}  // namespace

RawConsole::RawConsole() {
  HANDLE in = ::GetStdHandle(STD_INPUT_HANDLE);
  HANDLE out = ::GetStdHandle(STD_OUTPUT_HANDLE);
  SavedModes saved{};
  if (!::GetConsoleMode(in, &saved.input)) return;
  ::GetConsoleMode(out, &saved.output);
  std::memcpy(saved_, &saved, sizeof saved);
  // Keys arrive as the escape sequences a terminal would send; Ctrl-C is a byte.
  DWORD raw = ENABLE_VIRTUAL_TERMINAL_INPUT;
  if (!::SetConsoleMode(in, raw)) return;
  ::SetConsoleMode(out, saved.output | ENABLE_PROCESSED_OUTPUT |
                            ENABLE_VIRTUAL_TERMINAL_PROCESSING | DISABLE_NEWLINE_AUTO_RETURN);
  active_ = true;
}

RawConsole::~RawConsole() {
  if (!active_) return;
  SavedModes saved{};
  std::memcpy(&saved, saved_, sizeof saved);
  ::SetConsoleMode(::GetStdHandle(STD_INPUT_HANDLE), saved.input);
  ::SetConsoleMode(::GetStdHandle(STD_OUTPUT_HANDLE), saved.output);
}

bool console_size(int& cols, int& rows) {
  CONSOLE_SCREEN_BUFFER_INFO info{};
  if (!::GetConsoleScreenBufferInfo(::GetStdHandle(STD_OUTPUT_HANDLE), &info)) return false;
  cols = info.srWindow.Right - info.srWindow.Left + 1;
  rows = info.srWindow.Bottom - info.srWindow.Top + 1;
  return cols > 0 && rows > 0;
}

bool wait_for_input(int millis) {
  HANDLE in = ::GetStdHandle(STD_INPUT_HANDLE);
  if (::WaitForSingleObject(in, static_cast<DWORD>(millis)) != WAIT_OBJECT_0) return false;
  // Focus, mouse and size events wake the wait but give nothing to read: drop them
  // so that the read that follows does not block.
  for (;;) {
    INPUT_RECORD record;
    DWORD count = 0;
    if (!::PeekConsoleInputA(in, &record, 1, &count)) return true;  // not a console: a pipe
    if (count == 0) return false;
    if (record.EventType == KEY_EVENT && record.Event.KeyEvent.bKeyDown &&
        record.Event.KeyEvent.uChar.AsciiChar != 0)
      return true;
    ::ReadConsoleInputA(in, &record, 1, &count);
  }
}

void write_console(const char* bytes, std::size_t size) {
  HANDLE out = ::GetStdHandle(STD_OUTPUT_HANDLE);
  while (size > 0) {
    DWORD n = 0;
    if (!::WriteFile(out, bytes, static_cast<DWORD>(size), &n, nullptr) || n == 0) return;
    bytes += n;
    size -= n;
  }
}

}  // namespace kx::platform

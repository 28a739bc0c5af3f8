#pragma once
// The console as a terminal client needs it: raw keystrokes (no echo, no line
// editing, no signals from Ctrl-C), escape sequences both ways, and its size.
#include <cstddef>

namespace kx::platform {

// Raw mode on the console while alive (no output processing either: write "\r\n"); the previous
// mode comes back on destruction. active() is false when standard input is not a console.
class RawConsole {
 public:
  RawConsole();
  ~RawConsole();
  RawConsole(const RawConsole&) = delete;
  RawConsole& operator=(const RawConsole&) = delete;
  bool active() const { return active_; }

 private:
  bool active_ = false;
  alignas(8) unsigned char saved_[128];  // the platform's saved mode
};

// The visible size of the console on standard output; false when unknown.
bool console_size(int& cols, int& rows);

// Whether standard input has keystrokes to read within `millis`.
bool wait_for_input(int millis);

// Writes terminal output straight to standard output, unbuffered.
void write_console(const char* bytes, std::size_t size);

}  // namespace kx::platform

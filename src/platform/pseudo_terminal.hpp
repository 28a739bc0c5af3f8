#pragma once
// A program running on a pseudo-terminal (a pseudo console on Windows): the
// process tree it starts, the terminal's input and output, and its size. Closing
// ends the whole tree (process group and session on Linux, job object on Windows).
#include <memory>
#include <optional>
#include <string>
#include <string_view>

namespace kx::platform {

class PseudoTerminal {
 public:
  virtual ~PseudoTerminal() = default;

  // Blocks for output: >0 bytes read, 0 once the terminal has ended (every
  // program holding it is gone, or terminate() ran).
  virtual long read(char* buffer, std::size_t capacity) = 0;
  // Types `bytes` unchanged; false once the terminal has ended.
  virtual bool write(std::string_view bytes) = 0;
  virtual bool resize(int cols, int rows) = 0;
  // Whether the started process ended within `millis`.
  virtual bool ended_within(int millis) = 0;
  // Waits for the started process and gives its exit status.
  virtual int exit_code() = 0;
  // Ends every process of the tree; read() then returns 0.
  virtual void terminate() = 0;
};

// The command used when none is given: the user's login shell ($SHELL, else
// /bin/sh) on Linux, "cmd.exe" on Windows.
std::string default_terminal_command();

// Starts `command` (a command line run by the system shell; empty: the default)
// on a new terminal of cols x rows. Nothing when any step failed.
std::unique_ptr<PseudoTerminal> start_pseudo_terminal(const std::string& command, int cols,
                                                      int rows);

}  // namespace kx::platform

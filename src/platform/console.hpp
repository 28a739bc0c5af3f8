#pragma once
// Questions about the process's standard streams.

#include <cstddef>

namespace kx::platform {

bool stdin_is_terminal();
bool stdout_is_terminal();
bool stderr_is_terminal();

// Whether a person sits at this process: standard input and output are both a
// terminal. A pipe on either end means a script or an agent is driving it.
bool person_at_console();

// Whether colour escapes may be written to standard output: a terminal, and
// neither NO_COLOR nor --no-color (see set_color_disabled) says otherwise.
bool stdout_wants_color();
void set_color_disabled(bool disabled);

// Prepares the console for escape sequences (a no-op where terminals always take them).
void enable_virtual_terminal_output();

}  // namespace kx::platform

namespace kx::platform {

// Reads what standard input has now, up to `max` bytes (a line at a terminal);
// 0 at end of input or on error.
std::size_t read_stdin(char* buffer, std::size_t max);

}  // namespace kx::platform

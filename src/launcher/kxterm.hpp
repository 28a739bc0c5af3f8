#pragma once
// `kx kxterm`: a console client of the resident's terminal sessions.
//   kx kxterm list | ls        the sessions
//   kx kxterm                  a new session running the default shell
//   kx kxterm run <command...> a new session running the command
//   kx kxterm <id>             attach to a session ("t1", ...)
// At a console it is a real terminal (raw keys over a WebSocket, the window size
// followed); with redirected input it sends line by line and polls for output.
#include <cstdint>
#include <string>
#include <vector>

namespace kx::launcher {

int run_kxterm(std::uint16_t port, const std::vector<std::string>& args);

}  // namespace kx::launcher

#pragma once
// "kx mcp": the MCP server on standard input and output, for agents that start it.
#include <cstdint>

namespace kx::launcher {

// Relays each message to the resident's /mcp when one is (or can be brought) up,
// else serves in this process. Ends at end of input, on SIGTERM/SIGHUP, and when
// the parent process dies.
int run_mcp(std::uint16_t port);

}  // namespace kx::launcher

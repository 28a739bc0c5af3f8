#pragma once
// The seam between the command-line entry and the resident: forwarding a line to a
// resident on the port, and the verbs that make this process a server.
#include <cstdint>
#include <optional>
#include <string>

#include "launcher/resident_client.hpp"
#include "launcher/unit_source.hpp"
#include "launcher/workspace.hpp"
#include "server/server.hpp"

namespace kx::launcher {

// Probes the port and, when a compatible resident serves it (or one can be brought
// up, or an older one evicted), forwards the line (or, when it is empty, the units
// of `source`) and prints the answers. The result says what is left to run
// locally: everything when no resident could take it (the reason was printed on
// stderr), the unsent rest of `source` when forwarding stopped part way.
ForwardResult forward_to_resident(std::uint16_t port, const std::string& line, UnitSource& source);

// The token to send to a resident of this process's home that serves the port, is
// brought up on it, or replaces an older one there. Nothing when the caller must
// run here instead: KESTRUNE_LOCAL is set, or the port is held by another home,
// another version or another program (the reason was printed on stderr).
std::optional<std::string> reach_own_resident(std::uint16_t port);

// Runs one command line of any caller on the workspace's session.
server::ExecBridge make_exec_bridge(Workspace& workspace);

// "boot", "boot gui", "gui", "up", "serve", "workstation" and the start verbs
// ("gui:start", "orchestration:start", "vc:start"). Returns the exit status.
int run_server_verb(Workspace& workspace, std::uint16_t port, const std::string& line);

}  // namespace kx::launcher

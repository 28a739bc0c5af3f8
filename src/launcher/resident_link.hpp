#pragma once
// The seam between the command-line entry and the resident: forwarding a line to a
// resident on the port, and the verbs that make this process a server.
#include <cstdint>
#include <string>

#include "launcher/resident_client.hpp"
#include "launcher/unit_source.hpp"
#include "launcher/workspace.hpp"

namespace kx::launcher {

// Probes the port and, when a compatible resident serves it (or one can be brought
// up, or an older one evicted), forwards the line (or, when it is empty, the units
// of `source`) and prints the answers. The result says what is left to run
// locally: everything when no resident could take it (the reason was printed on
// stderr), the unsent rest of `source` when forwarding stopped part way.
ForwardResult forward_to_resident(std::uint16_t port, const std::string& line, UnitSource& source);

// "mcp" alone: relay standard input/output to the resident's /mcp, or serve here.
int run_mcp(std::uint16_t port);

// "boot", "boot gui", "gui", "up", "serve", "workstation" and the start verbs
// ("gui:start", "orchestration:start", "vc:start"). Returns the exit status.
int run_server_verb(Workspace& workspace, std::uint16_t port, const std::string& line);

}  // namespace kx::launcher

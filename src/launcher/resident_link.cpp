// Until the resident exists every line runs in this process, and the server verbs
// say plainly that there is no server to start.
#include "launcher/resident_link.hpp"

#include <cstdio>

namespace kx::launcher {

bool forward_to_resident(std::uint16_t, const std::string&) {
  return false;
}

int run_mcp(std::uint16_t) {
  std::fputs("Kestrune: the MCP server is not part of this build yet\n", stderr);
  return 1;
}

int run_server_verb(Workspace&, std::uint16_t, const std::string& line) {
  std::fprintf(stderr, "Kestrune: '%s' needs the resident, which is not part of this build yet\n",
               line.c_str());
  return 1;
}

}  // namespace kx::launcher

#pragma once
// The handlers behind the route table, grouped by what they serve.
#include "server/router.hpp"

namespace kx::server {

// Core: health, shutdown, the interpreter routes, debug events, MCP's GET text.
Response handle_health(ServerState&, const Request&, RouteEffects&);
Response handle_shutdown(ServerState&, const Request&, RouteEffects&);
Response handle_console_exec(ServerState&, const Request&, RouteEffects&);
Response handle_interp(ServerState&, const Request&, RouteEffects&);
Response handle_debug_stream(ServerState&, const Request&, RouteEffects&);
Response handle_mcp_get(ServerState&, const Request&, RouteEffects&);
Response handle_mcp_post(ServerState&, const Request&, RouteEffects&);
Response handle_kestnode(ServerState&, const Request&, RouteEffects&);

// Chat records on disk and the live roster.
Response handle_chatlog(ServerState&, const Request&, RouteEffects&);
Response handle_channels(ServerState&, const Request&, RouteEffects&);
Response handle_dm_thread(ServerState&, const Request&, RouteEffects&);
Response handle_roster(ServerState&, const Request&, RouteEffects&);

// Files beside the executable: the main page, the UI, the manual.
Response handle_index(ServerState&, const Request&, RouteEffects&);
Response handle_ui(ServerState&, const Request&, RouteEffects&);
Response handle_manual_list(ServerState&, const Request&, RouteEffects&);
Response handle_manual_page(ServerState&, const Request&, RouteEffects&);

}  // namespace kx::server

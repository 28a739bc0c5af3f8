#pragma once
// The handlers behind the route table, grouped by what they serve.
#include <optional>
#include <string>

#include "server/router.hpp"
#include "server/server.hpp"

namespace kx::server {

// Core: health, shutdown, the interpreter routes, debug events, MCP's GET text.
Response handle_health(ServerState&, const Request&, RouteEffects&);
Response handle_auth(ServerState&, const Request&, RouteEffects&);  // 200 once admitted
Response handle_shutdown(ServerState&, const Request&, RouteEffects&);
Response handle_console_exec(ServerState&, const Request&, RouteEffects&);
Response handle_interp(ServerState&, const Request&, RouteEffects&);
Response handle_debug_stream(ServerState&, const Request&, RouteEffects&);
Response handle_mcp_get(ServerState&, const Request&, RouteEffects&);
Response handle_mcp_post(ServerState&, const Request&, RouteEffects&);
Response handle_mcp_delete(ServerState&, const Request&, RouteEffects&);
Response handle_kestnode(ServerState&, const Request&, RouteEffects&);

// Chat records on disk and the live roster.
Response handle_chatlog(ServerState&, const Request&, RouteEffects&);
Response handle_channels(ServerState&, const Request&, RouteEffects&);
Response handle_dm_thread(ServerState&, const Request&, RouteEffects&);
Response handle_roster(ServerState&, const Request&, RouteEffects&);

// Terminal sessions.
Response handle_term_open(ServerState&, const Request&, RouteEffects&);
Response handle_term_share(ServerState&, const Request&, RouteEffects&);
Response handle_term_send(ServerState&, const Request&, RouteEffects&);
Response handle_term_resize(ServerState&, const Request&, RouteEffects&);
Response handle_term_read(ServerState&, const Request&, RouteEffects&);
Response handle_term_close(ServerState&, const Request&, RouteEffects&);
Response handle_term_list(ServerState&, const Request&, RouteEffects&);

// Files beside the executable: the main page, the UI, the manual.
Response handle_index(ServerState&, const Request&, RouteEffects&);
Response handle_ui(ServerState&, const Request&, RouteEffects&);
Response handle_manual_list(ServerState&, const Request&, RouteEffects&);
Response handle_manual_page(ServerState&, const Request&, RouteEffects&);

// The store: enrolment, emits, and the read-only views under "/store/".
Response handle_vc_dirs(ServerState&, const Request&, RouteEffects&);
Response handle_vc_add(ServerState&, const Request&, RouteEffects&);
Response handle_vc_pending(ServerState&, const Request&, RouteEffects&);
Response handle_vc_emit(ServerState&, const Request&, RouteEffects&);
Response handle_vc_approve(ServerState&, const Request&, RouteEffects&);
Response handle_vc_unenroll(ServerState&, const Request&, RouteEffects&);
Response handle_view(ServerState&, const Request&, RouteEffects&);

// A bot's memory, files, inbox; the console's bots.
Response handle_bots_contexts(ServerState&, const Request&, RouteEffects&);
Response handle_bots_memories(ServerState&, const Request&, RouteEffects&);
Response handle_bots_memory(ServerState&, const Request&, RouteEffects&);
Response handle_bots_search(ServerState&, const Request&, RouteEffects&);
Response handle_bots_files(ServerState&, const Request&, RouteEffects&);
Response handle_console_tail(ServerState&, const Request&, RouteEffects&);
Response handle_console_bots(ServerState&, const Request&, RouteEffects&);

// Chat over plain HTTP, and channels bound to memory.
Response handle_chat_next(ServerState&, const Request&, RouteEffects&);
Response handle_chat_say(ServerState&, const Request&, RouteEffects&);
Response handle_chat_draft(ServerState&, const Request&, RouteEffects&);
Response handle_dialog_bind(ServerState&, const Request&, RouteEffects&);
Response handle_dialog_bindings(ServerState&, const Request&, RouteEffects&);

// Shared by the handlers above.
// A parameter from the query, else from a form body.
std::string param(const Request& request, std::string_view name);
// Runs one command line for `bot`, `person` saying whether a person sent it;
// nothing when no interpreter is wired.
std::optional<std::string> run_command(ServerState& state, const std::string& bot,
                                       const std::string& line, const char* route,
                                       bool person = false);
// A command's result as JSON: 200 {"ok":true,"out":..} or, for an "ERROR: " result,
// 409 {"ok":false,"error":..}; 503 {"ok":false,"error":"bridge"} without a result.
Response command_answer(const std::optional<std::string>& out);
// The per-user folder that holds chatlogs/, bots/ and config/.
std::filesystem::path user_data(const ServerState& state);

}  // namespace kx::server

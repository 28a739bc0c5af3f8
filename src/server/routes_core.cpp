#include <chrono>

#include "server/access.hpp"
#include "server/home_token.hpp"
#include "server/json_escape.hpp"
#include "server/routes.hpp"
#include "server/server_state.hpp"
#include "server/version.hpp"

namespace kx::server {
namespace {

// "home" lets a client see that the resident serves another home before it sends
// anything; it is a hash of the token, never the path.
std::string health_body(const ServerState& state, bool shutting_down) {
  std::string body =
      std::string("{\"ok\":true,\"app\":\"Kestrune\",\"version\":\"") + kVersion + "\"";
  if (!state.options.token.empty())
    body += ",\"home\":\"" + token_fingerprint(state.options.token) + "\"";
  if (shutting_down) body += ",\"shutting_down\":true";
  return body + "}";
}

ExecResult run_logged(ServerState& state, const ExecRequest& exec, const char* route) {
  auto start = std::chrono::steady_clock::now();
  ExecResult out = state.options.exec(exec);
  auto millis = std::chrono::duration_cast<std::chrono::milliseconds>(
                    std::chrono::steady_clock::now() - start)
                    .count();
  state.debug.log(std::string("{\"event\":\"exec\",\"route\":\"") + route + "\",\"bot\":" +
                  json_string(exec.bot) + ",\"bytes\":" + std::to_string(exec.line.size()) +
                  ",\"ms\":" + std::to_string(millis) + "}");
  return out;
}

}  // namespace

std::string param(const Request& request, std::string_view name) {
  if (has_form_param(request.query, name)) return form_param(request.query, name);
  return form_param(request.body, name);
}

std::optional<std::string> run_command(ServerState& state, const std::string& bot,
                                       const std::string& line, const char* route, bool person) {
  if (!state.options.exec) return std::nullopt;
  ExecRequest request = line_request(bot, line);
  request.structured_only = true;
  request.person = person;
  return run_logged(state, request, route).printed();
}

Response command_answer(const std::optional<std::string>& out) {
  if (!out) return json_response("503 Service Unavailable", R"({"ok":false,"error":"bridge"})");
  if (out->starts_with("ERROR"))
    return json_response("409 Conflict", "{\"ok\":false,\"error\":" + json_string(*out) + "}");
  return ok_json("{\"ok\":true,\"out\":" + json_string(*out) + "}");
}

std::filesystem::path user_data(const ServerState& state) {
  return state.options.chat.chatlogs.parent_path();
}

Response handle_health(ServerState& state, const Request&, RouteEffects&) {
  return ok_json(health_body(state, false));
}

// The router has checked the token by now: a page asks here whether it is in.
Response handle_auth(ServerState&, const Request&, RouteEffects&) {
  return ok_json(R"({"ok":true})");
}

Response handle_shutdown(ServerState& state, const Request& request, RouteEffects& effects) {
  if (request.header("x-kst-control") != "shutdown")
    return json_response("403 Forbidden",
                         R"({"ok":false,"error":"missing X-Kst-Control: shutdown"})");
  auto on_shutdown = state.options.on_shutdown;
  effects.after_response = [on_shutdown] {
    if (on_shutdown) on_shutdown();
  };
  return ok_json(health_body(state, true));
}

Response handle_console_exec(ServerState& state, const Request& request, RouteEffects&) {
  std::string bot = form_param(request.query, "bot");
  if (bot.empty() || request.body.empty())
    return json_response("400 Bad Request", R"({"ok":false,"error":"bot and command required"})");
  if (request.body.size() > kMaxCommandBytes)
    return json_response("413 Payload Too Large",
                         R"x({"ok":false,"error":"command too large (limit 1 MiB)"})x");
  if (!state.options.exec)
    return json_response("503 Service Unavailable",
                         R"({"ok":false,"error":"interpreter bridge not wired"})");
  ExecRequest exec;
  exec.bot = bot;
  exec.line = request.body;
  exec.cwd = request.header("x-kst-cwd");
  exec.tty = request.header("x-kst-tty") == "1";
  exec.person = person_behind(request, state.options.token);
  exec.session = request.header("x-kst-session");
  // Input framed into units says so; anything else posts one command line.
  exec.arguments = request.header("x-kst-form") != "lines";
  ExecResult result = run_logged(state, exec, "/console/exec");
  // Escaped straight into one body: an answer can be a whole file's diff. Room for
  // an escape every 16 bytes or so (each line's \n), so the body is not grown.
  const std::size_t text_size = result.out.size() + result.err.size() + bot.size();
  std::string body;
  body.reserve(text_size + text_size / 16 + 64);
  body += "{\"ok\":true,\"bot\":";
  append_json_string(body, bot);
  body += ",\"out\":";
  append_json_string(body, result.out);
  body += ",\"err\":";
  append_json_string(body, result.err);
  body += ",\"status\":";
  body += std::to_string(result.status);
  body += '}';
  return ok_json(std::move(body));
}

Response handle_interp(ServerState& state, const Request& request, RouteEffects&) {
  std::string cmd = form_param(request.query, "cmd");
  if (cmd.empty()) cmd = request.body;
  if (cmd.empty()) return {"400 Bad Request", kTextUtf8, "cmd required (query ?cmd= or POST body)"};
  if (!state.options.exec)
    return {"503 Service Unavailable", kTextUtf8, "interpreter bridge not wired"};
  std::string bot = form_param(request.query, "bot");
  ExecRequest exec;
  exec.bot = bot.empty() ? "cli" : bot;
  exec.line = cmd;
  exec.person = person_behind(request, state.options.token);
  ExecResult result = run_logged(state, exec, "/interp");
  return {"200 OK", kTextUtf8, result.printed()};
}

Response handle_debug_stream(ServerState& state, const Request& request, RouteEffects&) {
  std::uint64_t since = 0;
  for (char c : form_param(request.query, "since")) {
    if (c < '0' || c > '9' || since > (UINT64_MAX - 9) / 10) break;
    since = since * 10 + static_cast<std::uint64_t>(c - '0');
  }
  return ok_json(state.debug.since_json(since));
}

Response handle_mcp_get(ServerState&, const Request& request, RouteEffects&) {
  // No server-initiated stream: clients that ask for one fall back to POST only.
  if (request.header("accept").find("text/event-stream") != std::string::npos)
    return text_response("405 Method Not Allowed", "no event stream: POST JSON-RPC 2.0 to /mcp");
  return {"200 OK", kTextUtf8,
          "Kestrune MCP server — POST JSON-RPC 2.0 to /mcp. Call tools/list to begin."};
}

Response handle_kestnode(ServerState&, const Request&, RouteEffects&) {
  return json_response("503 Service Unavailable",
                       R"({"ok":false,"error":"Kestnode is disabled in this build"})");
}

}  // namespace kx::server

#include "server/router.hpp"

#include <string_view>

#include "server/access.hpp"
#include "server/routes.hpp"
#include "server/server_state.hpp"

namespace kx::server {
namespace {

using Handler = Response (*)(ServerState&, const Request&, RouteEffects&);

struct Route {
  const char* path;
  bool prefix;
  const char* method;        // only this method matches; nullptr: any
  const char* refusal;       // loopback-only: the 403 body; nullptr: open to every peer
  const char* refusal_type;  // content type of the refusal
  Handler handler;           // nullptr: the subsystem is not in this build (404)
};

constexpr const char* J = kJson;
constexpr const char* kLoopbackOnly = R"({"ok":false,"error":"loopback only"})";

// Checked in order; the first match answers.
const Route kRoutes[] = {
    {"/", false, nullptr, nullptr, nullptr, handle_index},
    {"/index.html", false, nullptr, nullptr, nullptr, handle_index},
    {"/dm/thread", false, nullptr, nullptr, nullptr, handle_dm_thread},
    {"/ui", false, nullptr, nullptr, nullptr, handle_ui},
    {"/ui/", true, nullptr, nullptr, nullptr, handle_ui},
    {"/chat/next", false, nullptr, nullptr, nullptr, handle_chat_next},
    {"/roster", false, nullptr, nullptr, nullptr, handle_roster},
    {"/channels", false, nullptr, nullptr, nullptr, handle_channels},
    {"/chat/say", false, "POST", nullptr, nullptr, handle_chat_say},
    {"/chat/draft", false, "POST", nullptr, nullptr, handle_chat_draft},
    {"/term/open", false, nullptr, kLoopbackOnly, J, handle_term_open},
    {"/term/share", false, nullptr, kLoopbackOnly, J, handle_term_share},
    {"/term/send", false, nullptr, kLoopbackOnly, J, handle_term_send},
    {"/term/resize", false, nullptr, kLoopbackOnly, J, handle_term_resize},
    {"/term/read", false, nullptr, kLoopbackOnly, J, handle_term_read},
    {"/term/close", false, nullptr, kLoopbackOnly, J, handle_term_close},
    {"/term/list", false, nullptr, nullptr, nullptr, handle_term_list},
    {"/console/exec", false, "POST", R"({"ok":false,"error":"/console/exec is loopback-only"})", J,
     handle_console_exec},
    {"/console/tail", false, nullptr, R"({"ok":false,"error":"/console/tail is loopback-only"})", J,
     handle_console_tail},
    {"/console/bots", false, nullptr, R"({"ok":false,"error":"/console/bots is loopback-only"})", J,
     handle_console_bots},
    {"/manual/list", false, nullptr, nullptr, nullptr, handle_manual_list},
    {"/manual/page", false, nullptr, nullptr, nullptr, handle_manual_page},
    {"/meistro/new", false, "POST", kLoopbackOnly, J, nullptr},
    {"/meistro/crew", false, "POST", kLoopbackOnly, J, nullptr},
    {"/meistro/delete", false, "POST", kLoopbackOnly, J, nullptr},
    {"/meistro/status", false, "POST", kLoopbackOnly, J, nullptr},
    {"/taskforce/prepare", false, "POST", kLoopbackOnly, J, nullptr},
    {"/taskforce/split", false, "POST", kLoopbackOnly, J, nullptr},
    {"/taskforce/atomic", false, "POST", kLoopbackOnly, J, nullptr},
    {"/taskforce/agree", false, "POST", kLoopbackOnly, J, nullptr},
    {"/taskforce/approve", false, "POST", kLoopbackOnly, J, nullptr},
    {"/taskforce/green", false, "POST", kLoopbackOnly, J, nullptr},
    {"/vc/dirs", false, nullptr, R"({"ok":false,"error":"/vc/dirs is loopback-only"})", J,
     handle_vc_dirs},
    {"/vc/list", false, nullptr, nullptr, nullptr, handle_view},
    {"/vc/add", false, "POST", R"({"ok":false,"error":"/vc/add is loopback-only"})", J,
     handle_vc_add},
    {"/vc/pending", false, nullptr, nullptr, nullptr, handle_vc_pending},
    // These change the stores' state, so they are guarded like /vc/add.
    {"/vc/emit", false, "POST", R"({"ok":false,"error":"/vc/emit is loopback-only"})", J,
     handle_vc_emit},
    {"/vc/approve", false, "POST", R"({"ok":false,"error":"/vc/approve is loopback-only"})", J,
     handle_vc_approve},
    {"/vc/unenroll", false, "POST", R"({"ok":false,"error":"/vc/unenroll is loopback-only"})", J,
     handle_vc_unenroll},
    // Read-only views of the stores for the workstation page.
    {"/store/", true, "GET", R"({"ok":false,"error":"store views are loopback-only"})", J,
     handle_view},
    {"/kestnode/", true, nullptr, nullptr, nullptr, handle_kestnode},
    {"/bots/create", false, "POST", R"({"ok":false,"error":"bot mutations are loopback-only"})", J,
     nullptr},
    {"/bots/delete", false, "POST", R"({"ok":false,"error":"bot mutations are loopback-only"})", J,
     nullptr},
    {"/bots/despawn", false, "POST", R"({"ok":false,"error":"bot mutations are loopback-only"})", J,
     nullptr},
    {"/bots/spawn", false, "POST", R"({"ok":false,"error":"spawn is loopback-only"})", J, nullptr},
    {"/team/spawn", false, "POST", R"({"ok":false,"error":"team spawn is loopback-only"})", J,
     nullptr},
    {"/team/rename", false, "POST", R"({"ok":false,"error":"team rename is loopback-only"})", J,
     nullptr},
    {"/team/despawn", false, "POST", R"({"ok":false,"error":"team despawn is loopback-only"})", J,
     nullptr},
    {"/team/state", false, "POST", R"({"ok":false,"error":"team state is loopback-only"})", J,
     nullptr},
    {"/arena/lanes", false, "POST", R"({"ok":false,"error":"lanes control is loopback-only"})", J,
     nullptr},
    {"/work", false, "POST", R"({"ok":false,"error":"work control is loopback-only"})", J, nullptr},
    {"/chatlog", false, nullptr, nullptr, nullptr, handle_chatlog},
    {"/tick/run", false, "POST", R"({"ok":false,"error":"tick run is loopback-only"})", J, nullptr},
    {"/bots/file", false, "GET", R"({"error":"bot file read is loopback-only"})", J, nullptr},
    {"/bots/file", false, "POST", R"({"ok":false,"error":"bot file writes are loopback-only"})", J,
     nullptr},
    {"/bots/files", false, nullptr, nullptr, nullptr, handle_bots_files},
    {"/bots/contexts", false, nullptr, nullptr, nullptr, handle_bots_contexts},
    {"/bots/memories", false, nullptr, R"({"error":"bot memory read is loopback-only"})", J,
     handle_bots_memories},
    {"/bots/memory", false, nullptr, R"({"error":"bot memory read is loopback-only"})", J,
     handle_bots_memory},
    {"/bots/search", false, nullptr, R"({"error":"bot memory read is loopback-only"})", J,
     handle_bots_search},
    {"/debug/stream", false, nullptr, R"({"ok":false,"error":"debug stream is loopback-only"})", J,
     handle_debug_stream},
    {"/interp", false, "POST", "interp is loopback-only", kText, handle_interp},
    {"/rpc", false, "POST",
     R"({"jsonrpc":"2.0","id":null,"error":{"code":-32600,"message":"mcp is loopback-only"}})", J,
     handle_mcp_post},
    {"/mcp", false, "POST",
     R"({"jsonrpc":"2.0","id":null,"error":{"code":-32600,"message":"mcp is loopback-only"}})", J,
     handle_mcp_post},
    {"/mcp", false, "GET", nullptr, nullptr, handle_mcp_get},
    {"/mcp", false, "DELETE", R"({"ok":false,"error":"mcp is loopback-only"})", J,
     handle_mcp_delete},
    {"/v1/chat/completions", false, "POST",
     R"({"error":{"message":"oai-gateway is loopback-only","type":"forbidden"}})", J, nullptr},
    {"/health", false, nullptr, nullptr, nullptr, handle_health},
    {"/auth", false, "GET", nullptr, nullptr, handle_auth},
    {"/shutdown", false, "POST", kLoopbackOnly, J, handle_shutdown},
    {"/dialog/bind", false, "POST", R"({"ok":false,"error":"dialog bind is loopback-only"})", J,
     handle_dialog_bind},
    {"/dialog/bindings", false, "GET", nullptr, nullptr, handle_dialog_bindings},
};

bool matches(const Route& route, const Request& request) {
  if (route.method != nullptr && request.method != route.method) return false;
  std::string_view path = request.path;
  return route.prefix ? path.starts_with(route.path) : path == route.path;
}

bool host_is_loopback(std::string_view host) {
  if (host.empty()) return true;  // HTTP/1.0 tools send none; a browser always does
  if (host.starts_with("[")) {
    std::size_t close = host.find(']');
    return close != std::string_view::npos && host.substr(0, close + 1) == "[::1]";
  }
  host = host.substr(0, host.find(':'));
  if (host == "localhost") return true;
  if (!host.starts_with("127.")) return false;
  int dots = 0;
  for (char c : host) {
    if (c == '.') {
      ++dots;
    } else if (c < '0' || c > '9') {
      return false;
    }
  }
  return dots == 3;
}

std::uint16_t own_port(const ServerState& state) {
  return state.bound_port ? state.bound_port.load() : state.options.port;
}

const char* const kForeignOrigin =
    R"({"ok":false,"error":"this resident answers its own pages only: foreign Origin refused"})";

}  // namespace

bool is_public_path(std::string_view path) {
  return path == "/health" || path == "/" || path == "/index.html" || path == "/ui" ||
         path.starts_with("/ui/");
}

bool admits_websocket(const ServerState& state, const Request& request) {
  return presents_token(request, state.options.token, true) &&
         origin_is_own(request, own_port(state), state.options.listen_address);
}

bool passes_loopback_rule(const Request& request, std::uint16_t port) {
  if (!request.loopback) return false;
  std::string host = request.header("host");
  for (char& c : host)
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
  if (!host_is_loopback(host)) return false;
  // A loopback peer: the listen address cannot be the page's origin here.
  return origin_is_own(request, port, "");
}

Response route_request(ServerState& state, const Request& request, RouteEffects& effects) {
  // The one admission check: the home's token first, then the loopback rule or,
  // on routes open to the network, the page's origin.
  const bool open = is_public_path(request.path);
  if (!open && !presents_token(request, state.options.token, false)) return unauthorized();
  for (const Route& route : kRoutes) {
    if (!matches(route, request)) continue;
    if (route.refusal != nullptr && !passes_loopback_rule(request, own_port(state)))
      return {"403 Forbidden", route.refusal_type, route.refusal};
    if (route.refusal == nullptr && !open &&
        !origin_is_own(request, own_port(state), state.options.listen_address))
      return json_response("403 Forbidden", kForeignOrigin);
    if (route.handler == nullptr) break;
    return route.handler(state, request, effects);
  }
  return text_response("404 Not Found", "not found");
}

}  // namespace kx::server

// MCP over HTTP: JSON-RPC in the POST body, the reply as the answer's body.
#include "protocols/mcp_server.hpp"
#include "server/routes.hpp"
#include "server/server_state.hpp"

namespace kx::server {
namespace {

protocols::ToolHost tool_host(ServerState& state) {
  protocols::ToolHost host;
  if (state.options.exec)
    host.run = [&state](std::string_view line) {
      return state.options.exec(line_request("mcp", std::string(line))).printed();
    };
  return host;
}

}  // namespace

Response handle_mcp_post(ServerState& state, const Request& request, RouteEffects&) {
  const std::string& version = request.header("mcp-protocol-version");
  if (!version.empty() && !protocols::is_supported_protocol_version(version))
    return json_response("400 Bad Request",
                         R"({"jsonrpc":"2.0","id":null,"error":{"code":-32600,"message":)"
                         R"("unsupported MCP-Protocol-Version"}})");
  std::call_once(state.mcp_once, [&state] {
    state.mcp = std::make_unique<protocols::McpServer>(tool_host(state));
  });
  std::string reply = state.mcp->handle(request.body);
  state.debug.log("{\"event\":\"mcp\",\"bytes_in\":" + std::to_string(request.body.size()) +
                  ",\"bytes_out\":" + std::to_string(reply.size()) + "}");
  // Errors ride a 200 like results; a notification or a client's response gets 202.
  if (reply.empty()) return {"202 Accepted", kJson, ""};
  return json_response("200 OK", std::move(reply));
}

}  // namespace kx::server

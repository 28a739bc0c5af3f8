// MCP over HTTP: JSON-RPC in the POST body, the reply as the answer's body.
#include <algorithm>
#include <chrono>
#include <nlohmann/json.hpp>
#include <thread>

#include "protocols/mcp_server.hpp"
#include "server/chat_log.hpp"
#include "server/json_escape.hpp"
#include "server/mcp_sessions.hpp"
#include "server/routes.hpp"
#include "server/server_state.hpp"

namespace kx::server {
namespace {

// The name an agent's chat posts carry.
constexpr const char* kAgentName = "agent";
constexpr std::size_t kLatestMessages = 20;
constexpr std::size_t kMaxMessages = 10000;
constexpr auto kChatWait = std::chrono::seconds(25);
constexpr auto kChatPoll = std::chrono::milliseconds(200);

std::string chat_say(ServerState& state, const std::string& channel, const std::string& text) {
  if (!valid_channel_name(channel)) return "ERROR: bad channel name '" + channel + "'";
  if (text.empty()) return "ERROR: chat_say needs a text";
  const std::string record = state.chat.post_as(kAgentName, channel, "chat", text);
  return "OK: posted to channel '" + channel + "' as message " +
         std::to_string(record_seq(record)) + " from '" + kAgentName + "'";
}

// Polls the channel's log: posts from every path (sockets, HTTP, tools) land there.
std::string chat_read(ServerState& state, const std::string& channel,
                      std::optional<std::uint64_t> since) {
  if (!valid_channel_name(channel)) return "ERROR: bad channel name '" + channel + "'";
  const auto file = state.chat.paths().chatlogs / (channel + ".log");
  const auto deadline = std::chrono::steady_clock::now() + kChatWait;
  std::vector<std::string> records;
  for (;;) {
    records = read_chat_tail(file, since ? kMaxMessages : kLatestMessages);
    if (since)
      std::erase_if(records, [&](const std::string& r) { return record_seq(r) <= *since; });
    if (!since || !records.empty() || std::chrono::steady_clock::now() >= deadline) break;
    std::this_thread::sleep_for(kChatPoll);
  }
  std::uint64_t last = since.value_or(0);
  std::string body = "{\"channel\":" + json_string(channel) + ",\"messages\":[";
  for (std::size_t i = 0; i < records.size(); ++i) {
    if (i) body += ',';
    body += records[i];
    last = std::max(last, record_seq(records[i]));
  }
  return body + "],\"since\":" + std::to_string(last) + "}";
}

protocols::ToolHost tool_host(ServerState& state) {
  protocols::ToolHost host;
  if (state.options.exec)
    host.run = [&state](std::string_view line) {
      return state.options.exec(line_request("mcp", std::string(line))).printed();
    };
  host.chat_say = [&state](const std::string& channel, const std::string& text) {
    return chat_say(state, channel, text);
  };
  host.chat_read = [&state](const std::string& channel, std::optional<std::uint64_t> since) {
    return chat_read(state, channel, since);
  };
  return host;
}

// A successful answer to an initialize request opens a session.
bool starts_session(const std::string& request_body, const std::string& reply) {
  const auto message = nlohmann::json::parse(request_body, nullptr, false);
  if (!message.is_object() || message.value("method", std::string()) != "initialize") return false;
  const auto answer = nlohmann::json::parse(reply, nullptr, false);
  return answer.is_object() && answer.contains("result");
}

}  // namespace

Response handle_mcp_post(ServerState& state, const Request& request, RouteEffects&) {
  const std::string& version = request.header("mcp-protocol-version");
  if (!version.empty() && !protocols::is_supported_protocol_version(version))
    return json_response("400 Bad Request",
                         R"({"jsonrpc":"2.0","id":null,"error":{"code":-32600,"message":)"
                         R"("unsupported MCP-Protocol-Version"}})");
  const std::string& session = request.header("mcp-session-id");
  if (!session.empty() && state.mcp_sessions.ended(session))
    return json_response("404 Not Found",
                         R"({"jsonrpc":"2.0","id":null,"error":{"code":-32600,"message":)"
                         R"("this MCP session was ended: initialize a new one"}})");
  std::call_once(state.mcp_once, [&state] {
    state.mcp = std::make_unique<protocols::McpServer>(tool_host(state));
  });
  std::string reply = state.mcp->handle(request.body);
  state.debug.log("{\"event\":\"mcp\",\"bytes_in\":" + std::to_string(request.body.size()) +
                  ",\"bytes_out\":" + std::to_string(reply.size()) + "}");
  // Errors ride a 200 like results; a notification or a client's response gets 202.
  if (reply.empty()) return {"202 Accepted", kJson, ""};
  Response response = json_response("200 OK", std::move(reply));
  if (starts_session(request.body, response.body))
    if (std::string id = state.mcp_sessions.begin(); !id.empty())
      response.extra_headers = "Mcp-Session-Id: " + id + "\r\n";
  return response;
}

// Streamable HTTP's end of a session.
Response handle_mcp_delete(ServerState& state, const Request& request, RouteEffects&) {
  const std::string& session = request.header("mcp-session-id");
  if (session.empty())
    return json_response("400 Bad Request", R"({"ok":false,"error":"Mcp-Session-Id required"})");
  switch (state.mcp_sessions.end(session)) {
    case McpSessions::End::kEnded:
      return ok_json(R"({"ok":true})");
    case McpSessions::End::kAlreadyEnded:
      return json_response("404 Not Found", R"({"ok":false,"error":"session already ended"})");
    case McpSessions::End::kUnknown:
      break;
  }
  return json_response("404 Not Found", R"({"ok":false,"error":"no such session"})");
}

}  // namespace kx::server

#pragma once
// What every connection thread shares with the listener. Held by shared_ptr so
// that a connection still running when the server object goes away keeps it alive.
#include <atomic>
#include <memory>
#include <mutex>
#include <optional>

#include "platform/socket.hpp"
#include "protocols/mcp_server.hpp"
#include "server/chat_hub.hpp"
#include "server/debug_events.hpp"
#include "server/http_request.hpp"
#include "server/http_response.hpp"
#include "server/mcp_sessions.hpp"
#include "server/server.hpp"
#include "term/sessions.hpp"

namespace kx::server {

struct ServerState {
  explicit ServerState(ServerOptions opts) : options(std::move(opts)), chat(options.chat) {
    chat.set_terminal_input(
        [this](const std::string& bot, const std::string& id, const std::string& line) {
          return terminals.bot_send(id, bot, line);
        });
  }

  ServerOptions options;
  ChatHub chat;
  term::SessionTable terminals;  // after chat: sessions may still deliver to it while ending
  DebugEvents debug;
  std::atomic<int> active{0};
  std::atomic<Server::Phase> phase{Server::Phase::kStarting};
  std::atomic<bool> stopping{false};
  std::atomic<std::uint16_t> bound_port{0};
  platform::Socket listener;  // valid while listening
  // The MCP handler of "/mcp" and "/rpc", made on first use.
  std::once_flag mcp_once;
  std::unique_ptr<protocols::McpServer> mcp;
  McpSessions mcp_sessions;
};

// Connections beyond this many at once are closed at accept: a flood of idle
// sockets must not exhaust the process's threads.
inline constexpr int kMaxConnections = 1024;

// Serves one accepted connection to its end; runs on its own thread.
void handle_connection(std::shared_ptr<ServerState> state, platform::Socket socket, bool loopback);

// The answer that ends an upgrade request before the handshake (no token, foreign
// Origin, no endpoint for the path); nothing when it may proceed.
std::optional<Response> websocket_refusal(ServerState& state, const Request& request);

// Runs the handshake and the frame loop of an upgrade that has no refusal.
void serve_websocket(ServerState& state, platform::Socket& socket, const Request& request);

}  // namespace kx::server

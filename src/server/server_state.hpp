#pragma once
// What the connection loop shares with the handlers on the workers. Held by
// shared_ptr so that a handler still running when the server object goes away
// keeps it alive.
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
#include "server/loop_mailbox.hpp"
#include "server/mcp_sessions.hpp"
#include "server/server.hpp"
#include "server/worker_pool.hpp"
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
  std::shared_ptr<LoopMailbox> mailbox = std::make_shared<LoopMailbox>();
  WorkerPool workers{options.limits.max_workers};
  // The MCP handler of "/mcp" and "/rpc", made on first use.
  std::once_flag mcp_once;
  std::unique_ptr<protocols::McpServer> mcp;
  McpSessions mcp_sessions;
};

// Serves the listener and every connection until the server stops.
void run_connection_loop(const std::shared_ptr<ServerState>& state);

// The answer that ends an upgrade request before the handshake (no token, foreign
// Origin, no endpoint for the path); nothing when it may proceed.
std::optional<Response> websocket_refusal(ServerState& state, const Request& request);

// On a worker, for an upgrade without a refusal: queues the handshake, hands the
// connection to the loop as a WebSocket and opens the endpoint's session.
void open_websocket(const std::shared_ptr<ServerState>& state, std::uint64_t id, Request& request);

}  // namespace kx::server

#pragma once
// WebSocket endpoints, chosen by the upgrade request's path. Every upgrade passes
// the router's admission check (token and Origin) first; an endpoint only sees
// connections that passed it. Add an endpoint as a row of the table in
// websocket_endpoint.cpp.
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>

namespace kx::server {

struct ServerState;
struct Request;

// The sending side of one connection. Safe to call from any thread; frames never
// interleave. Every call returns false (and does nothing) once the connection has
// ended, so a holder may keep it past the close.
class WebSocketOutlet {
 public:
  virtual ~WebSocketOutlet() = default;
  virtual bool send_text(std::string_view message) = 0;  // must be valid UTF-8
  virtual bool send_binary(std::string_view message) = 0;
  // Sends a close frame with `code` and ends the connection; on_close follows.
  virtual void close(std::uint16_t code) = 0;
};
using WebSocketOutletPtr = std::shared_ptr<WebSocketOutlet>;

// What an endpoint does with its connection. The callbacks of one connection run
// one at a time and in order; they should not block for long.
struct WebSocketSession {
  std::function<void(std::string message, bool binary)> on_message;  // a whole message
  std::function<void()> on_close;  // exactly once, after the last message
};

using WebSocketOpen = WebSocketSession (*)(ServerState& state, const Request& request,
                                           const WebSocketOutletPtr& outlet);

// The endpoint serving `path`; nullptr when none does (the upgrade gets 404).
WebSocketOpen find_websocket_endpoint(std::string_view path);

// Chat channels (chat_hub.hpp): every path no other endpoint claims.
WebSocketSession open_chat(ServerState& state, const Request& request,
                           const WebSocketOutletPtr& outlet);

}  // namespace kx::server

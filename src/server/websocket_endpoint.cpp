#include "server/websocket_endpoint.hpp"

#include "server/server_state.hpp"

namespace kx::server {
namespace {

struct Endpoint {
  const char* path;
  bool prefix;
  WebSocketOpen open;
};

// Checked in order; the first match serves. Chat keeps every other path, as it
// always has.
const Endpoint kEndpoints[] = {
    {"/", true, open_chat},
};

}  // namespace

WebSocketOpen find_websocket_endpoint(std::string_view path) {
  for (const Endpoint& endpoint : kEndpoints)
    if (endpoint.prefix ? path.starts_with(endpoint.path) : path == endpoint.path)
      return endpoint.open;
  return nullptr;
}

WebSocketSession open_chat(ServerState& state, const Request&, const WebSocketOutletPtr& outlet) {
  int client =
      state.chat.connect([outlet](const std::string& message) { outlet->send_text(message); });
  state.debug.log("{\"event\":\"ws-open\",\"client\":" + std::to_string(client) + "}");
  WebSocketSession session;
  ServerState* shared = &state;
  session.on_message = [shared, client](std::string message, bool) {
    shared->chat.handle(client, message);
  };
  session.on_close = [shared, client] {
    shared->chat.disconnect(client);
    shared->debug.log("{\"event\":\"ws-close\",\"client\":" + std::to_string(client) + "}");
  };
  return session;
}

}  // namespace kx::server

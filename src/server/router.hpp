#pragma once
// The route table and the one admission check in front of it: every route but the
// public ones (health, the main page, the UI's files) needs the home's token, and
// the loopback-only routes also refuse peers that are not this machine. A new route
// is a row of the table and gets the check with it.
#include <functional>
#include <string>

#include "server/http_request.hpp"
#include "server/http_response.hpp"

namespace kx::server {

struct ServerState;

// What a handler may ask for beyond its answer.
struct RouteEffects {
  std::function<void()> after_response;  // runs once the answer has been sent
};

Response route_request(ServerState& state, const Request& request, RouteEffects& effects);

// "/health", "/", "/index.html" and the UI's files under "/ui/": no token needed.
bool is_public_path(std::string_view path);

// Whether a WebSocket upgrade may proceed: the token (header, cookie or "token"
// query parameter) and an Origin that is absent or this resident's own.
bool admits_websocket(const ServerState& state, const Request& request);

// Whether a request may reach a loopback-only route: the peer is this machine, the
// Host names this machine (no DNS rebinding), and an Origin, when sent, is this
// server's own.
bool passes_loopback_rule(const Request& request, std::uint16_t port);

}  // namespace kx::server

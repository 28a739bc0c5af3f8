#pragma once
// The route table: which handler answers a request, and which routes refuse peers
// that are not this machine (the loopback rule).
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

// Whether a request may reach a loopback-only route: the peer is this machine, the
// Host names this machine (no DNS rebinding), and an Origin, when sent, is this
// server's own.
bool passes_loopback_rule(const Request& request, std::uint16_t port);

}  // namespace kx::server

#pragma once
// SHA-1 and base64: just enough for the WebSocket handshake's accept key.
#include <array>
#include <cstdint>
#include <string>
#include <string_view>

namespace kx::server {

std::array<std::uint8_t, 20> sha1(std::string_view data);

// Standard alphabet with "=" padding.
std::string base64_encode(std::string_view bytes);

// The Sec-WebSocket-Accept value for a client's Sec-WebSocket-Key.
std::string websocket_accept_key(std::string_view client_key);

}  // namespace kx::server

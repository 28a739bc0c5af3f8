#pragma once
// What every WebSocket endpoint shares: the handshake, a thread-safe outlet for
// frames, and the frame loop that hands whole messages to the endpoint.
#include <functional>
#include <mutex>
#include <string>
#include <string_view>

#include "platform/socket.hpp"
#include "server/http_request.hpp"

namespace kx::server {

// Sends frames from any thread; frames never interleave.
struct Outlet {
  std::mutex lock;
  const platform::Socket* socket = nullptr;  // null once the connection has ended

  bool send(int opcode, std::string_view payload);
  void detach();
};

// Answers the upgrade with 101; false (nothing more to do) without a key or when
// sending failed.
bool accept_upgrade(const platform::Socket& socket, const Request& request);

enum class LoopEnd { kPeerClosed, kGone };

// Reads frames until the peer closes or goes; pings are answered here, whole text
// and binary messages go to `on_message`.
LoopEnd frame_loop(const platform::Socket& socket, Outlet& outlet, std::string buffer,
                   const std::function<void(std::string& message, bool binary)>& on_message);

}  // namespace kx::server

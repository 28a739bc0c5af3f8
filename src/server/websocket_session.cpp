// The WebSocket branch of a connection: handshake, then the frame loop feeding
// whole messages to the endpoint the request path names (a terminal session under
// "/term/", the chat hub otherwise). Sends from other threads (chat deliveries,
// terminal output) and from this one (pongs, close) share one lock so that frames
// never interleave.
#include "server/websocket_session.hpp"

#include <memory>

#include "server/server_state.hpp"
#include "server/sha1.hpp"
#include "server/websocket_frame.hpp"

namespace kx::server {

bool Outlet::send(int opcode, std::string_view payload) {
  std::lock_guard guard(lock);
  if (socket == nullptr) return false;
  if (platform::send_all(*socket, encode_frame(opcode, payload))) return true;
  // A peer that stopped reading (send time-out) or vanished is cut off at once,
  // which also ends its frame loop, instead of stalling every later delivery.
  platform::shutdown_both(*socket);
  socket = nullptr;
  return false;
}

void Outlet::detach() {
  std::lock_guard guard(lock);
  socket = nullptr;
}

bool accept_upgrade(const platform::Socket& socket, const Request& request) {
  const std::string& key = request.header("sec-websocket-key");
  if (key.empty()) return false;
  std::string answer =
      "HTTP/1.1 101 Switching Protocols\r\nUpgrade: websocket\r\nConnection: Upgrade\r\n"
      "Sec-WebSocket-Accept: " +
      websocket_accept_key(key) + "\r\n\r\n";
  if (!platform::send_all(socket, answer)) return false;
  platform::set_no_delay(socket);
  return true;
}

LoopEnd frame_loop(const platform::Socket& socket, Outlet& outlet, std::string buffer,
                   const std::function<void(std::string& message, bool binary)>& on_message) {
  MessageAssembler assembler;
  for (;;) {
    Frame frame;
    std::size_t consumed = 0;
    FrameStatus status = parse_frame(buffer, frame, consumed);
    if (status == FrameStatus::kTooLarge) return LoopEnd::kGone;
    if (status == FrameStatus::kNeedMore) {
      char chunk[4096];
      long n = platform::receive_some(socket, chunk, sizeof chunk);
      if (n <= 0) return LoopEnd::kGone;
      buffer.append(chunk, static_cast<std::size_t>(n));
      continue;
    }
    buffer.erase(0, consumed);
    FrameAction action = assembler.feed(std::move(frame));
    switch (action.kind) {
      case FrameAction::kClose:
        return LoopEnd::kPeerClosed;
      case FrameAction::kTooLarge:
        return LoopEnd::kGone;
      case FrameAction::kPong:
        outlet.send(kPong, action.data);
        break;
      case FrameAction::kMessage:
        on_message(action.data, action.binary);
        break;
      case FrameAction::kNone:
        break;
    }
  }
}

void serve_websocket(ServerState& state, platform::Socket& socket, const Request& request) {
  if (request.path.starts_with("/term/")) {
    serve_terminal_socket(state, socket, request);
    return;
  }
  if (!accept_upgrade(socket, request)) return;
  auto outlet = std::make_shared<Outlet>();
  outlet->socket = &socket;
  int client = state.chat.connect(
      [outlet](const std::string& message) { outlet->send(kTextFrame, message); });
  state.debug.log("{\"event\":\"ws-open\",\"client\":" + std::to_string(client) + "}");

  LoopEnd end = frame_loop(socket, *outlet, request.body,
                           [&](std::string& message, bool) { state.chat.handle(client, message); });
  if (end == LoopEnd::kPeerClosed) outlet->send(kClose, std::string("\x03\xE8", 2));
  outlet->detach();
  state.chat.disconnect(client);
  state.debug.log("{\"event\":\"ws-close\",\"client\":" + std::to_string(client) + "}");
}

}  // namespace kx::server

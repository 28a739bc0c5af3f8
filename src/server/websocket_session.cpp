// The WebSocket branch of a connection: handshake, then the frame loop feeding
// whole messages to the chat hub. Sends from other threads (chat deliveries) and
// from this one (pongs, close) share one lock so that frames never interleave.
#include <memory>
#include <mutex>

#include "server/http_request.hpp"
#include "server/server_state.hpp"
#include "server/sha1.hpp"
#include "server/websocket_frame.hpp"

namespace kx::server {
namespace {

struct Outlet {
  std::mutex lock;
  const platform::Socket* socket = nullptr;  // null once the connection has ended

  bool send(int opcode, std::string_view payload) {
    std::lock_guard guard(lock);
    if (socket == nullptr) return false;
    if (platform::send_all(*socket, encode_frame(opcode, payload))) return true;
    // A peer that stopped reading (send time-out) or vanished is cut off at once,
    // which also ends its frame loop, instead of stalling every later delivery.
    platform::shutdown_both(*socket);
    socket = nullptr;
    return false;
  }
  void detach() {
    std::lock_guard guard(lock);
    socket = nullptr;
  }
};

enum class LoopEnd { kPeerClosed, kGone };

LoopEnd frame_loop(ServerState& state, const platform::Socket& socket, Outlet& outlet, int client,
                   std::string buffer) {
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
        state.chat.handle(client, action.data);
        break;
      case FrameAction::kNone:
        break;
    }
  }
}

}  // namespace

void serve_websocket(ServerState& state, platform::Socket& socket, const Request& request) {
  const std::string& key = request.header("sec-websocket-key");
  if (key.empty()) return;
  std::string answer =
      "HTTP/1.1 101 Switching Protocols\r\nUpgrade: websocket\r\nConnection: Upgrade\r\n"
      "Sec-WebSocket-Accept: " +
      websocket_accept_key(key) + "\r\n\r\n";
  if (!platform::send_all(socket, answer)) return;
  platform::set_no_delay(socket);

  auto outlet = std::make_shared<Outlet>();
  outlet->socket = &socket;
  int client = state.chat.connect(
      [outlet](const std::string& message) { outlet->send(kTextFrame, message); });
  state.debug.log("{\"event\":\"ws-open\",\"client\":" + std::to_string(client) + "}");

  LoopEnd end = frame_loop(state, socket, *outlet, client, request.body);
  if (end == LoopEnd::kPeerClosed) outlet->send(kClose, std::string("\x03\xE8", 2));
  outlet->detach();
  state.chat.disconnect(client);
  state.debug.log("{\"event\":\"ws-close\",\"client\":" + std::to_string(client) + "}");
}

}  // namespace kx::server

// The WebSocket branch of a connection: admission, the endpoint chosen by path,
// handshake, then the frame loop feeding whole messages to the endpoint. Sends
// from other threads (chat deliveries) and from this one (pongs, close) share one
// lock so that frames never interleave.
#include <memory>
#include <mutex>

#include "server/http_request.hpp"
#include "server/router.hpp"
#include "server/server_state.hpp"
#include "server/sha1.hpp"
#include "server/websocket_endpoint.hpp"
#include "server/websocket_frame.hpp"

namespace kx::server {
namespace {

class SocketOutlet final : public WebSocketOutlet {
 public:
  explicit SocketOutlet(const platform::Socket& socket) : socket_(&socket) {}

  bool send_text(std::string_view message) override { return send(kTextFrame, message); }
  bool send_binary(std::string_view message) override { return send(kBinaryFrame, message); }
  void close(std::uint16_t code) override {
    std::string payload{static_cast<char>(code >> 8), static_cast<char>(code & 0xff)};
    std::lock_guard guard(lock_);
    if (socket_ == nullptr) return;
    platform::send_all(*socket_, encode_frame(kClose, payload));
    platform::shutdown_both(*socket_);  // ends the frame loop
    socket_ = nullptr;
  }

  bool send(int opcode, std::string_view payload) {
    std::lock_guard guard(lock_);
    if (socket_ == nullptr) return false;
    if (platform::send_all(*socket_, encode_frame(opcode, payload))) return true;
    // A peer that stopped reading (send time-out) or vanished is cut off at once,
    // which also ends its frame loop, instead of stalling every later delivery.
    platform::shutdown_both(*socket_);
    socket_ = nullptr;
    return false;
  }
  void detach() {
    std::lock_guard guard(lock_);
    socket_ = nullptr;
  }

 private:
  std::mutex lock_;
  const platform::Socket* socket_;  // null once the connection has ended
};

enum class LoopEnd { kPeerClosed, kGone };

LoopEnd frame_loop(const platform::Socket& socket, SocketOutlet& outlet,
                   const WebSocketSession& session, std::string buffer) {
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
        if (session.on_message) session.on_message(std::move(action.data), action.binary);
        break;
      case FrameAction::kNone:
        break;
    }
  }
}

}  // namespace

std::optional<Response> websocket_refusal(const ServerState& state, const Request& request) {
  if (!admits_websocket(state, request))
    return json_response(
        "403 Forbidden",
        R"({"ok":false,"error":"a WebSocket needs this resident's token and its own origin: open the UI with `kx gui`"})");
  if (find_websocket_endpoint(request.path) == nullptr)
    return json_response("404 Not Found", R"({"ok":false,"error":"no such WebSocket endpoint"})");
  return std::nullopt;
}

void serve_websocket(ServerState& state, platform::Socket& socket, const Request& request) {
  WebSocketOpen open = find_websocket_endpoint(request.path);
  if (open == nullptr) return;
  const std::string& key = request.header("sec-websocket-key");
  if (key.empty()) return;
  std::string answer =
      "HTTP/1.1 101 Switching Protocols\r\nUpgrade: websocket\r\nConnection: Upgrade\r\n"
      "Sec-WebSocket-Accept: " +
      websocket_accept_key(key) + "\r\n\r\n";
  if (!platform::send_all(socket, answer)) return;
  platform::set_no_delay(socket);

  auto outlet = std::make_shared<SocketOutlet>(socket);
  WebSocketSession session = open(state, request, outlet);
  LoopEnd end = frame_loop(socket, *outlet, session, request.body);
  if (end == LoopEnd::kPeerClosed) outlet->send(kClose, std::string("\x03\xE8", 2));
  outlet->detach();
  if (session.on_close) session.on_close();
}

}  // namespace kx::server

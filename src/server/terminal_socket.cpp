// "/term/ws?id=<id>&from=<offset>": one terminal session over WebSocket.
//
// Server to client:
//   text   {"type":"attached","id":"t1","offset":N,"alive":true}  first; N is the
//          offset, counted from the session's start, of the next output byte
//   binary output bytes, in order and without gaps from N on
//   text   {"type":"ended","exit":C}  after the end line; a close frame follows
// Client to server:
//   text   bytes to type, unchanged
//   binary a control message: {"type":"resize","cols":C,"rows":R}
// A client that reconnects with from=<the offset it has reached> misses nothing
// still buffered; from=0 (the default) replays everything the buffer holds.
#include <nlohmann/json.hpp>

#include "server/json_escape.hpp"
#include "server/router.hpp"
#include "server/server_state.hpp"
#include "server/websocket_frame.hpp"
#include "server/websocket_session.hpp"

namespace kx::server {
namespace {

void control(term::SessionTable& terminals, const std::string& id, const std::string& message) {
  auto json = nlohmann::json::parse(message, nullptr, false);
  if (!json.is_object() || json.value("type", "") != "resize") return;
  auto cols = json.find("cols");
  auto rows = json.find("rows");
  if (cols == json.end() || rows == json.end() || !cols->is_number_integer() ||
      !rows->is_number_integer())
    return;
  if (!terminals.resize(id, cols->get<int>(), rows->get<int>())) return;
}

std::uint64_t offset_param(std::string_view query) {
  std::uint64_t value = 0;
  for (char c : form_param(query, "from")) {
    if (c < '0' || c > '9' || value > (UINT64_MAX - 9) / 10) break;
    value = value * 10 + static_cast<std::uint64_t>(c - '0');
  }
  return value;
}

}  // namespace

void serve_terminal_socket(ServerState& state, platform::Socket& socket, const Request& request) {
  std::uint16_t port = state.bound_port ? state.bound_port.load() : state.options.port;
  if (!passes_loopback_rule(request, port)) {
    send_response(socket,
                  json_response("403 Forbidden", R"({"ok":false,"error":"loopback only"})"));
    return;
  }
  if (request.path != "/term/ws") {
    send_response(socket, text_response("404 Not Found", "not found"));
    return;
  }
  const std::string id = form_param(request.query, "id");
  if (!state.terminals.exists(id)) {
    send_response(socket,
                  json_response("404 Not Found", R"({"ok":false,"error":"no such session"})"));
    return;
  }
  if (!accept_upgrade(socket, request)) return;

  auto outlet = std::make_shared<Outlet>();
  outlet->socket = &socket;
  term::Watcher watcher;
  watcher.attached = [outlet, id](std::uint64_t offset, bool alive) {
    outlet->send(kTextFrame, R"({"type":"attached","id":)" + json_string(id) +
                                 ",\"offset\":" + std::to_string(offset) +
                                 ",\"alive\":" + (alive ? "true" : "false") + "}");
  };
  watcher.output = [outlet](std::string_view bytes) { outlet->send(kBinaryFrame, bytes); };
  watcher.ended = [outlet](int code) {
    outlet->send(kTextFrame, R"({"type":"ended","exit":)" + std::to_string(code) + "}");
    outlet->send(kClose, std::string("\x03\xE8", 2));
  };
  auto handle = state.terminals.attach(id, offset_param(request.query), std::move(watcher));
  if (!handle) {
    outlet->send(kClose, std::string("\x03\xE8", 2));
    outlet->detach();
    return;
  }
  LoopEnd end = frame_loop(socket, *outlet, request.body, [&](std::string& message, bool binary) {
    if (binary)
      control(state.terminals, id, message);
    else
      state.terminals.send(id, message);
  });
  state.terminals.detach(id, *handle);
  if (end == LoopEnd::kPeerClosed) outlet->send(kClose, std::string("\x03\xE8", 2));
  outlet->detach();
}

}  // namespace kx::server

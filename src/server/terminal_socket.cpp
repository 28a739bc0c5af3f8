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
#include "server/websocket_endpoint.hpp"

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

constexpr std::uint16_t kNormalClosure = 1000;

}  // namespace

std::optional<Response> refuse_terminal(ServerState& state, const Request& request) {
  // A shell is never served to another machine, token or not.
  std::uint16_t port = state.bound_port ? state.bound_port.load() : state.options.port;
  if (!passes_loopback_rule(request, port))
    return json_response("403 Forbidden", R"({"ok":false,"error":"loopback only"})");
  if (!state.terminals.exists(form_param(request.query, "id")))
    return json_response("404 Not Found", R"({"ok":false,"error":"no such session"})");
  return std::nullopt;
}

WebSocketSession open_terminal(ServerState& state, const Request& request,
                               const WebSocketOutletPtr& outlet) {
  const std::string id = form_param(request.query, "id");
  term::Watcher watcher;
  watcher.attached = [outlet, id](std::uint64_t offset, bool alive) {
    outlet->send_text(R"({"type":"attached","id":)" + json_string(id) + ",\"offset\":" +
                      std::to_string(offset) + ",\"alive\":" + (alive ? "true" : "false") + "}");
  };
  watcher.output = [outlet](std::string_view bytes) { outlet->send_binary(bytes); };
  watcher.ended = [outlet](int code) {
    outlet->send_text(R"({"type":"ended","exit":)" + std::to_string(code) + "}");
    outlet->close(kNormalClosure);
  };
  WebSocketSession session;
  auto handle = state.terminals.attach(id, offset_param(request.query), std::move(watcher));
  if (!handle) {  // ended and removed between the refusal check and here
    outlet->close(kNormalClosure);
    return session;
  }
  term::SessionTable* terminals = &state.terminals;
  session.on_message = [terminals, id](std::string message, bool binary) {
    if (binary)
      control(*terminals, id, message);
    else
      terminals->send(id, message);
  };
  session.on_close = [terminals, id, handle = *handle] { terminals->detach(id, handle); };
  return session;
}

}  // namespace kx::server

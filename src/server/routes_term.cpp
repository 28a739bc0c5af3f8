// The "/term/*" routes: terminal sessions over plain HTTP, and sharing one with a
// bot through the chat hub. Parameters come from the query string and, for a
// POST, from a form body; "/term/send" also takes its bytes as a raw body.
#include "server/json_escape.hpp"
#include "server/routes.hpp"
#include "server/server_state.hpp"

namespace kx::server {
namespace {

// The decimal prefix of a parameter; 0 when there is none.
std::uint64_t decimal_param(const Request& request, std::string_view name) {
  std::uint64_t value = 0;
  for (char c : param(request, name)) {
    if (c < '0' || c > '9' || value > (UINT64_MAX - 9) / 10) break;
    value = value * 10 + static_cast<std::uint64_t>(c - '0');
  }
  return value;
}

int size_param(const Request& request, std::string_view name) {
  return static_cast<int>(std::min<std::uint64_t>(decimal_param(request, name), 10000));
}

Response ok() {
  return ok_json(R"({"ok":true})");
}

Response no_session_or_ended() {
  return json_response("404 Not Found", R"({"ok":false,"error":"no such session or ended"})");
}

std::string bot_record(const std::string& bot, const std::string& id, const std::string& text) {
  auto millis = std::chrono::duration_cast<std::chrono::milliseconds>(
                    std::chrono::system_clock::now().time_since_epoch())
                    .count();
  return R"({"type":"msg","msg":{"ts":)" + std::to_string(millis) +
         R"(,"kind":"dm","from":"terminal","to":)" + json_string(bot) +
         ",\"terminal\":" + json_string(id) + ",\"text\":" + json_string(text) + "}}";
}

}  // namespace

Response handle_term_open(ServerState& state, const Request& request, RouteEffects&) {
  auto id = state.terminals.open(param(request, "cmd"), size_param(request, "cols"),
                                 size_param(request, "rows"));
  if (!id)
    return json_response("500 Internal Server Error", R"({"ok":false,"error":"spawn failed"})");
  return ok_json(R"({"ok":true,"id":)" + json_string(*id) + "}");
}

Response handle_term_send(ServerState& state, const Request& request, RouteEffects&) {
  std::string data;
  if (has_form_param(request.query, "data") || has_form_param(request.body, "data"))
    data = param(request, "data");
  else
    data = request.body;
  if (!state.terminals.send(param(request, "id"), data)) return no_session_or_ended();
  return ok();
}

Response handle_term_resize(ServerState& state, const Request& request, RouteEffects&) {
  if (!state.terminals.resize(param(request, "id"), size_param(request, "cols"),
                              size_param(request, "rows")))
    return no_session_or_ended();
  return ok();
}

Response handle_term_read(ServerState& state, const Request& request, RouteEffects&) {
  std::uint64_t since = decimal_param(request, "since");
  auto read = state.terminals.read(
      param(request, "id"), static_cast<std::size_t>(std::min<std::uint64_t>(since, SIZE_MAX)));
  if (!read.found)
    return json_response("404 Not Found", R"({"ok":false,"error":"no such session"})");
  return {"200 OK", kJsonUtf8,
          R"({"ok":true,"len":)" + std::to_string(read.len) + ",\"alive\":" +
              (read.alive ? "true" : "false") + ",\"data\":" + json_string(read.data) + "}"};
}

Response handle_term_close(ServerState& state, const Request& request, RouteEffects&) {
  state.terminals.close(param(request, "id"));
  return ok();
}

Response handle_term_list(ServerState& state, const Request&, RouteEffects&) {
  std::string body = R"({"ok":true,"sessions":[)";
  bool first = true;
  for (const auto& session : state.terminals.list()) {
    if (!first) body += ',';
    first = false;
    body += R"({"id":)" + json_string(session.id) + R"(,"cmd":)" + json_string(session.cmd) +
            ",\"alive\":" + (session.alive ? "true" : "false") + "}";
  }
  return ok_json(body + "]}");
}

Response handle_term_share(ServerState& state, const Request& request, RouteEffects&) {
  std::string id = param(request, "id");
  std::string bot = param(request, "bot");
  auto refuse = [](const std::string& reason) {
    return json_response("400 Bad Request", R"({"ok":false,"error":)" + json_string(reason) + "}");
  };
  if (id.empty() || bot.empty()) return refuse("terminal id and bot required");
  if (!state.terminals.exists(id)) return refuse("no such terminal");
  const std::string intro =
      "TERMINAL ATTACHED. You may read this terminal's private output and drive it.\n"
      "To send one line without publishing it to chat, reply exactly:\n::term.send " +
      id + "\n<command>\n\nCurrent screen:\n";
  ChatHub& chat = state.chat;
  switch (chat.reach(bot)) {
    case ChatHub::Reach::kNotConnected:
      return refuse("selected bot is not connected");
    case ChatHub::Reach::kNoTransport:
      return refuse("selected bot has no delivery transport");
    case ChatHub::Reach::kDelivered:
      break;
  }
  bool shared = state.terminals.share(
      id, bot,
      [&chat, bot, id](const std::string& chunk) { chat.send_to(bot, bot_record(bot, id, chunk)); },
      [&](const std::string& screen) { chat.send_to(bot, bot_record(bot, id, intro + screen)); });
  if (!shared) return refuse("no such terminal");
  return ok_json(R"({"ok":true,"id":)" + json_string(id) + R"(,"bot":)" + json_string(bot) + "}");
}

}  // namespace kx::server

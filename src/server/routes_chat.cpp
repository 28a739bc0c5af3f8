// Reading the chat logs (format in chat_log.hpp) and the live roster.
#include <nlohmann/json.hpp>

#include "server/chat_log.hpp"
#include "server/json_escape.hpp"
#include "server/routes.hpp"
#include "server/server_state.hpp"

namespace kx::server {
namespace {

constexpr std::size_t kDefaultTail = 100;
constexpr std::size_t kMaxTail = 10000;

std::size_t number_param(const Request& request, const char* name, std::size_t fallback,
                         std::size_t cap) {
  std::string text = form_param(request.query, name);
  if (text.empty() || text[0] < '0' || text[0] > '9') return fallback;
  std::size_t value = 0;
  for (char c : text) {
    if (c < '0' || c > '9') break;
    value = value * 10 + static_cast<std::size_t>(c - '0');
    if (value > cap) return cap;
  }
  return value;
}

std::string channel_param(const Request& request) {
  std::string channel = form_param(request.query, "channel");
  return channel.empty() ? "general" : channel;
}

Response bad_channel() {
  return json_response("400 Bad Request", R"({"ok":false,"error":"bad channel name"})");
}

}  // namespace

Response handle_chatlog(ServerState& state, const Request& request, RouteEffects&) {
  std::string channel = channel_param(request);
  if (!valid_channel_name(channel)) return bad_channel();
  std::size_t tail = number_param(request, "tail", kDefaultTail, kMaxTail);
  auto records = read_chat_tail(state.chat.paths().chatlogs / (channel + ".log"), tail);
  std::string body = "{\"ok\":true,\"channel\":" + json_string(channel) + ",\"records\":[";
  for (std::size_t i = 0; i < records.size(); ++i) {
    if (i) body += ',';
    body += records[i];
  }
  return ok_json(body + "]}");
}

Response handle_channels(ServerState& state, const Request&, RouteEffects&) {
  std::vector<std::string> names;
  std::error_code ec;
  for (std::filesystem::directory_iterator it(state.chat.paths().chatlogs, ec), end;
       !ec && it != end; it.increment(ec)) {
    const auto& path = it->path();
    if (path.extension() != ".log") continue;
    std::string name = path.stem().string();
    if (valid_channel_name(name)) names.push_back(name);
  }
  std::sort(names.begin(), names.end());
  std::string body = "{\"ok\":true,\"channels\":[";
  for (std::size_t i = 0; i < names.size(); ++i) {
    if (i) body += ',';
    body += json_string(names[i]);
  }
  return ok_json(body + "]}");
}

// The messages between "a" and "b" (either direction) with seq above "since".
Response handle_dm_thread(ServerState& state, const Request& request, RouteEffects&) {
  std::string a = form_param(request.query, "a");
  std::string b = form_param(request.query, "b");
  if (a.empty() || b.empty())
    return json_response("400 Bad Request", R"({"ok":false,"error":"a and b required"})");
  std::size_t since = number_param(request, "since", 0, SIZE_MAX / 16);
  auto records = read_chat_tail(state.chat.paths().chatlogs / "_dm.log", kMaxTail);
  std::string body = "{\"ok\":true,\"msgs\":[";
  bool first = true;
  for (const auto& line : records) {
    auto rec = nlohmann::json::parse(line, nullptr, false);
    if (!rec.is_object()) continue;
    auto text_of = [&](const char* key) {
      auto it = rec.find(key);
      return it != rec.end() && it->is_string() ? it->get<std::string>() : std::string();
    };
    std::string from = text_of("from");
    std::string to = text_of("to");
    std::uint64_t seq = record_seq(line);
    bool pair = (from == a && to == b) || (from == b && to == a);
    if (!pair || seq <= since) continue;
    if (!first) body += ',';
    first = false;
    body += line;
  }
  return ok_json(body + "]}");
}

Response handle_roster(ServerState& state, const Request& request, RouteEffects&) {
  std::string channel = channel_param(request);
  if (!valid_channel_name(channel)) return bad_channel();
  return ok_json(state.chat.roster_json(channel));
}

}  // namespace kx::server

namespace kx::server {
namespace {

std::string from_param(const Request& request, const char* fallback) {
  std::string from = param(request, "from");
  if (from.empty()) from = param(request, "bot");
  return from.empty() ? fallback : from;
}

}  // namespace

// The first record of the channel after "since" that the bot did not write itself;
// "msg" is null when there is none yet (the caller polls again with the same since).
Response handle_chat_next(ServerState& state, const Request& request, RouteEffects&) {
  std::string bot = param(request, "bot");
  if (bot.empty()) return json_response("400 Bad Request", R"({"error":"bot required"})");
  std::string channel = param(request, "channel");
  if (channel.empty()) channel = "orchestration";
  if (!valid_channel_name(channel)) return bad_channel();
  std::size_t since = number_param(request, "since", 0, SIZE_MAX / 16);
  for (const auto& line :
       read_chat_tail(state.chat.paths().chatlogs / (channel + ".log"), kMaxTail)) {
    if (record_seq(line) <= since) continue;
    auto rec = nlohmann::json::parse(line, nullptr, false);
    if (rec.is_object() && rec.value("from", std::string()) == bot) continue;
    return ok_json("{\"ok\":true,\"channel\":" + json_string(channel) + ",\"msg\":" + line + "}");
  }
  return ok_json("{\"ok\":true,\"channel\":" + json_string(channel) + ",\"msg\":null}");
}

// "text" to "channel" (default general), or to one user with "to".
Response handle_chat_say(ServerState& state, const Request& request, RouteEffects&) {
  std::string text = param(request, "text");
  if (text.empty())
    return json_response("400 Bad Request", R"({"ok":false,"error":"text required"})");
  std::string from = from_param(request, "panel");
  std::string to = param(request, "to");
  if (!to.empty()) {
    if (!state.chat.direct_as(from, to, text))
      return text_response("404 Not Found", "no such user: " + to);
    return ok_json(R"({"ok":true})");
  }
  std::string channel = param(request, "channel");
  if (channel.empty()) channel = "general";
  if (!valid_channel_name(channel)) return bad_channel();
  return ok_json("{\"ok\":true,\"msg\":" + state.chat.post_as(from, channel, "chat", text) + "}");
}

// A message a bot proposes; it shows in the channel marked as a draft for a person
// to take up or ignore.
Response handle_chat_draft(ServerState& state, const Request& request, RouteEffects&) {
  std::string bot = param(request, "bot");
  std::string text = param(request, "text");
  if (bot.empty() || text.empty())
    return json_response("400 Bad Request", R"({"ok":false,"error":"bot and text required"})");
  std::string channel = param(request, "channel");
  if (channel.empty()) channel = "general";
  if (!valid_channel_name(channel)) return bad_channel();
  return ok_json("{\"ok\":true,\"msg\":" + state.chat.post_as(bot, channel, "draft", text) + "}");
}

}  // namespace kx::server

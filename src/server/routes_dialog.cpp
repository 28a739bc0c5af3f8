// Chat channels bound to a memory context and topic, kept in
// "<user data>/config/dialog_bindings.tsv": one "channel<TAB>ctx<TAB>topic" per line.
#include <filesystem>
#include <fstream>
#include <map>
#include <mutex>

#include "platform/durable_file.hpp"
#include "server/chat_log.hpp"
#include "server/json_escape.hpp"
#include "server/routes.hpp"
#include "server/server_state.hpp"

namespace kx::server {
namespace {

namespace fs = std::filesystem;

struct Binding {
  std::string ctx;
  std::string topic;
};

// Binds are read-modify-write of one small file.
std::mutex bindings_lock;

fs::path bindings_file(const ServerState& state) {
  return user_data(state) / "config" / "dialog_bindings.tsv";
}

std::map<std::string, Binding> read_bindings(const fs::path& file) {
  std::map<std::string, Binding> out;
  std::ifstream in(file, std::ios::binary);
  std::string line;
  while (std::getline(in, line)) {
    std::size_t a = line.find('\t');
    std::size_t b = a == std::string::npos ? a : line.find('\t', a + 1);
    if (b == std::string::npos) continue;
    out[line.substr(0, a)] = {line.substr(a + 1, b - a - 1), line.substr(b + 1)};
  }
  return out;
}

// Written whole under a temporary name and renamed over, so a crash leaves the old
// or the new list, never half of one.
bool write_bindings(const fs::path& file, const std::map<std::string, Binding>& bindings,
                    std::string& reason) {
  std::string text;
  for (const auto& [channel, b] : bindings) text += channel + '\t' + b.ctx + '\t' + b.topic + '\n';
  std::error_code ec;
  fs::create_directories(file.parent_path(), ec);
  return platform::replace_file_durable(file, text, reason);
}

bool plain_field(const std::string& value) {
  return !value.empty() && value.find_first_of("\t\r\n") == std::string::npos;
}

}  // namespace

// POST channel, ctx, topic: binds (or rebinds) the channel; an empty ctx unbinds it.
Response handle_dialog_bind(ServerState& state, const Request& request, RouteEffects&) {
  std::string channel = param(request, "channel");
  std::string ctx = param(request, "ctx");
  std::string topic = param(request, "topic");
  if (!valid_channel_name(channel))
    return json_response("400 Bad Request", R"({"ok":false,"error":"bad channel name"})");
  if (!ctx.empty() && (!plain_field(ctx) || !plain_field(topic)))
    return json_response("400 Bad Request",
                         R"x({"ok":false,"error":"ctx and topic required (one line each)"})x");
  std::lock_guard guard(bindings_lock);
  fs::path file = bindings_file(state);
  auto bindings = read_bindings(file);
  if (ctx.empty())
    bindings.erase(channel);
  else
    bindings[channel] = {ctx, topic};
  std::string reason;
  if (!write_bindings(file, bindings, reason))
    return json_response("500 Internal Server Error",
                         "{\"ok\":false,\"error\":" + json_string("not saved: " + reason) + "}");
  return ok_json("{\"ok\":true,\"channel\":" + json_string(channel) +
                 ",\"ctx\":" + json_string(ctx) + ",\"topic\":" + json_string(topic) + "}");
}

Response handle_dialog_bindings(ServerState& state, const Request&, RouteEffects&) {
  std::map<std::string, Binding> bindings;
  {
    std::lock_guard guard(bindings_lock);
    bindings = read_bindings(bindings_file(state));
  }
  std::string body = "{\"ok\":true,\"bindings\":[";
  bool first = true;
  for (const auto& [channel, b] : bindings) {
    if (!first) body += ',';
    first = false;
    body += "{\"channel\":" + json_string(channel) + ",\"ctx\":" + json_string(b.ctx) +
            ",\"topic\":" + json_string(b.topic) + "}";
  }
  return ok_json(body + "]}");
}

}  // namespace kx::server

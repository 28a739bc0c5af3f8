// A bot's memory (through the memory verbs, as a person would type them), its
// files and inbox, and the bots the console can address.
#include <algorithm>
#include <filesystem>
#include <fstream>

#include "server/chat_log.hpp"
#include "server/json_escape.hpp"
#include "server/routes.hpp"
#include "server/server_state.hpp"

namespace kx::server {
namespace {

namespace fs = std::filesystem;

constexpr std::size_t kDefaultTail = 100;
constexpr std::size_t kSearchTexts = 20;  // hits whose memo text is fetched

Response bad(const std::string& error) {
  return json_response("400 Bad Request", "{\"ok\":false,\"error\":" + json_string(error) + "}");
}

// Memory verbs separate their fields with commas, one command per line.
bool fits_field(const std::string& value) {
  return value.find(',') == std::string::npos && value.find('\n') == std::string::npos &&
         value.find('\r') == std::string::npos;
}

// The names a memory listing shows, one per indented line before its details
// ("  notes  2 topic(s), ..." or "  build  (3 memo(s))").
std::string listed_names(const std::string& out) {
  std::string names;
  std::size_t at = out.find('\n');
  while (at != std::string::npos && at < out.size()) {
    std::size_t end = out.find('\n', at + 1);
    std::string line =
        out.substr(at + 1, end == std::string::npos ? std::string::npos : end - at - 1);
    at = end;
    if (!line.starts_with("  ") || line.starts_with("  ...")) continue;
    std::size_t cut = line.rfind("  ");
    if (cut <= 2) continue;
    if (!names.empty()) names += ',';
    names += json_string(line.substr(2, cut - 2));
  }
  return "[" + names + "]";
}

Response memory_answer(const std::string& bot, const std::optional<std::string>& out,
                       bool with_names) {
  if (!out || out->starts_with("ERROR")) return command_answer(out);
  std::string body = "{\"ok\":true,\"bot\":" + json_string(bot) + ",\"out\":" + json_string(*out);
  if (with_names) body += ",\"names\":" + listed_names(*out);
  return ok_json(body + "}");
}

// A bot's folder; empty when the name could climb out of the bots folder.
fs::path bot_dir(const ServerState& state, const std::string& bot) {
  if (!valid_channel_name(bot)) return {};
  return user_data(state) / "bots" / bot;
}

std::string bot_param(const Request& request) {
  std::string bot = param(request, "bot");
  return bot.empty() ? param(request, "name") : bot;
}

}  // namespace

Response handle_bots_contexts(ServerState& state, const Request& request, RouteEffects&) {
  std::string bot = bot_param(request);
  if (bot.empty()) bot = "cli";
  if (!fits_field(bot)) return bad("bad bot name");
  return memory_answer(bot, run_command(state, "panel", "memory.contexts " + bot, "/bots/contexts"),
                       true);
}

// The topics of one context, most recently used first.
Response handle_bots_memories(ServerState& state, const Request& request, RouteEffects&) {
  std::string bot = bot_param(request);
  std::string ctx = param(request, "ctx");
  if (bot.empty()) bot = "cli";
  if (ctx.empty()) return bad("ctx required");
  if (!fits_field(bot) || !fits_field(ctx)) return bad("bad bot or ctx");
  return memory_answer(
      bot, run_command(state, "panel", "memory.contexts " + bot + ", " + ctx, "/bots/memories"),
      true);
}

// GET: the memos of a topic. POST with "text": adds a memo to it.
Response handle_bots_memory(ServerState& state, const Request& request, RouteEffects&) {
  std::string bot = bot_param(request);
  std::string ctx = param(request, "ctx");
  std::string topic = param(request, "topic");
  if (bot.empty()) bot = "cli";
  if (ctx.empty() || topic.empty()) return bad("ctx and topic required");
  if (!fits_field(bot) || !fits_field(ctx) || !fits_field(topic))
    return bad("bad bot, ctx or topic");
  if (request.method != "POST")
    return memory_answer(
        bot,
        run_command(state, "panel", "memory.memos " + bot + ", " + ctx + ", " + topic,
                    "/bots/memory"),
        false);
  std::string text = param(request, "text");
  std::string keywords = param(request, "keywords");
  if (text.empty()) return bad("text required");
  if (!fits_field(keywords) || text.find('\n') != std::string::npos)
    return bad("keywords without commas, and the memo on one line");
  return memory_answer(
      bot,
      run_command(state, "panel",
                  "memory.add " + bot + ", " + ctx + ", " + topic + ", " + keywords + ", " + text,
                  "/bots/memory"),
      false);
}

Response handle_bots_search(ServerState& state, const Request& request, RouteEffects&) {
  std::string bot = bot_param(request);
  std::string ctx = param(request, "ctx");
  std::string q = param(request, "q");
  if (bot.empty()) bot = "cli";
  if (ctx.empty() || q.empty()) return bad("ctx and q required");
  if (!fits_field(bot) || !fits_field(ctx) || !fits_field(q)) return bad("bad bot, ctx or q");
  auto out =
      run_command(state, "panel", "memory.keywords " + bot + ", " + ctx + ", " + q, "/bots/search");
  if (!out || out->starts_with("ERROR")) return command_answer(out);
  // Each hit line names "<topic> #<n>"; the memo's own text is what a searcher wants.
  std::string hits;
  std::size_t shown = 0;
  for (std::size_t at = out->find("\n  "); at != std::string::npos && shown < kSearchTexts;
       at = out->find("\n  ", at + 1)) {
    std::size_t end = out->find('\n', at + 1);
    std::string line = out->substr(at + 3, end == std::string::npos ? end : end - at - 3);
    std::size_t hash = line.rfind(" #");
    if (hash == std::string::npos || line.starts_with("...")) continue;
    std::string topic = line.substr(0, hash);
    std::string n = line.substr(hash + 2, line.find(' ', hash + 2) - hash - 2);
    if (n.empty() || n.find_first_not_of("0123456789") != std::string::npos) continue;
    auto memo =
        run_command(state, "panel", "memory.getmemo " + bot + ", " + ctx + ", " + topic + ", " + n,
                    "/bots/search");
    if (!memo || !memo->starts_with("OK")) continue;
    std::size_t body = memo->find('\n');
    if (!hits.empty()) hits += ',';
    hits += "{\"topic\":" + json_string(topic) + ",\"n\":" + n +
            ",\"text\":" + json_string(body == std::string::npos ? "" : memo->substr(body + 1)) +
            "}";
    ++shown;
  }
  return ok_json("{\"ok\":true,\"bot\":" + json_string(bot) + ",\"out\":" + json_string(*out) +
                 ",\"hits\":[" + hits + "]}");
}

Response handle_bots_files(ServerState& state, const Request& request, RouteEffects&) {
  std::string bot = bot_param(request);
  if (bot.empty()) return bad("bot required");
  fs::path dir = bot_dir(state, bot);
  if (dir.empty()) return bad("bad bot name");
  std::vector<std::string> names;
  std::error_code ec;
  for (fs::recursive_directory_iterator it(dir, ec), end; !ec && it != end; it.increment(ec))
    if (it->is_regular_file(ec))
      names.push_back(fs::relative(it->path(), dir, ec).generic_string());
  std::sort(names.begin(), names.end());
  std::string body = "{\"ok\":true,\"bot\":" + json_string(bot) + ",\"files\":[";
  for (std::size_t i = 0; i < names.size(); ++i) body += (i ? "," : "") + json_string(names[i]);
  return ok_json(body + "]}");
}

// The last lines of a bot's inbox.
Response handle_console_tail(ServerState& state, const Request& request, RouteEffects&) {
  std::string bot = bot_param(request);
  if (bot.empty())
    return json_response("400 Bad Request", R"({"ok":false,"error":"bot required"})");
  fs::path dir = bot_dir(state, bot);
  if (dir.empty()) return bad("bad bot name");
  std::size_t tail = kDefaultTail;
  if (std::string n = param(request, "tail");
      !n.empty() && n.size() < 6 && n.find_first_not_of("0123456789") == std::string::npos)
    tail = std::stoul(n);
  std::vector<std::string> lines;
  {
    std::ifstream in(dir / "inbox.log", std::ios::binary);
    std::string line;
    while (std::getline(in, line)) {
      if (!line.empty() && line.back() == '\r') line.pop_back();
      lines.push_back(std::move(line));
      if (lines.size() > tail) lines.erase(lines.begin());
    }
  }
  std::string body = "{\"ok\":true,\"bot\":" + json_string(bot) + ",\"lines\":[";
  for (std::size_t i = 0; i < lines.size(); ++i) body += (i ? "," : "") + json_string(lines[i]);
  return ok_json(body + "]}");
}

Response handle_console_bots(ServerState& state, const Request&, RouteEffects&) {
  std::vector<std::string> names;
  std::error_code ec;
  for (fs::directory_iterator it(user_data(state) / "bots", ec), end; !ec && it != end;
       it.increment(ec)) {
    std::string name = it->path().filename().string();
    if (it->is_directory(ec) && valid_channel_name(name)) names.push_back(name);
  }
  std::sort(names.begin(), names.end());
  std::string body = "{\"ok\":true,\"bots\":[";
  for (std::size_t i = 0; i < names.size(); ++i) body += (i ? "," : "") + json_string(names[i]);
  return ok_json(body + "]}");
}

}  // namespace kx::server

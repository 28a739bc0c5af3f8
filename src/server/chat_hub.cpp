#include "server/chat_hub.hpp"

#include <chrono>
#include <fstream>
#include <utility>

#include "lang/text.hpp"
#include "server/chat_log.hpp"
#include "server/json_escape.hpp"

namespace kx::server {
namespace {

constexpr std::size_t kHistoryReplay = 50;
const std::string kDmChannel = "_dm";

std::vector<std::string> split_lines(const std::string& message) {
  std::vector<std::string> lines;
  std::size_t start = 0;
  for (;;) {
    std::size_t end = message.find('\n', start);
    std::string line = message.substr(start, end == std::string::npos ? end : end - start);
    if (!line.empty() && line.back() == '\r') line.pop_back();
    lines.push_back(std::move(line));
    if (end == std::string::npos) break;
    start = end + 1;
  }
  return lines;
}

// Lines from `from` on, joined again: multi-line chat text survives.
std::string rest_of(const std::vector<std::string>& lines, std::size_t from) {
  std::string text;
  for (std::size_t i = from; i < lines.size(); ++i) {
    if (i > from) text += '\n';
    text += lines[i];
  }
  return text;
}

std::string line_at(const std::vector<std::string>& lines, std::size_t i) {
  return i < lines.size() ? lines[i] : std::string();
}

std::string trimmed(std::string text) {
  while (!text.empty() &&
         (text.back() == ' ' || text.back() == '\t' || text.back() == '\r' || text.back() == '\n'))
    text.pop_back();
  std::size_t start = text.find_first_not_of(" \t");
  return start == std::string::npos ? std::string() : text.substr(start);
}

std::string error_json(const std::string& message) {
  return "{\"type\":\"error\",\"error\":" + json_string(message) + "}";
}

std::int64_t now_millis() {
  return std::chrono::duration_cast<std::chrono::milliseconds>(
             std::chrono::system_clock::now().time_since_epoch())
      .count();
}

}  // namespace

ChatHub::ChatHub(ChatPaths paths) : paths_(std::move(paths)) {}

int ChatHub::connect(ChatSend send) {
  std::lock_guard guard(lock_);
  int id = next_id_++;
  clients_[id].send = std::move(send);
  return id;
}

int ChatHub::client_count() {
  std::lock_guard guard(lock_);
  return static_cast<int>(clients_.size());
}

void ChatHub::handle(int id, const std::string& raw) {
  // Chat is text whatever the frame type: broken UTF-8 becomes U+FFFD before the
  // message is stored, relayed or typed anywhere.
  const std::string message = lang::valid_utf8(raw);
  std::vector<std::string> lines = split_lines(message);
  const std::string verb = trimmed(line_at(lines, 0));
  Outbox out;
  if (verb == "msg" || verb == "dm") {
    std::size_t first = verb == "msg" ? 1 : 2;
    const std::string head = line_at(lines, first);
    constexpr std::string_view kTermSend = "::term.send ";
    if (head.starts_with(kTermSend)) {
      type_into_terminal(id, trimmed(head.substr(kTermSend.size())), rest_of(lines, first + 1));
      return;
    }
  }
  {
    std::lock_guard guard(lock_);
    auto it = clients_.find(id);
    if (it == clients_.end()) return;
    if (verb == "join") {
      join(id, trimmed(line_at(lines, 1)), trimmed(line_at(lines, 2)), line_at(lines, 3), false,
           out);
    } else if (verb == "register-bot") {
      join(id, "general", trimmed(line_at(lines, 1)), line_at(lines, 2), true, out);
    } else if (verb == "leave") {
      leave(id, out);
    } else if (verb == "msg") {
      say(id, rest_of(lines, 1), out);
    } else if (verb == "dm") {
      direct(id, trimmed(line_at(lines, 1)), rest_of(lines, 2), out);
    } else {
      out.emplace_back(it->second.send, error_json("unknown verb: " + verb));
    }
  }
  deliver(out);
}

void ChatHub::type_into_terminal(int id, const std::string& terminal, const std::string& line) {
  std::string name;
  TerminalInput hook;
  {
    std::lock_guard guard(lock_);
    auto it = clients_.find(id);
    if (it == clients_.end()) return;
    name = it->second.name;
    hook = terminal_input_;
  }
  // Outside the lock: typing into a terminal may wait for it.
  std::optional<std::string> error =
      hook ? hook(name, terminal, line) : std::optional<std::string>("no such terminal");
  if (!error) return;
  Outbox out;
  {
    std::lock_guard guard(lock_);
    if (clients_.count(id)) notice_to(id, "ERROR: " + *error, out);
  }
  deliver(out);
}

ChatHub::Reach ChatHub::send_to(const std::string& name, const std::string& message) {
  Outbox out;
  bool named = false;
  {
    std::lock_guard guard(lock_);
    for (auto& [id, client] : clients_) {
      if (client.name != name) continue;
      named = true;
      if (client.send) out.emplace_back(client.send, message);
    }
  }
  if (!named) return Reach::kNotConnected;
  if (out.empty()) return Reach::kNoTransport;
  deliver(out);
  return Reach::kDelivered;
}

ChatHub::Reach ChatHub::reach(const std::string& name) {
  std::lock_guard guard(lock_);
  Reach reach = Reach::kNotConnected;
  for (auto& [id, client] : clients_) {
    if (client.name != name) continue;
    if (client.send) return Reach::kDelivered;
    reach = Reach::kNoTransport;
  }
  return reach;
}

void ChatHub::set_terminal_input(TerminalInput hook) {
  std::lock_guard guard(lock_);
  terminal_input_ = std::move(hook);
}

std::string ChatHub::post_as(const std::string& from, const std::string& channel,
                             const std::string& kind, const std::string& text) {
  Outbox out;
  std::string rec;
  {
    std::lock_guard guard(lock_);
    rec = record(channel, kind, from, nullptr, text);
    post(channel, rec, out);
  }
  deliver(out);
  return rec;
}

bool ChatHub::direct_as(const std::string& from, const std::string& to, const std::string& text) {
  Outbox out;
  {
    std::lock_guard guard(lock_);
    std::vector<ChatSend> targets;
    for (auto& [id, client] : clients_)
      if (!to.empty() && client.name == to) targets.push_back(client.send);
    if (targets.empty()) return false;
    std::string rec = record(kDmChannel, "dm", from, &to, text);
    append_chat_record(paths_.chatlogs / "_dm.log", rec);
    std::string wrapped = "{\"type\":\"msg\",\"msg\":" + rec + "}";
    for (auto& send : targets) out.emplace_back(send, wrapped);
  }
  deliver(out);
  return true;
}

void ChatHub::disconnect(int id) {
  Outbox out;
  {
    std::lock_guard guard(lock_);
    if (!clients_.count(id)) return;
    leave(id, out);
    clients_.erase(id);
  }
  deliver(out);
}

std::string ChatHub::roster_json(const std::string& channel) {
  std::lock_guard guard(lock_);
  return roster_locked(channel);
}

void ChatHub::join(int id, const std::string& channel_in, std::string name,
                   const std::string& given_password, bool bot, Outbox& out) {
  Client& client = clients_[id];
  std::string required = password();
  if (!required.empty() && trimmed(given_password) != required) {
    out.emplace_back(client.send,
                     error_json(bot ? "password required to register on this chat server"
                                    : "password required to join this chat server"));
    return;
  }
  std::string channel = channel_in.empty() ? "general" : channel_in;
  if (!valid_channel_name(channel)) {
    out.emplace_back(client.send, error_json("bad channel name: " + channel));
    return;
  }
  bool given_callsign = false;
  if (name.empty()) name = client.name;
  if (name.empty()) {
    name = free_callsign();
    if (name.empty()) {
      out.emplace_back(client.send,
                       error_json(bot ? "no free callsign for a nameless bot — bot.cfg "
                                        "missing/empty/exhausted"
                                      : "no free callsign for a nameless client — bot.cfg "
                                        "missing/empty/exhausted"));
      return;
    }
    given_callsign = true;
  }
  if (name.size() > 64 || name.find_first_of(" \t\"\\") != std::string::npos) {
    out.emplace_back(client.send, error_json("bad name: " + name));
    return;
  }
  if (!client.channel.empty()) leave(id, out);
  client.name = name;
  client.channel = channel;
  client.bot = client.bot || bot;
  if (client.bot) known_bots_.insert(name);

  Channel& state = channel_state(channel);
  std::string joined = "{\"type\":\"joined\",\"channel\":" + json_string(channel) +
                       ",\"name\":" + json_string(name) + ",\"history\":[";
  for (std::size_t i = 0; i < state.history.size(); ++i) {
    if (i) joined += ',';
    joined += state.history[i];
  }
  joined += "]}";
  out.emplace_back(client.send, std::move(joined));
  if (given_callsign) notice_to(id, "your callsign is now " + name, out);
  notice(channel, bot ? "remote botnode '" + name + "' registered" : name + " joined " + channel,
         out);
  std::string roster = roster_locked(channel);
  for (auto& [other_id, other] : clients_)
    if (other.channel == channel) out.emplace_back(other.send, roster);
}

void ChatHub::leave(int id, Outbox& out) {
  Client& client = clients_[id];
  if (client.channel.empty()) return;
  std::string channel = std::exchange(client.channel, std::string());
  notice(channel, client.name + " left " + channel, out);
  std::string roster = roster_locked(channel);
  for (auto& [other_id, other] : clients_)
    if (other.channel == channel) out.emplace_back(other.send, roster);
}

void ChatHub::say(int id, const std::string& text, Outbox& out) {
  Client& client = clients_[id];
  if (client.channel.empty()) {
    out.emplace_back(client.send, error_json("join a channel first"));
    return;
  }
  post(client.channel, record(client.channel, "chat", client.name, nullptr, text), out);
}

void ChatHub::direct(int id, const std::string& to, const std::string& text, Outbox& out) {
  Client& client = clients_[id];
  if (client.name.empty()) {
    out.emplace_back(client.send, error_json("join a channel first"));
    return;
  }
  std::vector<ChatSend> targets;
  for (auto& [other_id, other] : clients_)
    if (other_id != id && !to.empty() && other.name == to) targets.push_back(other.send);
  if (targets.empty()) {
    notice_to(id, "no such user: " + to, out);
    return;
  }
  std::string rec = record(kDmChannel, "dm", client.name, &to, text);
  append_chat_record(paths_.chatlogs / "_dm.log", rec);
  std::string wrapped = "{\"type\":\"msg\",\"msg\":" + rec + "}";
  for (auto& send : targets) out.emplace_back(send, wrapped);
  out.emplace_back(client.send, wrapped);
}

ChatHub::Channel& ChatHub::channel_state(const std::string& name) {
  Channel& state = channels_[name];
  if (!state.loaded) {
    state.loaded = true;
    // Sequence numbers go on where the log left off, so "since" stays meaningful
    // across restarts.
    auto tail = read_chat_tail(log_file(name), kHistoryReplay);
    for (auto& line : tail) state.last_seq = std::max(state.last_seq, record_seq(line));
    if (name != kDmChannel) state.history.assign(tail.begin(), tail.end());
  }
  return state;
}

std::string ChatHub::record(const std::string& channel, const std::string& kind,
                            const std::string& from, const std::string* to,
                            const std::string& text) {
  Channel& state = channel_state(channel);
  std::string rec = "{\"seq\":" + std::to_string(++state.last_seq) +
                    ",\"ts\":" + std::to_string(now_millis()) + ",\"kind\":" + json_string(kind) +
                    ",\"from\":" + json_string(from);
  if (to) rec += ",\"to\":" + json_string(*to);
  rec += ",\"text\":" + json_string(text) + "}";
  return rec;
}

void ChatHub::post(const std::string& channel, const std::string& rec, Outbox& out) {
  Channel& state = channel_state(channel);
  state.history.push_back(rec);
  if (state.history.size() > kHistoryReplay) state.history.pop_front();
  append_chat_record(log_file(channel), rec);
  std::string wrapped = "{\"type\":\"msg\",\"msg\":" + rec + "}";
  for (auto& [id, client] : clients_)
    if (client.channel == channel) out.emplace_back(client.send, wrapped);
}

void ChatHub::notice(const std::string& channel, const std::string& text, Outbox& out) {
  post(channel, record(channel, "sys", "server", nullptr, text), out);
}

void ChatHub::notice_to(int id, const std::string& text, Outbox& out) {
  // A private notice is not part of any channel's history: seq 0.
  std::string rec = "{\"seq\":0,\"ts\":" + std::to_string(now_millis()) +
                    ",\"kind\":\"sys\",\"from\":\"server\",\"text\":" + json_string(text) + "}";
  out.emplace_back(clients_[id].send, "{\"type\":\"msg\",\"msg\":" + rec + "}");
}

std::string ChatHub::roster_locked(const std::string& channel) {
  std::string users;
  std::string detail;
  std::set<std::string> live;
  for (auto& [id, client] : clients_) {
    if (client.name.empty()) continue;
    live.insert(client.name);
    if (client.channel == channel) {
      if (!users.empty()) users += ',';
      users += json_string(client.name);
    }
    if (!detail.empty()) detail += ',';
    detail += "{\"name\":" + json_string(client.name) +
              ",\"live\":true,\"channel\":" + json_string(client.channel) + "}";
  }
  for (const std::string& bot : known_bots_) {
    if (live.count(bot)) continue;
    if (!detail.empty()) detail += ',';
    detail += "{\"name\":" + json_string(bot) + ",\"live\":false,\"channel\":\"\"}";
  }
  return "{\"type\":\"roster\",\"channel\":" + json_string(channel) + ",\"users\":[" + users +
         "],\"detail\":[" + detail + "]}";
}

std::string ChatHub::password() const {
  for (const auto& file : paths_.password_files) {
    std::ifstream in(file, std::ios::binary);
    if (!in) continue;
    std::string line;
    std::getline(in, line);
    return trimmed(line);
  }
  return {};
}

// bot.cfg: one callsign per line; "[section]" lines, blank lines and "#" comments
// are skipped; "name=..." entries count by their name.
std::string ChatHub::free_callsign() {
  std::ifstream in(paths_.callsigns, std::ios::binary);
  std::string line;
  while (std::getline(in, line)) {
    std::string name = trimmed(line.substr(0, line.find('=')));
    if (name.empty() || name.front() == '[' || name.front() == '#' || name.front() == ';') continue;
    bool taken = false;
    for (auto& [id, client] : clients_) taken = taken || client.name == name;
    if (!taken) return name;
  }
  return {};
}

std::string ChatHub::log_file(const std::string& channel) const {
  return (paths_.chatlogs / (channel + ".log")).string();
}

void deliver(std::vector<std::pair<ChatSend, std::string>>& outbox) {
  for (auto& [send, message] : outbox)
    if (send) send(message);
}

}  // namespace kx::server

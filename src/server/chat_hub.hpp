#pragma once
// Chat channels carried over WebSocket: who is connected, on which channel, under
// which name, and the records they exchange.
//
// A client message is line-oriented: the first line is the verb, the following
// lines its values.
//   join\n<channel>\n<name>\n<password>     channel default "general"; no name: a callsign
//   leave\n<channel>                        leave the current channel
//   register-bot\n<name>\n<password>        a remote bot joins "general" under its name
//   msg\n<text...>                          to the client's channel (the rest is the text)
//   dm\n<who>\n<text...>                    direct message to every client named <who>
// A msg or dm text of the form "::term.send <id>\n<line>" types the line into a
// terminal shared with the sender instead (only an error is answered).
// Anything else is answered with an error object.
#include <cstdint>
#include <deque>
#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <vector>

namespace kx::server {

struct ChatPaths {
  std::filesystem::path chatlogs;                     // <user data>/chatlogs
  std::vector<std::filesystem::path> password_files;  // first existing one holds the password
  std::filesystem::path callsigns;                    // <user data>/config/bot.cfg
};

// Sends one text message to a client; must be safe to call from any thread.
using ChatSend = std::function<void(const std::string&)>;

class ChatHub {
 public:
  explicit ChatHub(ChatPaths paths);

  // A new WebSocket client; returns its id (1, 2, 3, ... for the process).
  int connect(ChatSend send);
  // One whole message from the client, text or binary; broken UTF-8 in it becomes
  // U+FFFD.
  void handle(int client, const std::string& message);
  // The client's connection ended: it leaves its channel (announced).
  void disconnect(int client);

  // How far a message sent by name got.
  enum class Reach { kDelivered, kNotConnected, kNoTransport };
  // Whether a client of that name is connected and can be sent to.
  Reach reach(const std::string& name);
  // Sends `message` as it is to every client named `name`.
  Reach send_to(const std::string& name, const std::string& message);

  // A chat text "::term.send <id>\n<line>" from a client is terminal input, not
  // chat: it goes to this hook, which gives an error reason or nothing.
  using TerminalInput = std::function<std::optional<std::string>(
      const std::string& bot, const std::string& id, const std::string& line)>;
  void set_terminal_input(TerminalInput hook);
  // A message posted over HTTP by `from`, who need not be connected: recorded and
  // delivered like a client's. Returns the record.
  std::string post_as(const std::string& from, const std::string& channel, const std::string& kind,
                      const std::string& text);
  // A direct message over HTTP; false (nothing recorded) when no client has that name.
  bool direct_as(const std::string& from, const std::string& to, const std::string& text);

  // {"type":"roster",...} for a channel.
  std::string roster_json(const std::string& channel);
  int client_count();

  const ChatPaths& paths() const { return paths_; }

 private:
  struct Client {
    ChatSend send;
    std::string name;
    std::string channel;
    bool bot = false;
  };
  struct Channel {
    bool loaded = false;
    std::uint64_t last_seq = 0;
    std::deque<std::string> history;
  };
  using Outbox = std::vector<std::pair<ChatSend, std::string>>;

  void join(int id, const std::string& channel, std::string name, const std::string& password,
            bool bot, Outbox& out);
  void leave(int id, Outbox& out);
  void say(int id, const std::string& text, Outbox& out);
  void direct(int id, const std::string& to, const std::string& text, Outbox& out);
  void type_into_terminal(int id, const std::string& terminal, const std::string& line);

  Channel& channel_state(const std::string& name);
  std::string record(const std::string& channel, const std::string& kind, const std::string& from,
                     const std::string* to, const std::string& text);
  void post(const std::string& channel, const std::string& record, Outbox& out);
  void notice(const std::string& channel, const std::string& text, Outbox& out);
  void notice_to(int id, const std::string& text, Outbox& out);
  std::string roster_locked(const std::string& channel);
  std::string password() const;
  std::string free_callsign();
  std::string log_file(const std::string& channel) const;

  ChatPaths paths_;
  std::mutex lock_;
  int next_id_ = 1;
  std::map<int, Client> clients_;
  std::map<std::string, Channel> channels_;
  std::set<std::string> known_bots_;
  TerminalInput terminal_input_;
};

// Sends each queued message outside the hub's lock, so a slow peer never stalls it.
void deliver(std::vector<std::pair<ChatSend, std::string>>& outbox);

}  // namespace kx::server

#pragma once
// Terminal sessions owned by the resident: each runs one command on a
// pseudo-terminal, keeps what it printed, and lives until its program ends (then
// it stays readable) or a client closes it. Clients come and go; any number may
// watch one session at once, and one bot may share it.
//
// Ids are "t1", "t2", ... from a process-wide counter, never reused; the table is
// ordered by the bytes of the id ("t10" before "t2").
#include <atomic>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

namespace kx::term {

inline constexpr int kDefaultCols = 120;
inline constexpr int kDefaultRows = 30;
// A program that ends this soon after its start never becomes a session: a
// mistyped command is reported at once.
inline constexpr int kSpawnGraceMillis = 220;

struct Session;

struct ReadResult {
  bool found = false;
  std::string data;
  std::size_t len = 0;
  bool alive = false;
};

struct SessionInfo {
  std::string id;
  std::string cmd;
  bool alive = false;
};

// One client streaming a session. `attached` and the backlog arrive before any
// live output; every call for one watcher comes from one thread at a time.
struct Watcher {
  std::function<void(std::uint64_t offset, bool alive)> attached;  // where the stream starts
  std::function<void(std::string_view bytes)> output;
  std::function<void(int exit_code)> ended;  // after the end line
};

// Takes one output chunk to the bot a session is shared with.
using BotDelivery = std::function<void(const std::string& chunk)>;

class SessionTable {
 public:
  SessionTable() = default;
  ~SessionTable();  // ends every session's program
  SessionTable(const SessionTable&) = delete;
  SessionTable& operator=(const SessionTable&) = delete;

  // Starts `cmd` (empty: the platform's default shell); 0 for cols or rows gives
  // the default. The new id, or nothing when the start failed.
  std::optional<std::string> open(const std::string& cmd, int cols, int rows);
  // Types `bytes` unchanged. False for an unknown or ended session.
  bool send(const std::string& id, std::string_view bytes);
  bool resize(const std::string& id, int cols, int rows);
  ReadResult read(const std::string& id, std::size_t since);
  // Removes the session and ends its whole process tree; unknown ids are ignored.
  void close(const std::string& id);
  std::vector<SessionInfo> list();
  bool exists(const std::string& id);

  // Streams from the absolute offset `from` (counted from the session's start).
  // Returns a handle for detach(), or nothing for an unknown id. An ended session
  // gets its backlog and `ended` at once and is not watched.
  std::optional<int> attach(const std::string& id, std::uint64_t from, Watcher watcher);
  void detach(const std::string& id, int handle);

  // Shares the session with `bot`: `greet` gets the screen so far, then each later
  // chunk goes to `delivery`, in that order. False for an unknown id.
  bool share(const std::string& id, const std::string& bot, BotDelivery delivery,
             const std::function<void(const std::string& screen)>& greet);
  // A line typed by a bot (a carriage return is added). An error reason, or
  // nothing on success.
  std::optional<std::string> bot_send(const std::string& id, const std::string& bot,
                                      const std::string& line);

 private:
  std::shared_ptr<Session> find(const std::string& id);

  std::mutex lock_;
  std::map<std::string, std::shared_ptr<Session>> sessions_;
  std::atomic<std::uint64_t> counter_{0};
};

}  // namespace kx::term

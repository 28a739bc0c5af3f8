#include "term/sessions.hpp"

#include <thread>

#include "platform/pseudo_terminal.hpp"
#include "term/output_buffer.hpp"

namespace kx::term {

// Shared by the table, the reader thread and any request using it; freed when the
// last holder lets go (which also releases the terminal).
struct Session {
  std::string id;
  std::string cmd;
  std::unique_ptr<platform::PseudoTerminal> terminal;
  std::atomic<bool> alive{true};

  std::mutex lock;  // guards everything below
  OutputBuffer output;
  int exit_code = 0;
  std::string shared_bot;
  BotDelivery delivery;
  std::map<int, std::shared_ptr<Watcher>> watchers;
  int next_watcher = 1;
};

namespace {

constexpr std::size_t kReadChunk = 65536;

std::vector<std::shared_ptr<Watcher>> watchers_of(const Session& session) {
  std::vector<std::shared_ptr<Watcher>> list;
  list.reserve(session.watchers.size());
  for (const auto& [handle, watcher] : session.watchers) list.push_back(watcher);
  return list;
}

// Runs for the life of the session's output: appends each chunk, passes it to the
// watchers and the shared bot, and writes the end line once the output ends.
void pump_output(std::shared_ptr<Session> session) {
  std::vector<char> chunk(kReadChunk);
  for (;;) {
    long n = session->terminal->read(chunk.data(), chunk.size());
    if (n <= 0) break;
    std::string_view bytes(chunk.data(), static_cast<std::size_t>(n));
    std::vector<std::shared_ptr<Watcher>> watchers;
    BotDelivery delivery;
    {
      std::lock_guard guard(session->lock);
      session->output.append(bytes);
      watchers = watchers_of(*session);
      delivery = session->delivery;
    }
    // Outside the lock: a slow client must not stall readers of the buffer.
    for (const auto& watcher : watchers) watcher->output(bytes);
    if (delivery) delivery(std::string(bytes));
  }
  int code = session->terminal->exit_code();
  std::string end_line = "\n[session ended, exit " + std::to_string(code) + "]\n";
  std::vector<std::shared_ptr<Watcher>> watchers;
  {
    std::lock_guard guard(session->lock);
    session->alive = false;
    session->exit_code = code;
    session->output.append(end_line);
    watchers = watchers_of(*session);
    session->watchers.clear();
  }
  for (const auto& watcher : watchers) {
    watcher->output(end_line);
    watcher->ended(code);
  }
}

}  // namespace

SessionTable::~SessionTable() {
  std::lock_guard guard(lock_);
  for (auto& [id, session] : sessions_) {
    std::lock_guard session_guard(session->lock);
    session->delivery = nullptr;
    session->terminal->terminate();
  }
}

std::optional<std::string> SessionTable::open(const std::string& cmd, int cols, int rows) {
  if (cols <= 0) cols = kDefaultCols;
  if (rows <= 0) rows = kDefaultRows;
  auto terminal = platform::start_pseudo_terminal(cmd, cols, rows);
  if (!terminal) return std::nullopt;
  if (terminal->ended_within(kSpawnGraceMillis)) return std::nullopt;

  auto session = std::make_shared<Session>();
  session->id = "t" + std::to_string(++counter_);
  session->cmd = cmd.empty() ? platform::default_terminal_command() : cmd;
  session->terminal = std::move(terminal);
  {
    std::lock_guard guard(lock_);
    sessions_[session->id] = session;
  }
  std::thread(pump_output, session).detach();
  return session->id;
}

std::shared_ptr<Session> SessionTable::find(const std::string& id) {
  std::lock_guard guard(lock_);
  auto it = sessions_.find(id);
  return it == sessions_.end() ? nullptr : it->second;
}

bool SessionTable::exists(const std::string& id) {
  return find(id) != nullptr;
}

bool SessionTable::send(const std::string& id, std::string_view bytes) {
  auto session = find(id);
  if (!session || !session->alive) return false;
  return session->terminal->write(bytes);
}

bool SessionTable::resize(const std::string& id, int cols, int rows) {
  auto session = find(id);
  if (!session || !session->alive || cols <= 0 || rows <= 0) return false;
  return session->terminal->resize(cols, rows);
}

ReadResult SessionTable::read(const std::string& id, std::size_t since) {
  ReadResult result;
  auto session = find(id);
  if (!session) return result;
  std::lock_guard guard(session->lock);
  result.found = true;
  result.len = session->output.size();
  result.data = std::string(session->output.since(since));
  result.alive = session->alive;
  return result;
}

void SessionTable::close(const std::string& id) {
  std::shared_ptr<Session> session;
  {
    std::lock_guard guard(lock_);
    auto it = sessions_.find(id);
    if (it == sessions_.end()) return;
    session = std::move(it->second);
    sessions_.erase(it);
  }
  std::lock_guard guard(session->lock);
  session->terminal->terminate();
}

std::vector<SessionInfo> SessionTable::list() {
  std::vector<std::shared_ptr<Session>> sessions;
  {
    std::lock_guard guard(lock_);
    for (const auto& [id, session] : sessions_) sessions.push_back(session);
  }
  std::vector<SessionInfo> infos;
  for (const auto& session : sessions) infos.push_back({session->id, session->cmd, session->alive});
  return infos;
}

std::optional<int> SessionTable::attach(const std::string& id, std::uint64_t from,
                                        Watcher watcher) {
  auto session = find(id);
  if (!session) return std::nullopt;
  std::lock_guard guard(session->lock);
  // Under the session's lock no chunk can be appended, so the backlog and the
  // live output that follows meet without a gap or an overlap.
  std::string_view backlog = session->output.from_absolute(from);
  bool alive = session->alive;
  watcher.attached(from, alive);
  if (!backlog.empty()) watcher.output(backlog);
  if (!alive) {
    watcher.ended(session->exit_code);
    return 0;
  }
  int handle = session->next_watcher++;
  session->watchers[handle] = std::make_shared<Watcher>(std::move(watcher));
  return handle;
}

void SessionTable::detach(const std::string& id, int handle) {
  auto session = find(id);
  if (!session) return;
  std::lock_guard guard(session->lock);
  session->watchers.erase(handle);
}

bool SessionTable::share(const std::string& id, const std::string& bot, BotDelivery delivery,
                         const std::function<void(const std::string& screen)>& greet) {
  auto session = find(id);
  if (!session) return false;
  std::lock_guard guard(session->lock);
  session->shared_bot = bot;
  session->delivery = std::move(delivery);
  greet(std::string(session->output.since(0)));
  return true;
}

std::optional<std::string> SessionTable::bot_send(const std::string& id, const std::string& bot,
                                                  const std::string& line) {
  auto session = find(id);
  if (!session) return "no such terminal";
  {
    std::lock_guard guard(session->lock);
    if (session->shared_bot.empty() || session->shared_bot != bot)
      return "terminal is not shared with this bot";
  }
  if (line.empty()) return "empty terminal input";
  if (!session->alive || !session->terminal->write(line + "\r")) return "terminal session ended";
  return std::nullopt;
}

}  // namespace kx::term

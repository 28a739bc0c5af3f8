#pragma once
// The interpreter session: the state that the commands of one process share.
// The resident keeps one session for all callers; the bot id changes per request.
#include <atomic>
#include <cstddef>
#include <deque>
#include <filesystem>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "lang/registers.hpp"
#include "lang/turn_ring.hpp"

namespace kx::lang {

class Registry;

struct HistoryEntry {
  std::string line;
  std::string result;
};

// The session's one lock: recursive, and it knows how many times its holder has
// taken it, so a command can let it go whole for a long computation and take it back.
class SessionLock {
 public:
  void lock();
  bool try_lock();
  void unlock();
  // How many times the calling thread holds the lock (0: not at all).
  int depth_here() const;

 private:
  std::recursive_mutex mutex_;
  std::atomic<std::thread::id> owner_{};
  int depth_ = 0;  // written by the holder only
};

struct Session {
  explicit Session(const Registry& registry);

  const Registry& registry;
  std::string bot_id = "cli";

  // Working directory of the session's commands and child processes.
  std::filesystem::path cwd;
  std::optional<std::filesystem::path> previous_dir;
  std::vector<std::filesystem::path> dir_stack;  // pushd / popd

  // A person, not a script or an agent, gave the command under way: kx on a
  // terminal, or the UI in the owner's browser. Only a person approves an emit.
  bool person_present = false;

  bool guided = false;
  unsigned raw_depth = 0;  // raw pass-through depth, shown in the prompt
  int nesting_depth = 0;   // structured commands under way on this session

  // Lines under way through run_line, and script runs and actions under way: a
  // line is a turn only when it starts with all three at zero.
  int line_depth = 0;
  int script_depth = 0;
  int action_depth = 0;
  static constexpr int kMaxActionDepth = 8;

  // The recent top-level command lines and their results. Only consoles (a kx
  // process, its seat in the resident, the REPL) make turns: a caller that keeps no
  // console, such as an MCP tool call or one of the resident's own pages, would
  // only fill the ring, and then the user's store with turn logs, with lines
  // nobody typed there.
  TurnRing turns;
  bool records_turns = true;

  // $[] registers: what the last publishing command (grep -p) left for later lines.
  RegisterSet registers;

  // Serialises every command of the session; commands that run commands re-enter it.
  SessionLock lock;

  // Set while a caller's own state (its console seat) stands in for the session's:
  // called once to put the caller's state away and once to bring it back, around a
  // computation that runs outside the lock (run_outside_lock).
  std::function<void()> swap_caller_state;

  // Run before each caller's line (not the lines a line runs): picks up what other
  // processes changed that this one keeps in memory.
  std::function<void()> before_line;
  bool parked = false;  // a command is computing outside the lock

  // The most recent structured commands and their results, oldest first.
  std::deque<HistoryEntry> history;
  static constexpr std::size_t kHistoryLimit = 256;
};

// Runs `work`, which must touch no session state, with the session's lock let go so
// that other callers' commands run meanwhile; the lock is taken back before it
// returns. Only the top command of a caller's line lets go, and one at a time: inside
// a script or an action, or while another command is outside, `work` runs under the
// lock as before.
void run_outside_lock(Session& session, const std::function<void()>& work);

}  // namespace kx::lang

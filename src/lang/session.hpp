#pragma once
// The interpreter session: the state that the commands of one process share.
// The resident keeps one session for all callers; the bot id changes per request.
#include <cstddef>
#include <deque>
#include <filesystem>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "lang/registers.hpp"
#include "lang/turn_ring.hpp"

namespace kx::lang {

class Registry;

struct HistoryEntry {
  std::string line;
  std::string result;
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
  std::recursive_mutex lock;

  // The most recent structured commands and their results, oldest first.
  std::deque<HistoryEntry> history;
  static constexpr std::size_t kHistoryLimit = 256;
};

}  // namespace kx::lang

// "fslock:" — status, toggle and transfer of the per-file locks that seats hold.
#include <exception>

#include "lang/session.hpp"
#include "lang/text.hpp"
#include "vfs/args.hpp"
#include "vfs/history_state.hpp"

namespace kx::vfs {
namespace {

// The arguments and the file they name; `answer` is set when there is none.
struct LockRequest {
  kst::Args args;
  Target target;
  std::string answer;
};

LockRequest lock_request(HistoryState& state, std::string_view text, std::string_view usage) {
  LockRequest r;
  std::string error;
  auto parsed = kst::parse_args(text, error);
  if (!parsed) {
    r.answer = "ERROR: " + error;
    return r;
  }
  r.args = std::move(*parsed);
  auto path = r.args.get("path", 0);
  if (!path || path->empty()) {
    r.answer = "ERROR: usage  " + std::string(usage);
    return r;
  }
  r.target = find_target(*state.stores, *path);
  if (!r.target.error.empty()) {
    r.answer = r.target.error;
  } else if (!r.target.found) {
    r.answer = "ERROR: no such node: " + *path;
  } else if (!r.target.is_file) {
    r.answer = "ERROR: not a file: " + r.target.path + " (locks are per file)";
  }
  return r;
}

using Action = std::string (*)(HistoryState&, lang::Session&, LockRequest&);

lang::Verb verb(std::shared_ptr<HistoryState> state, std::string name,
                std::vector<std::string> aliases, std::string summary, std::string usage,
                std::string example, std::string next_tip, Action action) {
  lang::Verb v;
  v.name = std::move(name);
  v.aliases = std::move(aliases);
  v.summary = std::move(summary);
  v.usage = usage;
  v.example = std::move(example);
  v.section = "Concurrency";
  v.next_tip = std::move(next_tip);
  v.run = [state, usage, action](lang::Session& session, std::string_view text) -> std::string {
    try {
      // Resolving a path reads the store's index, which the watcher may be changing.
      std::unique_lock<std::recursive_mutex> guard;
      if (kst::Store* active = state->stores->active()) guard = std::unique_lock(active->mutex());
      LockRequest r = lock_request(*state, text, usage);
      if (!r.answer.empty()) return lang::printable_lines(r.answer);
      return lang::printable_lines(action(*state, session, r));
    } catch (const std::exception& e) {
      return std::string("ERROR: ") + e.what();
    }
  };
  return v;
}

std::string status(HistoryState& state, lang::Session&, LockRequest& r) {
  return state.locks.status(*r.target.store, r.target.path);
}

std::string toggle(HistoryState& state, lang::Session& session, LockRequest& r) {
  return state.locks.toggle(*r.target.store, r.target.path, session.bot_id);
}

std::string unlock(HistoryState& state, lang::Session& session, LockRequest& r) {
  return state.locks.unlock(*r.target.store, r.target.path, session.bot_id);
}

std::string transfer(HistoryState& state, lang::Session& session, LockRequest& r) {
  // The seat is the element <to> or <seat>, else the word after the path.
  auto to = r.args.element("to");
  if (!to) to = r.args.element("seat");
  if (!to) to = r.args.get("", r.args.element("path") ? 0 : 1);
  if (!to || to->empty()) return "ERROR: usage  fslock:transfer <path> <toSeat>";
  return state.locks.transfer(*r.target.store, r.target.path, session.bot_id, *to);
}

}  // namespace

lang::Family make_lock_family(std::shared_ptr<HistoryState> state) {
  lang::Family family;
  family.name = "fslock";
  family.separator = ':';
  family.title = "Locks";
  family.unknown_verb = [](std::string_view verb) {
    return "ERROR: unknown fslock op '" + std::string(verb) + "' (status|toggle|unlock|transfer)";
  };
  family.verbs = {
      verb(state, "status", {"state", "check", "who"},
           "who holds the lock on a file, how many seats wait, whether it needs a merge",
           "fslock:status <path>", "fslock:status src/main.cpp",
           "fslock:toggle <path> to take the lock", status),
      verb(state, "toggle", {"lock"}, "lock a file for your seat, or release your lock",
           "fslock:toggle <path>", "fslock:toggle src/main.cpp",
           "fslock:status <path> to see the state", toggle),
      verb(state, "unlock", {"release"},
           "release your lock on a file (a file nobody holds stays unlocked)",
           "fslock:unlock <path>", "fslock:unlock src/main.cpp",
           "fslock:status <path> to see the state", unlock),
      verb(state, "transfer", {}, "hand the lock you hold on a file to another seat",
           "fslock:transfer <path> <toSeat>", "fslock:transfer src/main.cpp reviewer", "",
           transfer),
  };
  return family;
}

}  // namespace kx::vfs

// "fslock:" — status, toggle and transfer of the per-file locks that seats hold.
#include "lang/session.hpp"
#include "vfs/args.hpp"
#include "vfs/history_state.hpp"

namespace kx::vfs {
namespace {

// Parses the arguments and resolves the path to a file; on failure `out` holds the
// answer.
bool lock_target(HistoryState& state, std::string_view text, std::string_view usage, Target& target,
                 kst::Args& args, std::string& out) {
  std::string error;
  auto parsed = kst::parse_args(text, error);
  if (!parsed) {
    out = "ERROR: " + error;
    return false;
  }
  args = std::move(*parsed);
  auto path = args.get("path", 0);
  if (!path || path->empty()) {
    out = "ERROR: usage  " + std::string(usage);
    return false;
  }
  target = find_target(*state.stores, *path);
  if (!target.error.empty()) {
    out = target.error;
    return false;
  }
  if (!target.found) {
    out = "ERROR: no such node: " + *path;
    return false;
  }
  if (!target.is_file) {
    out = "ERROR: not a file: " + target.path + " (locks are per file)";
    return false;
  }
  return true;
}

}  // namespace

lang::Family make_lock_family(std::shared_ptr<HistoryState> state) {
  lang::Family family;
  family.name = "fslock";
  family.separator = ':';
  family.title = "Locks";
  family.unknown_verb = [](std::string_view verb) {
    return "ERROR: unknown fslock op '" + std::string(verb) + "' (status|toggle|transfer)";
  };

  family.verbs.push_back(
      lang::Verb{"status",
                 {"state", "check", "who"},
                 "who holds the lock on a file, how many seats wait, whether it needs a merge",
                 "fslock:status <path>",
                 "fslock:status src/main.cpp",
                 "Concurrency",
                 "fslock:toggle <path> to take the lock",
                 [state](lang::Session&, std::string_view text) {
                   Target t;
                   kst::Args args;
                   std::string out;
                   if (!lock_target(*state, text, "fslock:status <path>", t, args, out)) return out;
                   return state->locks.status(*t.store, t.path);
                 }});

  family.verbs.push_back(
      lang::Verb{"toggle",
                 {"lock", "unlock"},
                 "lock a file for your seat, or release your lock (lock and unlock both flip it)",
                 "fslock:toggle <path>",
                 "fslock:toggle src/main.cpp",
                 "Concurrency",
                 "fslock:status <path> to see the state",
                 [state](lang::Session& session, std::string_view text) {
                   Target t;
                   kst::Args args;
                   std::string out;
                   if (!lock_target(*state, text, "fslock:toggle <path>", t, args, out)) return out;
                   return state->locks.toggle(*t.store, t.path, session.bot_id);
                 }});

  family.verbs.push_back(
      lang::Verb{"transfer",
                 {},
                 "hand the lock you hold on a file to another seat",
                 "fslock:transfer <path> <toSeat>",
                 "fslock:transfer src/main.cpp reviewer",
                 "Concurrency",
                 "",
                 [state](lang::Session& session, std::string_view text) {
                   Target t;
                   kst::Args args;
                   std::string out;
                   if (!lock_target(*state, text, "fslock:transfer <path> <toSeat>", t, args, out))
                     return out;
                   auto to = args.get("to", 1);
                   if (!to) to = args.element("seat");
                   if (!to || to->empty())
                     return std::string("ERROR: usage  fslock:transfer <path> <toSeat>");
                   return state->locks.transfer(*t.store, t.path, session.bot_id, *to);
                 }});
  return family;
}

}  // namespace kx::vfs

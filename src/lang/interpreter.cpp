#include "lang/interpreter.hpp"

#include <string>

#include "lang/actions.hpp"
#include "lang/result.hpp"
#include "lang/text.hpp"

namespace kx::lang {
namespace {

constexpr const char* kReplayRefusal =
    "ERROR: ?() queries and script statements don't replay here (action bodies / REPL front-end "
    "carry commands only — fs:/fsraw:/fsvctl:/fsmk:/fslock:/fsstat:/fssys: or natural language). "
    "Keep loops and queries in the live turn; put the verbs in the action.";

std::string unknown_namespace(std::string_view ns) {
  return "ERROR: unknown namespace '" + std::string(ns) +
         "' — use Kestrune:<what you want> (or legacy fs/fsraw/fsvctl/fsmk/fslock/fsstat/fssys · "
         "or config/claude/callsigns)";
}

bool is_natural_namespace(std::string_view ns) {
  return ns == "kestrune" || ns == "Kestrune" || ns == "kst" || ns == "nl";
}

std::string run_family_verb(Session& session, const Family& family, std::string_view verb,
                            std::string_view args) {
  if (const Verb* found = find_verb(family, verb)) return found->run(session, args);
  // The bar form "memory.delete|cli|notes|my topic": the fields ride on the verb,
  // and a field may hold spaces, so the rest of the line belongs to them.
  if (std::size_t bar = verb.find('|'); bar != std::string_view::npos) {
    if (const Verb* found = find_verb(family, verb.substr(0, bar))) {
      std::string fields(verb.substr(bar + 1));
      if (!args.empty()) fields += " " + std::string(args);
      return found->run(session, fields);
    }
  }
  if (family.unknown_verb) return family.unknown_verb(verb);
  return "ERROR: unknown " + family.name + " verb '" + std::string(verb) + "'";
}

// "memory", "memory.help" and "memory.<verb>" (and likewise "bots") reach their
// family without a colon.
std::string dispatch_dotted(Session& session, std::string_view family_name, std::string_view head,
                            std::string_view args) {
  const Family* family = session.registry.find_family(family_name);
  if (family == nullptr) return unknown_namespace(family_name);
  std::string_view verb = head.size() > family_name.size() ? head.substr(family_name.size() + 1)
                                                           : std::string_view("help");
  if (verb.empty()) verb = "help";
  return run_family_verb(session, *family, verb, args);
}

void remember(Session& session, std::string_view line, const std::string& result) {
  session.history.push_back({std::string(line), result});
  if (session.history.size() > Session::kHistoryLimit) session.history.pop_front();
}

std::string run_line_inner(Session& session, std::string_view trimmed) {
  std::string_view first = first_word(trimmed);
  if (first.find(':') == std::string_view::npos) return natural(session, trimmed);

  ++session.nesting_depth;
  std::string result;
  try {
    // Only structured commands take register values: a grep pattern may hold "$[".
    result = session.registers.size() == 0 ? dispatch(session, trimmed)
                                           : dispatch(session, session.registers.expand(trimmed));
  } catch (const std::exception& e) {
    result = error_result(std::string("internal failure: ") + e.what());
  }
  remember(session, trimmed, result);
  --session.nesting_depth;
  return result;
}

}  // namespace

std::string run_line(Session& session, std::string_view bot_id, std::string_view line) {
  std::lock_guard lock(session.lock);
  session.bot_id = std::string(bot_id);
  if (session.line_depth == 0 && session.before_line) session.before_line();
  std::string_view trimmed = trim(line);
  // Only a line a caller runs itself is a turn; the lines that actions, scripts
  // and the turn log run are not.
  bool is_turn = session.records_turns && session.line_depth == 0 && session.script_depth == 0 &&
                 session.action_depth == 0;
  std::uint64_t published_before = session.registers.generation();
  std::string result;
  {
    DepthGuard depth(session.line_depth);
    result = run_line_inner(session, trimmed);
  }
  if (is_turn) {
    result = with_tip(session, trimmed, std::move(result));
    record_turn(session, trimmed, result, published_before);
  }
  return result;
}

std::string with_tip(const Session& session, std::string_view command, std::string result) {
  if (!session.guided || is_error(result)) return result;
  std::string_view head = first_word(command);
  std::size_t cut = head.find(':');
  if (cut == std::string_view::npos) cut = head.find('.');  // "memory.add", "fs.cat"
  if (cut == std::string_view::npos) return result;
  const Family* family = session.registry.find_family(head.substr(0, cut));
  const Verb* verb = family ? find_verb(*family, head.substr(cut + 1)) : nullptr;
  if (verb == nullptr || verb->next_tip.empty()) return result;
  return result + "\n  next: " + verb->next_tip;
}

std::string dispatch(Session& session, std::string_view line) {
  line = trim(line);
  if (line.empty()) return "ERROR: empty command";
  auto [head, args] = split_first_word(line);

  std::size_t colon = head.find(':');
  std::string_view ns = head.substr(0, colon);
  std::string_view verb =
      colon == std::string_view::npos ? std::string_view() : head.substr(colon + 1);

  if (colon != std::string_view::npos && is_natural_namespace(ns)) {
    std::string request(verb);
    if (!args.empty()) request += " " + std::string(args);
    return natural(session, request);
  }
  if (head == "memory" || head == "memory.help" || head.starts_with("memory."))
    return dispatch_dotted(session, "memory", head, args);
  if (head == "bots" || head.starts_with("bots."))
    return dispatch_dotted(session, "bots", head, args);
  if (line.starts_with("?(") || line.find("#[") != std::string_view::npos) return kReplayRefusal;
  if (colon == std::string_view::npos)
    return "ERROR: no namespace (expected fs:/fsraw:/fsvctl: — or Kestrune:<what you want>)";
  if (verb.empty()) return "ERROR: no verb after '" + std::string(ns) + ":'";

  const Family* family = session.registry.find_family(ns);
  if (family == nullptr || family->separator != ':') return unknown_namespace(ns);
  return run_family_verb(session, *family, verb, args);
}

std::string run_word_command(Session& session, std::string_view name, std::string_view args) {
  std::lock_guard lock(session.lock);
  const WordCommand* command = session.registry.find_word_command(name);
  if (command == nullptr) return unknown_namespace(name);
  ++session.nesting_depth;
  std::string result = command->run(session, trim(args));
  --session.nesting_depth;
  return result;
}

}  // namespace kx::lang

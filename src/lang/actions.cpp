#include "lang/actions.hpp"

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <functional>
#include <optional>
#include <variant>
#include <vector>

#include "lang/interpreter.hpp"
#include "lang/result.hpp"
#include "lang/text.hpp"
#include "lang/unit_framer.hpp"

namespace kx::lang {
namespace {

constexpr std::string_view kDepthUsage =
    "ERROR: usage  fssys:turndepth <n>   (ring size, e.g. 128)";
constexpr std::string_view kPromoteUsage =
    "ERROR: usage  fssys:promote <name> <seq range>   (range: 5 · 3..7 · 4.. · ..6 · 1,3,5..7 · "
    "-3 = the last three turns)";
constexpr std::string_view kActionRunUsage = "ERROR: usage  fssys:actionrun <name>";
constexpr std::string_view kRebindUsage =
    "ERROR: usage  fssys:actionrun <name> [turn(<seq>).$[<selector>]]   (e.g. "
    "action(build, turn(12).$[0..2]); turn(-1) is the newest turn)";

bool valid_action_name(std::string_view name) {
  if (name.empty()) return false;
  for (char c : name)
    if (!((c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '_' ||
          c == '-'))
      return false;
  return true;
}

std::string action_file(std::string_view name) {
  return "action_" + std::string(name) + ".md";
}

std::string front_matter(std::string_view name, std::string_view type) {
  return "---\nname: " + std::string(name) + "\nmetadata:\n  type: " + std::string(type) +
         "\n---\n";
}

std::string save_command(const std::string& file, std::string_view text) {
  return "fsmk:file " + file + " <content><![CDATA[" + std::string(text) + "]]></content>";
}

// Lines about the ring itself are kept as turns but never promoted: replaying
// them would only list, resize or promote again.
bool is_bookkeeping(std::string_view line) {
  for (std::string_view prefix : {"fssys:", "fssys."}) {
    if (!line.starts_with(prefix)) continue;
    std::string_view verb = first_word(line.substr(prefix.size()));
    return verb == "turns" || verb == "turndepth" || verb == "promote";
  }
  return false;
}

// "cli" -> "cli"; anything outside [A-Za-z0-9_-] becomes "_" so the bot names a file.
std::string file_safe(std::string_view text) {
  std::string out;
  for (char c : text.substr(0, 40))
    out += ((c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '-')
               ? c
               : '_';
  return out.empty() ? "session" : out;
}

// "<bot>-<UTC date and time>-<4 hex>": one session's logs, apart from any other's.
std::string new_log_tag(const Session& session) {
  using namespace std::chrono;
  auto now = system_clock::now();
  auto day = floor<days>(now);
  year_month_day date{day};
  hh_mm_ss time{floor<seconds>(now - day)};
  char stamp[32];
  std::snprintf(stamp, sizeof stamp, "%04d%02u%02u-%02ld%02ld%02ld", static_cast<int>(date.year()),
                static_cast<unsigned>(date.month()), static_cast<unsigned>(date.day()),
                static_cast<long>(time.hours().count()), static_cast<long>(time.minutes().count()),
                static_cast<long>(time.seconds().count()));
  std::size_t mix = std::hash<const void*>{}(&session.turns) ^
                    static_cast<std::size_t>(steady_clock::now().time_since_epoch().count());
  char suffix[8];
  std::snprintf(suffix, sizeof suffix, "%04x", static_cast<unsigned>((mix ^ (mix >> 16)) & 0xffff));
  return file_safe(session.bot_id) + "-" + stamp + "-" + suffix;
}

// Writes the turns that left the ring into the session's turn log files, through
// the versioned store (a "turnlog-" file is saved without a mirror). A turn that
// cannot be written yet stays in `unlogged` and is tried again with the next one.
void write_turn_log(Session& session) {
  TurnRing& ring = session.turns;
  TurnRing::Log& log = ring.log();
  if (log.tag.empty()) log.tag = new_log_tag(session);
  while (!ring.unlogged().empty()) {
    std::uint64_t first =
        (ring.unlogged().front().seq - 1) / TurnRing::kTurnsPerLog * TurnRing::kTurnsPerLog + 1;
    std::string text = log.file_first_seq == first ? log.text : std::string();
    std::size_t taken = 0;
    for (const Turn& turn : ring.unlogged()) {
      if (turn.seq >= first + TurnRing::kTurnsPerLog) break;
      text += render_turn(turn);
      ++taken;
    }
    std::string name = "turnlog-" + log.tag + "-" + std::to_string(first) + ".md";
    std::string saved = dispatch(
        session, save_command(name, front_matter(name, "turnlog") + escape_cdata_close(text)));
    if (is_error(saved)) {
      log.retry_at = ring.unlogged().size() + TurnRing::kLogRetryEvery;
      return;
    }
    log.retry_at = 0;
    log.file_first_seq = first;
    log.text = std::move(text);
    ring.unlogged().erase(ring.unlogged().begin(),
                          ring.unlogged().begin() + static_cast<std::ptrdiff_t>(taken));
  }
}

std::string join_results(const std::vector<std::string>& results) {
  std::string out;
  for (const std::string& r : results) {
    if (!out.empty() && out.back() != '\n') out += '\n';
    out += r;
  }
  while (!out.empty() && out.back() == '\n') out.pop_back();
  return out;
}

constexpr std::string_view kNoConsole =
    "a call that keeps no console (an MCP tool call, the resident's pages) makes no turns; "
    "each kx console keeps its own (kx repl, piped input, one kx call)";

std::string show_turns(Session& session) {
  if (!session.records_turns) return "OK: no turn ring here — " + std::string(kNoConsole);
  const TurnRing& ring = session.turns;
  std::string depth = "depth " + std::to_string(ring.depth());
  std::string out;
  if (ring.turns().empty()) {
    out = "OK: the turn ring is empty (" + depth +
          ") — every command line you run at top level becomes a turn";
  } else {
    out = "OK: " + std::to_string(ring.turns().size()) + " turn(s) in the ring, seqs " +
          std::to_string(ring.turns().front().seq) + ".." +
          std::to_string(ring.turns().back().seq) + " (" + depth + ")";
  }
  TurnRing& mutable_ring = session.turns;
  if (!mutable_ring.log().tag.empty())
    out += "\n  older turns: turnlog-" + mutable_ring.log().tag + "-<first seq>.md";
  if (!mutable_ring.unlogged().empty())
    out += "\n  warning: " + std::to_string(mutable_ring.unlogged().size()) +
           " older turn(s) are not in a turn log yet (no store took the log; enroll a "
           "directory and they follow)";
  if (mutable_ring.dropped() > 0)
    out += "\n  warning: " + std::to_string(mutable_ring.dropped()) +
           " older turn(s) were dropped: no store took the log in time";
  out += '\n';
  for (const Turn& turn : ring.turns()) out += render_turn(turn);
  while (out.back() == '\n') out.pop_back();
  return out;
}

std::string set_turn_depth(Session& session, std::string_view args) {
  std::string_view text = trim(args);
  auto parsed = parse_unsigned(text);
  if (!parsed) return std::string(kDepthUsage);
  std::size_t depth = static_cast<std::size_t>(std::min<std::uint64_t>(*parsed, SIZE_MAX));
  if (depth == 0 || depth > TurnRing::kMaxDepth)
    return "ERROR: the turn ring holds 1 to " + std::to_string(TurnRing::kMaxDepth) +
           " turns (got " + std::string(text) + ")";
  session.turns.set_depth(depth);
  if (!session.turns.unlogged().empty()) write_turn_log(session);
  return "OK: turn ring depth = " + std::to_string(depth);
}

std::string promote(Session& session, std::string_view args) {
  auto [name, range_text] = split_first_word(trim(args));
  if (name.empty()) return "ERROR: promote needs a name";
  if (!valid_action_name(name))
    return "ERROR: action name must be [A-Za-z0-9_-]+ : '" + std::string(name) + "'";
  auto range = SeqRange::parse(range_text);
  if (!range) return std::string(kPromoteUsage);

  std::vector<const Turn*> candidates;
  for (const Turn& turn : session.turns.turns())
    if (!is_bookkeeping(turn.line)) candidates.push_back(&turn);
  std::vector<const Turn*> chosen = range->select(candidates);
  if (!session.records_turns) return "ERROR: nothing to promote — " + std::string(kNoConsole);
  if (chosen.empty())
    return "ERROR: no turns in seq range\n(fssys:turns shows the ring; the log file holds older "
           "seqs)";

  std::string file = action_file(name);
  std::string exists = dispatch(session, "fsstat:exists " + file);
  if (is_error(exists)) return exists;
  if (exists.starts_with("OK: yes"))
    return "ERROR: action '" + std::string(name) +
           "' already exists — promotion is editorial: pick a new name (the old action's history "
           "stays intact)";

  std::vector<std::string> lines;
  for (const Turn* turn : chosen) lines.push_back(turn->line);
  std::string saved = dispatch(session, save_command(file, action_file_text(name, lines)));
  if (is_error(saved)) return saved;
  return "OK: action '" + std::string(name) + "' promoted from turns " +
         std::string(trim(range_text)) + " (" + std::to_string(lines.size()) +
         " command(s)) — invoke:  action(" + std::string(name) +
         ")  or with rebound registers:  action(" + std::string(name) + ", turn(x).$[..])";
}

// The values "turn(x).$[selector]" names: what turn x published to the registers,
// or else its result lines without an "OK" status line.
std::variant<std::vector<std::string>, std::string> rebound_values(const Session& session,
                                                                   std::string_view spec) {
  if (!spec.starts_with("turn(")) return std::string(kRebindUsage);
  std::size_t close = spec.find(')');
  if (close == std::string_view::npos) return std::string(kRebindUsage);
  std::string_view which = trim(spec.substr(5, close - 5));
  std::string_view rest = trim(spec.substr(close + 1));
  std::string selector = "..";
  if (!rest.empty()) {
    if (!rest.starts_with(".$[") || !rest.ends_with("]")) return std::string(kRebindUsage);
    selector = std::string(rest.substr(3, rest.size() - 4));
  }
  bool back = which.starts_with("-");
  auto number = parse_unsigned(back ? which.substr(1) : which);
  if (!number) return std::string(kRebindUsage);
  std::uint64_t n = *number;
  const Turn* turn =
      back ? session.turns.from_newest(static_cast<std::size_t>(n)) : session.turns.find(n);
  if (turn == nullptr)
    return "ERROR: no turn " + std::string(which) + " in the ring (fssys:turns shows it)";

  RegisterSet values;
  if (turn->published) {
    values.publish(*turn->published);
  } else {
    std::vector<std::string> lines = turn->result_lines;
    if (!lines.empty() && lines.front().starts_with("OK")) lines.erase(lines.begin());
    values.publish(std::move(lines));
  }
  auto chosen = values.select(selector);
  if (!chosen)
    return "ERROR: turn(" + std::string(which) + ").$[" + selector +
           "] selects nothing — that turn has " + std::to_string(values.size()) + " value(s)";
  return *chosen;
}

std::string run_action(Session& session, std::string_view args) {
  auto [name, rebind] = split_first_word(trim(args));
  if (name.empty()) return std::string(kActionRunUsage);
  if (!valid_action_name(name))
    return "ERROR: action name must be [A-Za-z0-9_-]+ : '" + std::string(name) + "'";
  if (session.action_depth >= Session::kMaxActionDepth)
    return "ERROR: action nesting too deep (" + std::to_string(Session::kMaxActionDepth) +
           ") — refusing\n";

  std::optional<std::vector<std::string>> values;
  if (!trim(rebind).empty()) {
    auto found = rebound_values(session, trim(rebind));
    if (auto* error = std::get_if<std::string>(&found)) return *error;
    values = std::get<std::vector<std::string>>(std::move(found));
  }

  std::string stored = dispatch(session, "fs:cat " + action_file(name));
  std::string header = "---\nname: action_" + std::string(name) + "\n";
  std::size_t body_at = stored.find("\n---\n", header.size() - 1);
  if (is_error(stored) || !stored.starts_with(header) || body_at == std::string::npos)
    return "ERROR: no action named '" + std::string(name) + "' (promote one first)";

  UnitFramer framer;
  framer.add(unescape_cdata_close(std::string_view(stored).substr(body_at + 5)));
  framer.add("\n");
  std::vector<std::string> lines;
  while (auto unit = framer.finish()) {
    std::string_view line = trim(*unit);
    if (!line.empty()) lines.emplace_back(line);
  }

  RegisterSet saved_registers = session.registers;
  if (values) session.registers.publish(std::move(*values));
  std::vector<std::string> results;
  std::size_t failed = 0;
  {
    DepthGuard depth(session.action_depth);
    for (std::size_t i = 0; i < lines.size(); ++i) {
      results.push_back(run_line(session, session.bot_id, lines[i]));
      if (is_error(results.back())) {
        failed = i + 1;
        break;
      }
    }
  }
  if (values) session.registers = std::move(saved_registers);

  std::string output = join_results(results);
  if (failed > 0) {
    std::string shown = lines[failed - 1].substr(0, 200);
    if (shown.find('\n') != std::string::npos) shown = shown.substr(0, shown.find('\n')) + " …";
    return "ERROR: action '" + std::string(name) + "' stopped at line " + std::to_string(failed) +
           " of " + std::to_string(lines.size()) + " (" + shown +
           ") — the lines after it did "
           "not run\n" +
           output;
  }
  if (trim(output).empty()) return "OK: action '" + std::string(name) + "' ran (no output)";
  return output;
}

}  // namespace

void record_turn(Session& session, std::string_view line, const std::string& result,
                 std::uint64_t published_before) {
  std::optional<std::vector<std::string>> published;
  if (session.registers.generation() != published_before) published = session.registers.values();
  session.turns.record(line, result, std::move(published));
  if (!session.turns.unlogged().empty() &&
      session.turns.unlogged().size() >= session.turns.log().retry_at)
    write_turn_log(session);
}

std::string escape_cdata_close(std::string_view text) {
  std::string out;
  out.reserve(text.size());
  for (std::size_t i = 0; i < text.size(); ++i) {
    if (text[i] == '>') {
      std::size_t spaces = 0;
      while (spaces < out.size() && out[out.size() - 1 - spaces] == ' ') ++spaces;
      std::size_t end = out.size() - spaces;
      if (end >= 2 && out[end - 1] == ']' && out[end - 2] == ']') out += ' ';
    }
    out += text[i];
  }
  return out;
}

std::string unescape_cdata_close(std::string_view text) {
  std::string out;
  out.reserve(text.size());
  for (std::size_t i = 0; i < text.size(); ++i) {
    if (text[i] == '>' && !out.empty() && out.back() == ' ') {
      std::size_t spaces = 0;
      while (spaces < out.size() && out[out.size() - 1 - spaces] == ' ') ++spaces;
      std::size_t end = out.size() - spaces;
      if (end >= 2 && out[end - 1] == ']' && out[end - 2] == ']') out.pop_back();
    }
    out += text[i];
  }
  return out;
}

std::string action_file_text(std::string_view name, const std::vector<std::string>& lines) {
  std::string text = front_matter("action_" + std::string(name), "action");
  for (const std::string& line : lines) text += escape_cdata_close(line) + "\n";
  return text;
}

void add_turn_verbs(Family& fssys) {
  auto verb = [&fssys](std::string name, std::string summary, std::string usage,
                       std::string example, VerbHandler run) {
    fssys.verbs.push_back(Verb{std::move(name),
                               {},
                               std::move(summary),
                               std::move(usage),
                               std::move(example),
                               "Inspect",
                               "",
                               std::move(run)});
  };
  verb("turns", "the turn ring: your recent top-level command lines and their results",
       "fssys:turns", "fssys:turns",
       [](Session& session, std::string_view) { return show_turns(session); });
  verb("turndepth", "how many turns the ring keeps (default 128); older ones go to the turn log",
       "fssys:turndepth <n>", "fssys:turndepth 256", set_turn_depth);
  verb("promote",
       "store turns of the ring as the action <name> (action_<name>.md, versioned). Range: 5 · "
       "3..7 · 4.. (to the newest) · ..6 · 1,3,5..7 · -3 (the last three turns)",
       "fssys:promote <name> <seq range>", "fssys:promote build 3..5", promote);
  verb("actionrun",
       "run a stored action line by line; it stops at the first failing line. With "
       "turn(x).$[sel] the $[] registers are rebound to what turn x published (or its result "
       "lines) — turn(-1) is the newest turn",
       "fssys:actionrun <name> [turn(<seq>).$[<selector>]]",
       "fssys:actionrun build turn(4).$[0..2]", run_action);
}

}  // namespace kx::lang

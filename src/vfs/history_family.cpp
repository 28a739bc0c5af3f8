// "fsvctl:" — the version chains: check-out and check-in, revert, diff, log, open,
// timeline, and emits (writing files out as of a time, approved by a human only).
#include <charconv>
#include <exception>
#include <mutex>
#include <utility>

#include "lang/session.hpp"
#include "lang/text.hpp"
#include "platform/process_info.hpp"
#include "vfs/args.hpp"
#include "vfs/commands.hpp"
#include "vfs/edit_log.hpp"
#include "vfs/emit_run.hpp"
#include "vfs/file_diff.hpp"
#include "vfs/history_state.hpp"
#include "vfs/outside_change.hpp"
#include "vfs/path_resolve.hpp"
#include "vfs/save_path.hpp"
#include "vfs/version_chain.hpp"

namespace kx::vfs {
namespace {

namespace fs = std::filesystem;
using Handler = std::function<std::string(HistoryState&, lang::Session&, const kst::Args&)>;

// The active store's lock, as the verb wrapper holds it around a handler on this
// thread: a handler that computes long on copies lets it go meanwhile.
thread_local std::unique_lock<std::recursive_mutex>* t_store_guard = nullptr;
struct StoreGuardScope {
  explicit StoreGuardScope(std::unique_lock<std::recursive_mutex>& guard)
      : previous(std::exchange(t_store_guard, &guard)) {}
  ~StoreGuardScope() { t_store_guard = previous; }
  std::unique_lock<std::recursive_mutex>* previous;
};

constexpr const char* kCacheMode = "cache write-through store (mode=cachewt)";

std::optional<std::uint32_t> parse_number(std::optional<std::string> text) {
  if (!text) return std::nullopt;
  std::string_view s = *text;
  if (s.starts_with('#') || s.starts_with('v')) s.remove_prefix(1);
  std::uint32_t n = 0;
  auto [end, ec] = std::from_chars(s.data(), s.data() + s.size(), n);
  if (ec != std::errc() || end != s.data() + s.size() || s.empty()) return std::nullopt;
  return n;
}

// An existing file named by the <path> element or first word. On failure `out` is
// the answer.
kst::File* file_target(HistoryState& state, const kst::Args& args, Target& t, std::string& out,
                       std::string_view usage) {
  auto path = args.get("path", 0);
  if (!path || path->empty()) {
    out = "ERROR: usage  " + std::string(usage);
    return nullptr;
  }
  t = find_target(*state.stores, *path);
  if (!t.error.empty()) {
    out = t.error;
    return nullptr;
  }
  if (!t.found) {
    out = "ERROR: no such file: " + *path;
    return nullptr;
  }
  kst::File* file = t.store->find_file(t.path);
  if (file == nullptr) out = "ERROR: not a file: " + kx::lang::printable(t.path);
  return file;
}

// The store path of the file named by the arguments when it lies in a cache
// write-through store, which keeps no chain; nothing otherwise. The file may not be in
// the cache yet (it joins on first use), so the disk decides whether it exists.
std::optional<std::string> cache_store_file(HistoryState& state, const kst::Args& args) {
  auto arg = args.get("path", 0);
  if (!arg || arg->empty()) return std::nullopt;
  Target t = find_target(*state.stores, *arg);
  if (t.store == nullptr || t.store->versioned()) return std::nullopt;
  std::string error;
  auto path = kst::store_path_of(*t.store, *arg, error);
  std::error_code ec;
  if (!path || !fs::is_regular_file(t.store->disk_path(*path), ec)) return std::nullopt;
  return lang::printable(*path);
}

std::string no_versions_kept(const std::string& path) {
  return "ERROR: " + path + " is in a " + kCacheMode + " — no versions kept (fs:cat reads it)";
}

std::string with_notice(std::string out, const std::string& path, const kst::SaveResult& saved) {
  if (saved.mirror_failed) out += "  [mirror-fail]";
  return out + kst::save_notice(path, saved.version);
}

std::string checkout(HistoryState& state, lang::Session& session, const kst::Args& args) {
  Target t;
  std::string out;
  if (file_target(state, args, t, out, "fsvctl:checkout <path>") == nullptr) return out;
  return state.locks.checkout(*t.store, t.path, session.bot_id);
}

std::string checkin(HistoryState& state, lang::Session& session, const kst::Args& args) {
  auto arg = args.get("path", 0);
  if (!arg || arg->empty()) return "ERROR: <path> required";
  Target t = find_target(*state.stores, *arg);
  if (!t.error.empty()) return t.error;
  kst::Store& store = *t.store;
  std::string path = t.path;
  if (!t.found) {
    // Checking in a file the store does not have yet creates it.
    std::string error;
    auto created = kst::store_path_of(store, *arg, error);
    if (!created) return "ERROR: " + error;
    path = *created;
  } else if (!t.is_file) {
    return "ERROR: not a file: " + kx::lang::printable(path);
  }
  const std::string& seat = session.bot_id;
  const auto content = args.element("content");
  std::lock_guard guard(store.mutex());
  // The check below, the save and the release are one step for other processes too.
  const kst::Store::ProcessLock across_processes(store);
  kst::LockTable& table = state.locks.table(store);

  if (!content) {
    // Without new text a check-in only ends the seat's check-out.
    if (table.status(path).holder != seat)
      return "ERROR: nothing to check in — give <content><![CDATA[..]]></content>, or "
             "fsvctl:checkout " +
             path + " first";
    return "OK: checked in " + kx::lang::printable(path) +
           state.locks.release_after_checkin(store, path, seat);
  }

  const bool dirty = args.element("dirty") == "true";
  const kst::SaveCheck check = table.check_save(
      path, seat, dirty ? kst::SaveIntent::dirty_checkin : kst::SaveIntent::merge_checkin);
  if (!check.allowed()) return "ERROR: " + check.message;
  kst::SaveRequest request;
  request.seat = seat;
  using Outcome = kst::SaveCheck::Outcome;
  request.dirty = check.outcome == Outcome::proceed_dirty;
  request.op = std::string(request.dirty                             ? kst::kOpCheckinDirty
                           : check.outcome == Outcome::proceed_merge ? kst::kOpMerge
                                                                     : kst::kOpCheckin);
  const kst::SaveResult saved =
      kst::save_file(store, path, *content, request, state.stores->report());
  if (!saved.ok) return "ERROR: " + saved.message;
  if (!store.versioned()) {
    return "OK: wrote through " + kx::lang::printable(path) + " — " + kCacheMode +
           ", no version recorded" + state.locks.release_after_checkin(store, path, seat);
  }
  std::string out = "OK: checked in " + kx::lang::printable(path);
  if (request.dirty) out += " — " + check.message;
  if (check.outcome == Outcome::proceed_merge) out += " — merge recorded, dirty flag cleared";
  out += state.locks.release_after_checkin(store, path, seat);
  return with_notice(out, path, saved);
}

std::string revert(HistoryState& state, lang::Session& session, const kst::Args& args) {
  constexpr std::string_view usage = "fsvctl:revert <path>x</path><version>N</version>";
  if (auto cached = cache_store_file(state, args))
    return "ERROR: " + *cached + " is in a " + kCacheMode + " — no version history to revert to";
  Target t;
  std::string out;
  kst::File* file = file_target(state, args, t, out, usage);
  if (file == nullptr) return out;
  kst::Store& store = *t.store;
  if (!store.versioned())
    return "ERROR: " + kx::lang::printable(t.path) + " is in a " + kCacheMode +
           " — no version history to revert to";
  const auto version = parse_number(args.get("version", 1));
  if (!version) return "ERROR: usage  " + std::string(usage);
  std::lock_guard guard(store.mutex());
  const auto text = kst::read_version(*file, *version);
  if (!text) return "ERROR: no such version";
  kst::SaveRequest request;
  request.seat = session.bot_id;
  request.op = "revert";
  const kst::SaveResult saved =
      kst::save_file(store, t.path, *text, request, state.stores->report());
  if (!saved.ok) return "ERROR: " + saved.message;
  return with_notice("OK: reverted " + kx::lang::printable(t.path) + " to v" +
                         std::to_string(*version) + " (now v" + std::to_string(saved.version) + ")",
                     t.path, saved);
}

std::string diff(HistoryState& state, lang::Session& session, const kst::Args& args) {
  const std::string usage =
      "ERROR: usage  fsvctl:diff <path>x</path><a>N</a>[<b>M</b>]   (version numbers; "
      "fsvctl:log shows the chain)";
  const auto a = parse_number(args.get("a", 1));
  if (!args.get("path", 0) || !a) return usage;
  if (auto cached = cache_store_file(state, args)) return no_versions_kept(*cached);
  Target t;
  std::string out;
  kst::File* file = file_target(state, args, t, out, "");
  if (file == nullptr) return out.starts_with("ERROR: usage") ? usage : out;
  std::optional<std::uint32_t> b = file->current;
  if (args.get("b", 2)) b = parse_number(args.get("b", 2));
  if (!b) return usage;
  // The two texts are copied under the store's lock; the diff itself runs without it,
  // so saves and the watcher of this store do not wait for a long diff.
  std::optional<std::string> text_a, text_b;
  {
    std::lock_guard guard(t.store->mutex());
    text_a = kst::read_version(*file, *a);
    if (text_a) text_b = kst::read_version(*file, *b);
  }
  if (!text_a || !text_b)
    return "ERROR: no v" + std::to_string(text_a ? *b : *a) + " of " + kx::lang::printable(t.path) +
           " (fsvctl:log shows the chain)";
  kst::DiffLimits limits;
  // Leave the machine half of what is free; a diff is never worth swapping for.
  if (auto free = platform::free_physical_memory())
    limits.memory_budget = static_cast<std::size_t>(*free / 2);
  // The diff works on its own copies: other callers' commands, and this store's
  // watcher, go ahead while it runs. Store before session when letting go, session
  // before store when taking back, the order every command takes them in.
  std::string answer;
  const bool let_go = t_store_guard != nullptr && t_store_guard->owns_lock();
  if (let_go) t_store_guard->unlock();
  lang::run_outside_lock(session, [&] {
    answer = kst::file_diff({t.path, *a, *text_a}, {t.path, *b, *text_b}, limits);
  });
  if (let_go) t_store_guard->lock();
  return answer;
}

std::string log(HistoryState& state, lang::Session&, const kst::Args& args) {
  if (auto cached = cache_store_file(state, args))
    return "LOG " + *cached + "  — " + kCacheMode + ": no version chain kept";
  Target t;
  std::string out;
  kst::File* file = file_target(state, args, t, out, "fsvctl:log <path>");
  if (file == nullptr) return out;
  if (!t.store->versioned())
    return "LOG " + kx::lang::printable(t.path) + "  — " + kCacheMode + ": no version chain kept";
  std::lock_guard guard(t.store->mutex());
  const std::vector<std::uint32_t> numbers = kst::version_numbers(*file);
  const std::vector<kst::EditRecord> edits = kst::read_edits(t.store->edit_log_file());
  const auto records = kst::records_by_version(edits, t.path, numbers.empty() ? 0 : numbers.back());
  out = "LOG " + lang::printable(t.path) + "  (" + std::to_string(numbers.size()) + " versions)\n";
  out.reserve(out.size() + numbers.size() * 48);
  for (std::uint32_t n : numbers) {
    out += "  v" + std::to_string(n) + "  ";
    if (const kst::EditRecord* r = records[n]) {
      out += kst::format_time(r->ts) + "  " + r->op + " by " + r->seat;
    } else {
      out += "----------  --:--:--  (before the edit log)";
    }
    if (n == file->current) out += file->tombstoned ? "  [current, tombstoned]" : "  [current]";
    out += '\n';
  }
  return out;
}

std::string open(HistoryState& state, lang::Session&, const kst::Args& args) {
  if (auto cached = cache_store_file(state, args)) return no_versions_kept(*cached);
  Target t;
  std::string out;
  kst::File* file =
      file_target(state, args, t, out, "fsvctl:open <path>x</path><version>N</version>");
  if (file == nullptr) return out;
  const auto version = parse_number(args.get("version", 1));
  if (!version) return "ERROR: usage  fsvctl:open <path>x</path><version>N</version>";
  std::lock_guard guard(t.store->mutex());
  const auto text = kst::read_version(*file, *version);
  if (!text) return "ERROR: no such version";
  return *text;
}

std::string timeline(HistoryState& state, lang::Session&, const kst::Args& args) {
  kst::Store* store = state.stores->active();
  std::string scope = "(store)";
  std::optional<std::string> only;
  if (auto arg = args.get("path", 0); arg && !arg->empty()) {
    Target t = find_target(*state.stores, *arg);
    if (!t.error.empty()) return t.error;
    if (!t.found) return "ERROR: no such file: " + *arg;
    store = t.store;
    scope = t.path;
    only = t.path;
  }
  if (store == nullptr) return kst::kNoStore;
  const std::vector<kst::EditRecord> edits = kst::read_edits(store->edit_log_file());
  std::string out = "TIMELINE " + scope + "\n";
  std::size_t shown = 0;
  for (auto it = edits.rbegin(); it != edits.rend(); ++it) {
    if (only && !kst::in_scope(it->path, *only)) continue;
    out += "  " + kst::format_time(it->ts) + "  " + it->op + "  " + it->path + "  v" +
           std::to_string(it->prev_version) + " -> v" + std::to_string(it->new_version) + "  by " +
           it->seat + "\n";
    ++shown;
  }
  if (shown == 0) out += "(no recorded history)\n";
  return out;
}

std::string emit(HistoryState& state, lang::Session& session, const kst::Args& args) {
  std::string scope = args.element("scope").value_or(args.get("path", 0).value_or(""));
  if (scope == "latest" && args.words.size() == 1) scope.clear();  // "fsvctl:emit latest"
  if (scope == "(store)" || scope == "." || scope == "/") scope.clear();
  // The time is <asof>, else the words after the scope ("latest" when there are none):
  // a date and a time of day given as two words are one time.
  std::string when = args.element("asof").value_or("");
  if (when.empty()) {
    const std::size_t at = args.element("path") || args.element("scope") ? 0 : 1;
    for (std::size_t i = at; i < args.words.size(); ++i)
      when += (when.empty() ? "" : " ") + args.words[i];
    if (when.empty()) when = "latest";
  }
  std::optional<std::int64_t> asof;
  if (when != "latest") {
    asof = kst::parse_time(when);
    if (!asof)
      return "ERROR: bad time '" + when +
             "' — give <asof>YYYY-MM-DD HH:MM:SS</asof>, a date, seconds since the epoch, or "
             "latest";
  }
  if (!scope.empty()) {
    Target t = find_target(*state.stores, scope);
    if (!t.error.empty()) return t.error;
    if (!t.found) return "ERROR: no such node: " + scope;
    scope = t.path;
  }
  std::string error;
  const kst::PendingEmit* e =
      state.emits.add(scope, asof, session.bot_id, kst::now_seconds(), error);
  if (e == nullptr) return "ERROR: the emit request was not queued (" + error + ")";
  return "PENDING #" + std::to_string(e->number) +
         " — a human must approve it in the panel and choose the target (A = over current files, "
         "B = to a new path). Writes are human-only.";
}

std::string describe(const kst::PendingEmit& e) {
  return "#" + std::to_string(e.number) + "  " + (e.scope.empty() ? "(store)" : e.scope) + "  " +
         (e.asof ? "as-of " + kst::format_time(*e.asof) : std::string("(latest)"));
}

std::string emitlist(HistoryState& state, lang::Session&, const kst::Args&) {
  std::string out = "PENDING-EMITS " + std::to_string(state.emits.pending().size());
  for (const kst::PendingEmit& e : state.emits.pending())
    out += "\n  " + describe(e) + "  requested by " + e.requested_by + " at " +
           kst::format_time(e.requested_at);
  return out;
}

std::optional<std::uint32_t> emit_number(const kst::Args& args) {
  for (const char* tag : {"number", "id", "emit"})
    if (auto n = args.element(tag)) return parse_number(n);
  return parse_number(args.get("", 0));
}

std::string emitcancel(HistoryState& state, lang::Session& session, const kst::Args& args) {
  const auto number = emit_number(args);
  if (!number) return "ERROR: usage  fsvctl:emitcancel <number>";
  const kst::PendingEmit* e = state.emits.find(*number);
  if (e == nullptr) return "ERROR: no pending emit #" + std::to_string(*number);
  if (e->requested_by != session.bot_id && !kst::is_human_seat(session.bot_id))
    return "ERROR: emit #" + std::to_string(*number) + " was requested by " + e->requested_by +
           "; only that seat or a human can cancel it";
  if (!state.emits.take(*number))
    return "ERROR: emit #" + std::to_string(*number) +
           " was not cancelled (its queue could not be "
           "written, or another process took it first)";
  return "OK: cancelled emit #" + std::to_string(*number);
}

std::string emitcommit(HistoryState& state, lang::Session& session, const kst::Args& args) {
  if (!kst::is_human_seat(session.bot_id))
    return "ERROR: emit approval is human-only (via the panel) — a bot cannot self-approve";
  // A human seat is not enough: agents run kx from a pipe under the same seat.
  if (!session.person_present)
    return "ERROR: emit approval needs a person at the console or the UI — run this from kx on "
           "a terminal, or approve it in the UI (kx gui)";
  const auto number = emit_number(args);
  if (!number)
    return "ERROR: usage  fsvctl:emitcommit <number> <mode>A|B</mode> [<dest>path</dest>]";
  const kst::PendingEmit* pending = state.emits.find(*number);
  if (pending == nullptr) return "ERROR: no pending emit #" + std::to_string(*number);
  const std::string mode = args.element("mode").value_or("");
  if (mode != "A" && mode != "B")
    return "ERROR: choose a target — <mode>A</mode> (over current files) or <mode>B</mode> (to a "
           "new path)";
  const std::string dest_arg = args.element("dest").value_or("");
  if (mode == "B" && dest_arg.empty()) return "ERROR: mode B needs a destination path";
  kst::Store* store = state.stores->active();
  if (store == nullptr) return "ERROR: no working tree configured";
  fs::path dest = dest_arg;
  if (!dest.empty() && dest.is_relative()) dest = session.cwd / dest;

  const std::optional<kst::PendingEmit> taken = state.emits.take(*number);
  if (!taken)
    return "ERROR: emit #" + std::to_string(*number) +
           " was not approved (its queue could not be "
           "written, or another process took it first)";
  const kst::PendingEmit& e = *taken;
  const kst::EmitCounts c =
      kst::run_emit(*state.stores, *store, e,
                    mode == "A" ? kst::EmitMode::over_current : kst::EmitMode::write_out, dest,
                    session.bot_id, state.stores->report());
  std::string out =
      "APPROVED: emit " + describe(e) + "  mode " + mode +
      (mode == "A" ? " (restore-in-place)" : " (write-out to " + dest.string() + ")") + ": " +
      std::to_string(c.written) + " written, " + std::to_string(c.unchanged) + " unchanged, " +
      std::to_string(c.deleted) + " deleted, " + std::to_string(c.not_yet_existing) +
      " not-yet-existing skipped";
  if (c.refused > 0) out += ", " + std::to_string(c.refused) + " refused (locked)";
  if (c.failed > 0) out += ", " + std::to_string(c.failed) + " failed (see warnings)";
  return out;
}

// A version's text and a diff of texts are shown byte for byte; every other result
// is made safe to print, since names on disk may hold terminal controls.
bool shows_content(std::string_view verb) {
  return verb == "open" || verb == "diff";
}

lang::Verb verb(std::shared_ptr<HistoryState> state, std::string name,
                std::vector<std::string> aliases, std::string summary, std::string usage,
                std::string example, Handler handler) {
  const bool content = shows_content(name);
  lang::Verb v;
  v.name = std::move(name);
  v.aliases = std::move(aliases);
  v.summary = std::move(summary);
  v.usage = std::move(usage);
  v.example = std::move(example);
  v.section = "Version control";
  v.run = [state, handler, content](lang::Session& session, std::string_view text) -> std::string {
    try {
      std::string error;
      auto args = kst::parse_args(text, error);
      if (!args) return "ERROR: " + error;
      // Versions written by other processes are in the edit log: read them first.
      kst::follow_edit_logs(*state->stores);
      // Resolving a path reads the store's index, which the watcher may be changing.
      std::unique_lock<std::recursive_mutex> guard;
      if (kst::Store* active = state->stores->active()) guard = std::unique_lock(active->mutex());
      const StoreGuardScope scope(guard);
      std::string result = handler(*state, session, *args);
      if (content) return result;  // moved out: a diff can be megabytes
      return lang::printable_lines(result);
    } catch (const std::exception& e) {
      return std::string("ERROR: ") + e.what();
    }
  };
  return v;
}

}  // namespace

lang::Family make_history_family(std::shared_ptr<HistoryState> state) {
  lang::Family f;
  f.name = "fsvctl";
  f.separator = ':';
  f.title = "Version control";
  f.unknown_verb = [](std::string_view v) {
    return "ERROR: unknown fsvctl function '" + lang::printable(v) +
           "' (checkout|checkin|revert|diff|log|open|timeline|emit)";
  };
  f.verbs = {
      verb(state, "checkout", {}, "lock a file for your seat until you check it in",
           "fsvctl:checkout <path>", "fsvctl:checkout <path>src/a.cpp</path>", checkout),
      verb(state, "checkin", {},
           "save new text and release your check-out; <dirty>true</dirty> goes over another "
           "seat's lock and flags the file for merge",
           "fsvctl:checkin <path>x</path><content><![CDATA[..]]></content>[<dirty>true</dirty>]",
           "fsvctl:checkin <path>src/a.cpp</path><content><![CDATA[int x;]]></content>", checkin),
      verb(state, "revert", {}, "save an earlier version as the new current one",
           "fsvctl:revert <path>x</path><version>N</version>",
           "fsvctl:revert <path>src/a.cpp</path><version>2</version>", revert),
      verb(state, "diff", {}, "line diff between two versions of a file",
           "fsvctl:diff <path>x</path><a>N</a>[<b>M</b>]",
           "fsvctl:diff <path>src/a.cpp</path><a>1</a><b>3</b>", diff),
      verb(state, "log", {}, "every version of a file with when, what and who", "fsvctl:log <path>",
           "fsvctl:log src/a.cpp", log),
      verb(state, "open", {"read"}, "the text of one version of a file",
           "fsvctl:open <path>x</path><version>N</version>",
           "fsvctl:open <path>src/a.cpp</path><version>2</version>", open),
      verb(state, "timeline", {}, "recorded operations, newest first, of the store or one file",
           "fsvctl:timeline [<path>]", "fsvctl:timeline src/a.cpp", timeline),
      verb(state, "emit", {},
           "ask to write files out as of a time (a human approves and picks the target)",
           "fsvctl:emit <scope> [<asof>YYYY-MM-DD HH:MM:SS</asof>|latest]",
           "fsvctl:emit <path>src</path><asof>2026-01-31 18:00:00</asof>", emit),
      verb(state, "emitlist", {}, "pending emits", "fsvctl:emitlist", "fsvctl:emitlist", emitlist),
      verb(state, "emitcancel", {}, "drop a pending emit", "fsvctl:emitcancel <number>",
           "fsvctl:emitcancel 3", emitcancel),
      verb(state, "emitcommit", {}, "approve a pending emit (humans only) and carry it out",
           "fsvctl:emitcommit <number> <mode>A|B</mode> [<dest>path</dest>]",
           "fsvctl:emitcommit 3 <mode>B</mode><dest>/tmp/restore</dest>", emitcommit),
  };
  return f;
}

}  // namespace kx::vfs

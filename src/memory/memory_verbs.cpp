#include "memory/memory_verbs.hpp"

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <map>
#include <system_error>
#include <type_traits>
#include <unordered_map>
#include <unordered_set>

#include "lang/result.hpp"
#include "lang/session.hpp"
#include "memory/data_file.hpp"
#include "memory/memo_props.hpp"
#include "memory/memory_query.hpp"
#include "memory/tokenizer.hpp"
#include "memory/verb_args.hpp"
#include "memory/verb_support.hpp"

namespace kx::memory {
namespace {

namespace fs = std::filesystem;
using lang::Session;
using lang::Verb;

struct VerbRow {
  std::string_view name;
  std::string_view summary;
  std::string_view usage;
  std::string_view note;
};

// The reference rows of the main verbs, in the order help prints them.
const VerbRow kRows[] = {
    {"add",
     "Save a memory: topic + content. Keywords are AUTO-EXTRACTED from the content (common words "
     "filtered, same tokenizer as the Kestrune memo add); the <kw,...> field is an optional boost "
     "— leave it empty. Same topic = REPLACE.",
     "memory.add <botid>, <context>, <topic>, <keywords>, <content>   (leave <keywords> empty to "
     "auto-extract; same topic = REPLACE)",
     "You get better hits this way — the index vocabulary comes from the content itself, not from "
     "what you remembered to pass. New keywords thesaurus-link to related in-context keywords at "
     "add time, both ways."},
    {"addmemo",
     "APPEND another memo to a topic's list — each memo is its own record on the data heap, typed "
     "by a property bitmask. Keywords AUTO-EXTRACTED like add.",
     "memory.addmemo <botid>, <context>, <topic>, <keywords>, <props>, <content>     props "
     "|-combine: "
     "procedure|history|preference|note|example|foundation|protocol|usage|decision|constraint|"
     "reference|state|lesson|warning|design|todo (empty = untyped)",
     "A topic is a LIST of memos (like a keyword's reference list). Unlike add (same topic = "
     "REPLACE), addmemo accumulates in append order; a missing topic is created with this memo as "
     "entry 1. Properties are set at creation — | ORs them together (a memo can be procedure AND "
     "usage); & is for testing bits later."},
    {"memos", "Enumerate a topic's memos: position, properties, first line of each.",
     "memory.memos <botid>, <context>, <topic>",
     "The positions it shows are what getmemo and deletememo take. Alias: enumerate."},
    {"getmemo",
     "Get ONE memo from a topic by its 1-based position — full content plus its properties.",
     "memory.getmemo <botid>, <context>, <topic>, <n>",
     "retrieve returns the whole topic joined; getmemo pulls a single entry."},
    {"deletememo", "Remove ONE memo from a topic's list by its 1-based position (append order).",
     "memory.deletememo <botid>, <context>, <topic>, <n>",
     "The last memo leaving removes the topic — a topic IS its memo list. delete still removes a "
     "whole topic at once. memos shows the positions."},
    {"retrieve", "Get a topic's memos, append order, by topic.",
     "memory.retrieve <botid>, <context>, <topic>",
     "Returns content only (memos joined by newline); touches the topic to most-recently-used. "
     "Missing topic -> empty."},
    {"keywords",
     "Find the topics linked to a keyword; related in-context keywords (with topic counts) ride "
     "along free.",
     "keywords|<keyword>",
     "Related terms were linked at ADD time — zero thesaurus work at search time. A miss answers "
     "with related vocabulary that IS in memory, so a wrong guess still lands within one hop."},
    {"delete", "Remove a memory by topic (compacts RAM, rewrites disk).", "delete|<topic>",
     "The previous file is kept at <data>.last as the crash net."},
    {"striptotokens",
     "Tokenize text with the memo-add tokenizer — see exactly what the index will see.",
     "striptotokens|<text>",
     "Words only: [a-z0-9] runs, case-folded; every other byte — ()=>?.| etc — is a separator and "
     "can never appear in a token. Common words filtered, deduped."},
    {"indexdir",
     "Make a directory keyword-retrievable: each file becomes a memory (filename = topic, "
     "StripToTokens(filename) = keywords). The context is the directory.",
     "indexdir|<source_dir>",
     "After indexing, find files with ?(...) queries instead of walking the tree; filename "
     "vocabulary thesaurus-links automatically. Re-running is idempotent — it doubles as the "
     "reindex-from-ground-truth heal. In a file context, DELETING a file does NOT remove its "
     "memory: mark it with the keyword 'deleted' instead (the fs is source-controlled — its index "
     "never forgets either)."},
    {"query",
     "Boolean search over topics and keywords with globs; returns the matching topics (files) "
     "ready for retrieval.",
     "?(topics()==prefix* | topics()==*suffix) && keywords()==*partial*",
     "Operators: == glob-match (* and ?), && AND (intersect), | OR (union), parens group. topics() "
     "matches names; keywords() matches any indexed token. Globs do stemming and PHONETIC search — "
     "you know how words sound and misspell, so cast the net: keywords()==token* sweeps "
     "token/tokens/tokenizer; keywords()==f?n?t?k* catches 'fonetik'. Deleted files stay in "
     "results annotated '(deleted)'; ?keywords()==deleted lists the whole graveyard."},
    {"contexts",
     "Browse the pipeline's context lineup: list every bucket (loaded or on disk) with topic "
     "counts and sizes; name a context to browse INTO it and see its topics.",
     "contexts|<botid>   |   browse|<botid>|<context>",
     "Listing loads nothing (disk-cheap — lots of contexts is the normal case); browsing into a "
     "context loads that one bucket only. 'browse' and 'list' are aliases of 'contexts'."},
    {"w5",
     "Dump a topic's wwwww — its five dangling lists: who/what/when/where/why, extracted from the "
     "memo+topic pair at add/load time (the 5W web; docs\\design\\w5-web.md).",
     "memory.w5 <botid>, <context>, <topic>",
     "The webs are DERIVED, never stored — every existing store grows them retroactively on load, "
     "zero re-ingest. The topic contributes default WHEN (session dates in topic names) and the "
     "speaker prefix default WHO. Alias: frame."},
    {"who",
     "Inbound 5W lookup: which topics carry <term> on the WHO web (speakers, names). Also: when / "
     "where / why — same shape, their own webs.",
     "memory.who <botid>, <context>, <term>     (also memory.when / memory.where / memory.why)",
     "Prefix match, forgiving by doctrine. WHEN stamps are normalized yyyy[-mm[-dd]] so "
     "'memory.when ..., 2023-05' finds every day of that month, and day-math is string order. The "
     "SAME analyzer runs on questions as on memos — a systematic misclassification cancels (wrong "
     "twice is right), so route a question's known Ws in as filters and read its asked W back."},
    {"help", "Show this full capability reference.", "",
     "Generated from the live registry — it can't go stale."},
};

const VerbRow* find_row(std::string_view name) {
  for (const VerbRow& row : kRows)
    if (row.name == name) return &row;
  return nullptr;
}

std::string embed_for_add(MemoryState& state, Context& context, std::string_view content,
                          Embedding& vector) {
  if (!context.config.embed_armed) return {};
  EmbedResult result =
      embed_text(state.post, context.config.embed_url, context.config.embed_model, content);
  if (result.ok) {
    vector = std::move(result.vector);
    return {};
  }
  return "\nwarning: embedder unreachable (ollama nomic-embed-text) — stored in '" +
         context.store.name() + "' without a vector (" + result.error + ")";
}

// --- add / addmemo ---------------------------------------------------------------------

std::string run_add(MemoryState& state, std::string_view args, bool memo) {
  const std::size_t count = memo ? 6 : 5;
  const auto fields = split_args(args, count);
  const std::string usage =
      memo ? "usage  memory.addmemo <botid>, {contexts}, <topic>, <keywords>, <props>, "
             "<content>\n       props (|-combine, or leave empty): " +
                 advertised_property_names()
           : "usage  memory.add <botid>, {contexts}, <topic>, <keywords>, <content>";
  if (fields.size() < count || fields[0].empty() || fields[1].empty() || fields[2].empty())
    return error_result(usage);
  const std::vector<std::string> contexts = split_list(fields[1], "|;");
  if (contexts.empty()) return error_result(usage);
  const std::string& topic = fields[2];
  const std::vector<std::string> keywords = split_list(fields[3], " \t|;");
  std::uint32_t props = 0;
  if (memo) {
    std::string unknown;
    const auto parsed = parse_props(fields[4], unknown);
    if (!parsed)
      return error_result("unknown memo property '" + unknown +
                          "' — valid: " + advertised_property_names());
    props = *parsed;
  }
  const std::string& content = fields[count - 1];

  std::string warnings, failures;
  std::vector<std::string> failed;
  for (const std::string& name : contexts) {
    Context& context = state.contexts.open_to_write(fields[0], name);
    Embedding vector;
    warnings += embed_for_add(state, context, content, vector);
    const std::string error = memo ? context.store.append(topic, keywords, props, content, vector)
                                   : context.store.add(topic, keywords, content, vector);
    state.contexts.gather(context);
    if (!error.empty()) {
      failed.push_back(name);
      failures += "\n  " + name + ": " + error;
    }
  }
  const std::string where = join(contexts, ", ");
  if (!failures.empty())
    return error_result("memory '" + topic +
                        "' was not saved in context(s): " + join(failed, ", ") + failures);
  if (memo)
    return "OK: memo " + props_to_text(props) + " appended to '" + topic +
           "' in context(s): " + where + warnings;
  return "OK: memory '" + topic + "' added to context(s): " + where + warnings;
}

// --- reading a topic -------------------------------------------------------------------

std::string run_memos(MemoryState& state, std::string_view args) {
  Target t;
  if (!three_args(args, t)) return three_arg_usage("memos");
  Context& context = state.contexts.open(t.bot, t.context);
  const TopicNode* node = context.store.find_topic(t.arg);
  if (node == nullptr) return no_memory(t.arg, t.context);
  std::string out = "OK: '" + t.arg + "' — " + std::to_string(node->memos.size()) + " memo(s)";
  for (std::size_t i = 0; i < node->memos.size(); ++i) {
    const RecordView record = context.store.record_at(node->memos[i].offset);
    out += "\n  " + std::to_string(i + 1) + ". [" + props_to_text(record.flags) + "] " +
           first_line(record.content);
  }
  return out;
}

// Parses "<botid>, <context>, <topic>, <n>" for getmemo and deletememo.
struct MemoTarget {
  Context* context = nullptr;
  TopicNode* node = nullptr;
  std::string topic;
  std::uint32_t position = 0;  // 0-based once checked
};

std::string find_memo(MemoryState& state, std::string_view args, std::string_view verb,
                      MemoTarget& out) {
  const auto fields = split_args(args, 4);
  if (fields.size() < 4 || fields[0].empty() || fields[1].empty() || fields[2].empty())
    return error_result("usage  memory." + std::string(verb) + " <botid>, <context>, <topic>, <n>");
  out.context = &state.contexts.open(fields[0], fields[1]);
  out.topic = fields[2];
  out.node = out.context->store.find_topic(out.topic);
  if (out.node == nullptr) return no_memory(out.topic, fields[1]);
  const std::uint32_t n = parse_position(fields[3]);
  if (n == 0 || n > out.node->memos.size())
    return error_result("'" + out.topic + "' has " + std::to_string(out.node->memos.size()) +
                        " memo(s) in context '" + fields[1] + "' — n is 1-based");
  out.position = n - 1;
  return {};
}

std::string run_getmemo(MemoryState& state, std::string_view args) {
  MemoTarget t;
  if (std::string error = find_memo(state, args, "getmemo", t); !error.empty()) return error;
  const RecordView record = t.context->store.record_at(t.node->memos[t.position].offset);
  return "OK: memo " + std::to_string(t.position + 1) + " of " +
         std::to_string(t.node->memos.size()) + " in '" + t.topic + "' [" +
         props_to_text(record.flags) + "]\n" + std::string(record.content);
}

std::string run_deletememo(MemoryState& state, std::string_view args) {
  MemoTarget t;
  if (std::string error = find_memo(state, args, "deletememo", t); !error.empty()) return error;
  const std::string props = props_to_text(t.node->memos[t.position].flags);
  const std::size_t left = t.node->memos.size() - 1;
  const std::string error = t.context->store.delete_memo(t.topic, t.position);
  const std::string what = "memo " + std::to_string(t.position + 1) + " [" + props + "]";
  if (!error.empty())
    return error_result(what + " deleted from '" + t.topic +
                        "' in memory, but the data file was not rewritten: " + error);
  return "OK: " + what + " deleted from '" + t.topic + "' (" + std::to_string(left) +
         " memo(s) left; previous file kept at data.mem.last)";
}

std::string run_retrieve(MemoryState& state, std::string_view args) {
  Target t;
  if (!three_args(args, t)) return three_arg_usage("retrieve");
  Context& context = state.contexts.open(t.bot, t.context);
  TopicNode* node = context.store.find_topic(t.arg);
  if (node == nullptr) return {};
  context.store.touch(node);
  std::string out;
  for (std::size_t i = 0; i < node->memos.size(); ++i) {
    if (i > 0) out += '\n';
    out += context.store.record_at(node->memos[i].offset).content;
  }
  return out;
}

std::string run_delete(MemoryState& state, std::string_view args) {
  Target t;
  if (!three_args(args, t)) return three_arg_usage("delete");
  Context& context = state.contexts.open(t.bot, t.context);
  if (context.store.find_topic(t.arg) == nullptr) return no_memory(t.arg, t.context);
  const std::string error = context.store.delete_topic(t.arg);
  if (!error.empty())
    return error_result("deleted '" + t.arg + "' from context '" + t.context +
                        "' in memory, but the data file was not rewritten: " + error);
  return "OK: deleted '" + t.arg + "' from context '" + t.context +
         "' (previous file kept at data.mem.last)";
}

// --- keywords and tokens -----------------------------------------------------------

std::string related_line(const ContextStore& store, std::string_view word) {
  std::string out;
  std::size_t shown = 0;
  for (std::string_view related : store.related().related(word)) {
    if (shown++ == kRelatedLimit) break;
    const auto postings = store.postings(related);
    if (!postings) continue;
    out += (out.empty() ? "" : ", ") + std::string(related) + " (" + topic_count(store, *postings) +
           ")";
  }
  return out;
}

std::string run_keywords(MemoryState& state, std::string_view args) {
  Target t;
  if (!three_args(args, t)) return three_arg_usage("keywords");
  const std::string keyword = lower(t.arg);
  Context& context = state.contexts.open(t.bot, t.context);
  const ContextStore& store = context.store;
  const auto postings = store.postings(keyword);
  const std::string related = related_line(store, keyword);
  if (!postings && related.empty())
    return error_result("keyword '" + keyword + "' not in context '" + t.context + "'");
  const std::size_t hits = postings ? postings->size() : 0;
  std::string out = "OK: keyword '" + keyword + "' — " + std::to_string(hits) + " memo hit(s):";
  for (std::size_t i = 0; i < hits && i < kListLimit; ++i) {
    const RecordSlot* s = store.slot((*postings)[i].offset);
    if (s == nullptr) continue;
    out += "\n  " + s->topic->topic + " #" + std::to_string(s->position + 1) + " [" +
           props_to_text((*postings)[i].flags) + "]";
  }
  if (hits > kListLimit) out += "\n  ... (" + std::to_string(hits - kListLimit) + " more)";
  if (!related.empty()) out += "\nrelated in context: " + related;
  return out;
}

std::string run_striptotokens(std::string_view args) {
  const std::vector<std::string> tokens = StripToTokens(args);
  return "OK: " + std::to_string(tokens.size()) + " token(s)" + (tokens.empty() ? "" : ": ") +
         join(tokens, " ");
}

// --- indexdir ----------------------------------------------------------------------

// True when the topic is exactly the memory indexdir would write, so that a re-run
// over an unchanged tree rewrites nothing.
bool indexed_as(const ContextStore& store, const std::string& topic,
                const std::vector<std::string>& keywords) {
  const TopicNode* node = store.find_topic(topic);
  if (node == nullptr || node->memos.size() != 1) return false;
  const RecordView record = store.record_at(node->memos[0].offset);
  if (record.flags != 0 || record.content != topic) return false;
  const std::vector<std::string> expected = memo_keywords(keywords, topic);
  return std::equal(expected.begin(), expected.end(), record.keywords.begin(),
                    record.keywords.end());
}

std::string run_indexdir(MemoryState& state, Session& session, std::string_view args) {
  const auto fields = split_args(args, 2);
  if (fields.empty() || fields.back().empty())
    return error_result("usage  memory.indexdir <botid>, <source_dir>");
  const std::string bot = fields.size() == 2 && !fields[0].empty() ? fields[0] : session.bot_id;
  const std::string& given = fields.back();
  fs::path dir = given;
  if (dir.is_relative() && !session.cwd.empty()) dir = session.cwd / dir;
  std::error_code ec;
  if (!fs::is_directory(dir, ec)) return error_result("no such directory: " + given);
  dir = fs::weakly_canonical(dir, ec);
  std::string name = dir.generic_string();
  while (name.size() > 1 && name.back() == '/') name.pop_back();

  Context& context = state.contexts.open(bot, name);
  ContextStore& store = context.store;
  if (std::string error = store.begin_batch(); !error.empty())
    return error_result("could not index " + given + ": " + error);
  std::size_t count = 0;
  // Hidden entries (".git", version mirrors) are not part of the tree's content.
  fs::recursive_directory_iterator it(dir, fs::directory_options::skip_permission_denied, ec), end;
  for (; !ec && it != end; it.increment(ec)) {
    const std::string leaf = it->path().filename().string();
    if (leaf.starts_with(".")) {
      if (it->is_directory(ec)) it.disable_recursion_pending();
      continue;
    }
    if (!it->is_regular_file(ec)) continue;
    const std::string relative = it->path().lexically_relative(dir).generic_string();
    std::vector<std::string> keywords = StripToTokens(leaf);
    // In a batch, add only changes memory; end_batch writes and reports.
    if (!indexed_as(store, relative, keywords)) (void)store.add(relative, keywords, relative);
    ++count;
  }
  const std::string error = store.end_batch();
  if (!error.empty())
    return error_result("indexed " + std::to_string(count) + " file(s) from " + given +
                        " in memory, but the data file was not written: " + error);
  return "OK: indexed " + std::to_string(count) + " file(s) from " + given + " into context '" +
         name + "'";
}

// --- contexts ------------------------------------------------------------------------

std::string run_contexts(MemoryState& state, Session& session, std::string_view args) {
  const auto fields = split_args(args, 2);
  const std::string bot = !fields.empty() && !fields[0].empty() ? fields[0] : session.bot_id;
  if (fields.size() < 2 || fields[1].empty()) {
    const auto listing = state.contexts.list(bot);
    std::string out = "OK: " + std::to_string(listing.size()) + " context(s) under " +
                      state.contexts.root().string() + " for bot '" + bot + "'";
    for (const ContextListing& entry : listing) {
      out += "\n  " + entry.name + "  ";
      if (entry.loaded)
        out += std::to_string(entry.topics) + " topic(s), " + std::to_string(entry.bytes) +
               " bytes (loaded)";
      else
        out += std::to_string(entry.bytes) + " bytes on disk (not loaded)";
    }
    return out;
  }
  Context& context = state.contexts.open(bot, fields[1]);
  const ContextStore& store = context.store;
  if (store.topic_count() == 0)
    return "OK: context '" + fields[1] + "' (empty — memory.add puts the first record here)";
  std::string out = "OK: context '" + fields[1] + "' — " + std::to_string(store.topic_count()) +
                    " topic(s), " + std::to_string(store.memo_count()) +
                    " memo(s), most recently used first";
  std::size_t shown = 0;
  for (const TopicNode* node = store.most_recent(); node != nullptr; node = node->next) {
    if (shown == kListLimit) {
      out += "\n  ... (" + std::to_string(store.topic_count() - shown) + " more)";
      break;
    }
    out += "\n  " + node->topic + "  (" + std::to_string(node->memos.size()) + " memo(s))";
    ++shown;
  }
  return out;
}

std::string run_query(MemoryState& state, std::string_view args) {
  Target t;
  if (!three_args(args, t)) return three_arg_usage("query");
  Context& context = state.contexts.open(t.bot, t.context);
  return run_topic_query(context.store, t.arg);
}

}  // namespace

std::string run_query_word(MemoryState& state, lang::Session& session, std::string_view inner) {
  inner = trim(inner);
  if (inner.empty()) return error_result("empty query");
  // The grammar hands over the text inside "?(" ... with the final ")" removed when
  // there was one; exactly one of the two restorations is a well-formed query.
  const ContextStore empty("syntax");
  std::string query = "(" + std::string(inner) + ")";
  if (!query_topics(empty, query).ok) query = "(" + std::string(inner);
  const QueryResult syntax = query_topics(empty, query);
  if (!syntax.ok) return error_result(syntax.error);

  std::vector<std::string> matches;
  for (const ContextListing& listing : state.contexts.list(session.bot_id)) {
    Context& context = state.contexts.open(session.bot_id, listing.name);
    for (std::string& topic : query_topics(context.store, query).topics)
      matches.push_back(listing.name + ": " + topic);
  }
  return format_matches(matches);
}

namespace {

// --- registration -------------------------------------------------------------------

Verb make_verb(std::string_view name, std::vector<std::string> aliases, std::string example,
               lang::VerbHandler run) {
  Verb verb;
  verb.name = std::string(name);
  verb.aliases = std::move(aliases);
  if (const VerbRow* row = find_row(name)) {
    verb.summary = std::string(row->summary);
    verb.usage = std::string(row->usage);
  }
  verb.example = std::move(example);
  verb.run = std::move(run);
  return verb;
}

}  // namespace

std::string_view verb_note(std::string_view verb) {
  const VerbRow* row = find_row(verb);
  return row ? row->note : std::string_view();
}

std::vector<Verb> make_memory_verbs(const std::shared_ptr<MemoryState>& state) {
  auto with = [state](auto fn) {
    return [state, fn](Session& session, std::string_view args) -> std::string {
      std::string out;
      if constexpr (std::is_invocable_v<decltype(fn), MemoryState&, Session&, std::string_view>)
        out = fn(*state, session, args);
      else
        out = fn(*state, args);
      // Damage found while opening a context is told by the command that found it.
      return out + state->contexts.take_warnings();
    };
  };
  std::vector<Verb> verbs;
  verbs.push_back(
      make_verb("add", {}, "memory.add cli, notes, build, , how to build: cmake --preset release",
                with([](MemoryState& s, std::string_view a) { return run_add(s, a, false); })));
  verbs.push_back(
      make_verb("addmemo", {},
                "memory.addmemo cli, notes, build, , procedure|usage, run ctest after building",
                with([](MemoryState& s, std::string_view a) { return run_add(s, a, true); })));
  verbs.push_back(
      make_verb("memos", {"enumerate"}, "memory.memos cli, notes, build", with(run_memos)));
  verbs.push_back(
      make_verb("getmemo", {}, "memory.getmemo cli, notes, build, 1", with(run_getmemo)));
  verbs.push_back(
      make_verb("deletememo", {}, "memory.deletememo cli, notes, build, 2", with(run_deletememo)));
  verbs.push_back(
      make_verb("retrieve", {}, "memory.retrieve cli, notes, build", with(run_retrieve)));
  verbs.push_back(
      make_verb("keywords", {"keyword"}, "memory.keywords cli, notes, cmake", with(run_keywords)));
  verbs.push_back(
      make_verb("delete", {"remove"}, "memory.delete cli, notes, build", with(run_delete)));
  verbs.push_back(make_verb("striptotokens", {}, "memory.striptotokens Report.PDF v1.2.3",
                            [](Session&, std::string_view a) { return run_striptotokens(a); }));
  verbs.push_back(
      make_verb("indexdir", {}, "memory.indexdir cli, ~/proj/docs", with(run_indexdir)));
  verbs.push_back(
      make_verb("query", {}, "memory.query cli, notes, keywords()==build*", with(run_query)));
  verbs.push_back(
      make_verb("contexts", {"browse", "list"}, "memory.contexts cli", with(run_contexts)));
  verbs.push_back(
      make_verb("w5", {"frame"}, "memory.w5 cli, notes, alice: standup 2023-05-02", with(run_w5)));
  verbs.push_back(make_verb(
      "who", {}, "memory.who cli, notes, alice",
      with([](MemoryState& s, std::string_view a) { return run_inbound(s, a, W::who); })));
  // help is filled in by the family, which knows its own registration.
  verbs.push_back(make_verb("help", {"manifest"}, "memory.help", nullptr));

  // Further verbs, beyond the reference rows above.
  auto extra = [&](std::string name, std::vector<std::string> aliases, std::string summary,
                   std::string usage, std::string example, lang::VerbHandler run) {
    Verb verb = make_verb(name, std::move(aliases), std::move(example), std::move(run));
    verb.summary = std::move(summary);
    verb.usage = std::move(usage);
    verbs.push_back(std::move(verb));
  };
  for (W w : {W::when, W::where, W::why}) {
    std::string name(kWNames[static_cast<int>(w)]);
    std::string upper = name;
    for (char& c : upper) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
    extra(name, {}, "Inbound 5W lookup on the " + upper + " web (prefix match).",
          "memory." + name + " <botid>, <context>, <term>",
          "memory." + name + " cli, notes, 2023-05",
          with([w](MemoryState& s, std::string_view a) { return run_inbound(s, a, w); }));
  }
  extra("w5build", {},
        "Rebuild a context's 5W webs from its records (they are derived, never stored).",
        "memory.w5build <botid>, <context>", "memory.w5build cli, notes", with(run_w5build));
  extra("temporal", {"chain"},
        "Temporal chain: the topics carrying a term, ordered by their earliest WHEN stamp.",
        "memory.temporal <botid>, <context>, <term>", "memory.temporal cli, notes, release",
        with(run_temporal));
  extra("thematic", {}, "Thematic neighbours: the topics sharing the most keywords with a topic.",
        "memory.thematic <botid>, <context>, <topic>", "memory.thematic cli, notes, build",
        with(run_thematic));
  extra("clone", {}, "Copy a whole context, byte for byte, into a fresh context.",
        "memory.clone <botid>, <context>, <dst-context>  (dst must differ)",
        "memory.clone cli, notes, notes-backup", with(run_clone));
  extra("embed", {}, "Arm or disarm a context's embedding lane (on/off; no argument shows it).",
        "memory.embed <botid>, <context>, on|off", "memory.embed cli, notes, on", with(run_embed));
  extra("sync", {},
        "When an add is on the disk: each (before it answers) or group (a few ms later, the "
        "default); no argument shows it.",
        "memory.sync <botid>, <context>, each|group", "memory.sync cli, notes, each",
        with(run_sync));
  extra("semantic", {}, "Rank a context's embedded memos by similarity to a text.",
        "memory.semantic <botid>, <context>, <text>", "memory.semantic cli, notes, how do I build",
        with(run_semantic));
  return verbs;
}

std::string memory_help(const lang::Family& family) {
  std::string out =
      "OK: memory — persistent memory: bot > context > topic > memos. Generated from the live "
      "registry — it can't go stale.\n";
  for (const Verb& verb : family.verbs) {
    out += "\nmemory." + verb.name;
    if (!verb.aliases.empty()) out += "   (alias: " + join(verb.aliases, ", ") + ")";
    out += "\n  " + verb.summary;
    if (!verb.usage.empty()) out += "\n  usage: " + verb.usage;
    if (const std::string_view note = verb_note(verb.name); !note.empty())
      out += "\n  note:  " + std::string(note);
    if (!verb.example.empty()) out += "\n  try:   " + verb.example;
    out += '\n';
  }
  return out;
}

}  // namespace kx::memory

// Whole-context copies, the embedding lane and the sync mode.
#include "memory/memory_verbs.hpp"

#include <algorithm>
#include <cstdio>
#include <unordered_map>
#include <unordered_set>

#include "lang/result.hpp"
#include "memory/verb_args.hpp"
#include "memory/verb_support.hpp"

namespace kx::memory {

std::string run_clone(MemoryState& state, std::string_view args) {
  const std::string usage =
      "usage  memory.clone <botid>, <context>, <dst-context>  (dst must differ)";
  Target t;
  if (!three_args(args, t) || t.arg == t.context) return error_result(usage);
  Context& source = state.contexts.open(t.bot, t.context);
  Context& target = state.contexts.open(t.bot, t.arg);
  if (target.store.memo_count() > 0)
    return error_result("context '" + t.arg + "' already holds " +
                        std::to_string(target.store.memo_count()) + " memo(s) (" +
                        std::to_string(target.store.topic_count()) +
                        " topics) — clone wants a fresh context");
  // The heap is the file's body, so a byte copy clones every record (and any
  // unparsed tail) exactly.
  target.store.load_heap(source.store.heap());
  const std::string error = target.store.save();
  const std::string counts = std::to_string(target.store.memo_count()) + " memo(s), " +
                             std::to_string(target.store.topic_count()) + " topic(s)";
  if (!error.empty())
    return error_result("cloned '" + t.context + "' into '" + t.arg + "' in memory (" + counts +
                        "), but the data file was not written: " + error);
  return "OK: cloned '" + t.context + "' into '" + t.arg + "' (" + counts + ")";
}

constexpr std::string_view kArmedTail =
    "— new memos embedded at ingest (needs ollama nomic-embed-text)";

std::string run_embed(MemoryState& state, std::string_view args) {
  const auto fields = split_args(args, 3);
  if (fields.size() < 2 || fields[0].empty() || fields[1].empty())
    return error_result(
        "usage  memory.embed <botid>, <context>, on|off   (memory.help shows the manual)");
  Context& context = state.contexts.open(fields[0], fields[1]);
  const std::string mode = fields.size() == 3 ? lower(fields[2]) : "";
  const std::string name = "'" + fields[1] + "'";
  if (mode.empty() || mode == "status")
    return context.config.embed_armed
               ? "OK: embedding lane of " + name + " is ARMED " + std::string(kArmedTail)
               : "OK: embedding lane of " + name + " is disarmed";
  if (mode != "on" && mode != "off" && mode != "arm" && mode != "disarm")
    return error_result(
        "usage  memory.embed <botid>, <context>, on|off   (memory.help shows the manual)");
  context.config.embed_armed = mode == "on" || mode == "arm";
  if (std::string error = state.contexts.save_config(context); !error.empty())
    return error_result("embedding lane switched in memory but not saved: " + error);
  return context.config.embed_armed
             ? "OK: embedding lane ARMED for " + name + " " + std::string(kArmedTail)
             : "OK: embedding lane disarmed for " + name;
}

std::string run_semantic(MemoryState& state, std::string_view args) {
  Target t;
  if (!three_args(args, t)) return three_arg_usage("semantic");
  Context& context = state.contexts.open(t.bot, t.context);
  const EmbedResult query =
      embed_text(state.post, context.config.embed_url, context.config.embed_model, t.arg);
  if (!query.ok)
    return error_result("embedder unreachable (ollama nomic-embed-text) — cannot embed the query");
  std::vector<std::pair<double, std::uint64_t>> ranked;
  for (const auto& [offset, vector] : context.store.embeddings()) {
    const double score = cosine_similarity(query.vector, vector);
    if (score > 0) ranked.emplace_back(score, offset);
  }
  if (ranked.empty())
    return error_result("no semantic match for '" + t.arg + "' in context '" + t.context + "'");
  std::sort(ranked.begin(), ranked.end(),
            [](const auto& a, const auto& b) { return a.first > b.first; });
  std::string out =
      "OK: " + std::to_string(ranked.size()) + " semantic match(es) for '" + t.arg + "'";
  for (std::size_t i = 0; i < ranked.size() && i < 10; ++i) {
    const RecordSlot* s = context.store.slot(ranked[i].second);
    char score[16];
    std::snprintf(score, sizeof score, "%.3f", ranked[i].first);
    out += "\n  " + std::string(score) + "  " + s->topic->topic + " #" +
           std::to_string(s->position + 1) + "  " +
           first_line(context.store.record_at(ranked[i].second).content);
  }
  return out;
}

std::string run_sync(MemoryState& state, std::string_view args) {
  const std::string usage =
      "usage  memory.sync <botid>, <context>, each|group   (memory.help shows the manual)";
  const auto fields = split_args(args, 3);
  if (fields.size() < 2 || fields[0].empty() || fields[1].empty()) return error_result(usage);
  Context& context = state.contexts.open(fields[0], fields[1]);
  const std::string mode = fields.size() == 3 ? lower(fields[2]) : "";
  const std::string name = "'" + fields[1] + "'";
  auto describe = [&](bool each) {
    return each ? "each add of " + name + " is on the disk before it answers"
                : "adds of " + name + " reach the page cache at once and the disk within a few ms";
  };
  if (mode.empty()) return "OK: " + describe(context.config.sync_each);
  if (mode != "each" && mode != "group" && mode != "on" && mode != "off")
    return error_result(usage);
  context.config.sync_each = mode == "each" || mode == "on";
  context.store.set_durable(context.config.sync_each);
  if (std::string error = state.contexts.save_config(context); !error.empty())
    return error_result("sync mode switched in memory but not saved: " + error);
  return "OK: " + describe(context.config.sync_each);
}

}  // namespace kx::memory

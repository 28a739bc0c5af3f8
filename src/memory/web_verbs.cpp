// The five W web verbs and the views built on them (temporal, thematic).
#include "memory/memory_verbs.hpp"

#include <algorithm>
#include <cstdio>
#include <unordered_map>
#include <unordered_set>

#include "lang/result.hpp"
#include "memory/verb_args.hpp"
#include "memory/verb_support.hpp"

namespace kx::memory {

namespace {
constexpr std::size_t kThematicSkip = 2000;  // keywords this common say nothing of a theme
}

std::string run_w5(MemoryState& state, std::string_view args) {
  Target t;
  if (!three_args(args, t)) return three_arg_usage("w5");
  Context& context = state.contexts.open(t.bot, t.context);
  const TopicNode* node = context.store.find_topic(t.arg);
  if (node == nullptr) return no_memory(t.arg, t.context);
  std::string out = "OK: wwwww of '" + t.arg + "'";
  for (std::size_t w = 0; w < kWNames.size(); ++w) {
    std::string label(kWNames[w]);
    label += ':';
    label.resize(7, ' ');
    out += "\n  " + label + join(context.store.webs().terms_of(node, static_cast<W>(w)), ", ");
  }
  return out;
}

std::string run_inbound(MemoryState& state, std::string_view args, W w) {
  const std::string verb(kWNames[static_cast<int>(w)]);
  Target t;
  if (!three_args(args, t)) return three_arg_usage(verb);
  Context& context = state.contexts.open(t.bot, t.context);
  const auto topics = context.store.webs().topics_with(w, t.arg);
  std::string web = lower(verb);
  for (char& c : web) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
  if (topics.empty())
    return error_result("no topic carries '" + t.arg + "' on the " + web + " web of context '" +
                        t.context + "'");
  std::string out = "OK: " + std::to_string(topics.size()) + " topic(s) on the " + web +
                    " web for '" + t.arg + "'";
  for (std::size_t i = 0; i < topics.size() && i < kListLimit; ++i) {
    out += "\n  " + topics[i]->topic + "  (" +
           join(context.store.webs().terms_of(topics[i], w), ", ") + ")";
  }
  if (topics.size() > kListLimit)
    out += "\n  ... (" + std::to_string(topics.size() - kListLimit) + " more)";
  return out;
}

std::string run_w5build(MemoryState& state, std::string_view args) {
  const auto fields = split_args(args, 2);
  if (fields.size() < 2 || fields[0].empty() || fields[1].empty())
    return error_result("usage  memory.w5build <botid>, <context>");
  Context& context = state.contexts.open(fields[0], fields[1]);
  context.store.rebuild_webs();
  return "OK: 5W webs rebuilt for context '" + fields[1] + "' from " +
         std::to_string(context.store.memo_count()) + " memo(s)";
}

// Topics that carry the term (as a keyword or in their name) ordered by their
// earliest WHEN stamp: how a subject developed over time.
std::string run_temporal(MemoryState& state, std::string_view args) {
  Target t;
  if (!three_args(args, t)) return three_arg_usage("temporal");
  Context& context = state.contexts.open(t.bot, t.context);
  const ContextStore& store = context.store;
  const std::string term = lower(t.arg);
  std::unordered_set<const TopicNode*> candidates;
  if (const auto postings = store.postings(term))
    for (const Posting p : *postings)
      if (const RecordSlot* s = store.slot(p.offset)) candidates.insert(s->topic);
  for (const TopicNode* node : store.webs().topics_with(W::what, term)) candidates.insert(node);
  std::vector<std::pair<std::string, const TopicNode*>> chain;
  for (const TopicNode* node : candidates) {
    auto stamps = store.webs().terms_of(node, W::when);
    if (stamps.empty()) continue;
    chain.emplace_back(*std::min_element(stamps.begin(), stamps.end()), node);
  }
  if (chain.empty())
    return error_result("no temporal chain for '" + t.arg + "' in context '" + t.context + "'");
  std::sort(chain.begin(), chain.end(), [](const auto& a, const auto& b) {
    return a.first != b.first ? a.first < b.first : a.second->topic < b.second->topic;
  });
  std::string out = "OK: temporal chain for '" + t.arg + "' — " + std::to_string(chain.size()) +
                    " topic(s), oldest first";
  for (const auto& [stamp, node] : chain) out += "\n  " + stamp + "  " + node->topic;
  return out;
}

// Topics sharing the most keywords with a topic; very common keywords are skipped.
std::string run_thematic(MemoryState& state, std::string_view args) {
  Target t;
  if (!three_args(args, t)) return three_arg_usage("thematic");
  Context& context = state.contexts.open(t.bot, t.context);
  const ContextStore& store = context.store;
  const TopicNode* node = store.find_topic(t.arg);
  if (node == nullptr) return no_memory(t.arg, t.context);
  std::unordered_map<const TopicNode*, std::size_t> shared;
  std::unordered_set<std::string_view> seen;
  for (const MemoEntry& memo : node->memos) {
    for (std::string_view keyword : store.record_at(memo.offset).keywords) {
      if (!seen.insert(keyword).second) continue;
      const auto postings = store.postings(keyword);
      if (!postings || postings->size() > kThematicSkip) continue;
      std::unordered_set<const TopicNode*> topics;
      for (const Posting p : *postings)
        if (const RecordSlot* s = store.slot(p.offset)) topics.insert(s->topic);
      for (const TopicNode* other : topics)
        if (other != node) ++shared[other];
    }
  }
  if (shared.empty())
    return error_result("no thematic neighbours for '" + t.arg + "' in context '" + t.context +
                        "'");
  std::vector<std::pair<std::size_t, const TopicNode*>> ranked;
  for (const auto& [other, count] : shared) ranked.emplace_back(count, other);
  std::sort(ranked.begin(), ranked.end(), [](const auto& a, const auto& b) {
    return a.first != b.first ? a.first > b.first : a.second->topic < b.second->topic;
  });
  std::string out = "OK: thematic neighbours of '" + t.arg + "' — " +
                    std::to_string(ranked.size()) + " topic(s) sharing keywords";
  for (std::size_t i = 0; i < ranked.size() && i < kListLimit; ++i)
    out += "\n  " + std::to_string(ranked[i].first) + "  " + ranked[i].second->topic;
  if (ranked.size() > kListLimit)
    out += "\n  ... (" + std::to_string(ranked.size() - kListLimit) + " more)";
  return out;
}

}  // namespace kx::memory

#pragma once
// The boolean topic query over one context:
//   ?(topics()==prefix* | topics()==*suffix) && keywords()==*partial*
// "==" glob-matches (* any run, ? one byte); "&&" intersects, "|" (or "||") unites,
// parentheses group. topics() matches topic names exactly as stored; keywords()
// matches indexed keywords, the pattern folded to lower case like a keyword lookup.
// The leading "?" is optional.
#include <string>
#include <string_view>
#include <vector>

namespace kx::memory {

class ContextStore;

struct QueryResult {
  bool ok = false;
  std::string error;                // "empty query", "query not understood: ..."
  std::vector<std::string> topics;  // sorted; "(deleted)" after topics keyed "deleted"
};
QueryResult query_topics(const ContextStore& store, std::string_view query);

// "OK: no match", or "OK: <n> match(es)\n" and one match per line.
std::string format_matches(const std::vector<std::string>& matches);

// "ERROR: empty query", "OK: no match", or "OK: <n> match(es)\n" and one topic per
// line (sorted; "(deleted)" after topics that carry the keyword "deleted").
std::string run_topic_query(const ContextStore& store, std::string_view query);

}  // namespace kx::memory

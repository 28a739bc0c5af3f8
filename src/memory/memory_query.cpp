#include "memory/memory_query.hpp"

#include "lang/text.hpp"

#include <algorithm>
#include <cctype>
#include <set>
#include <vector>

#include "lang/result.hpp"
#include "memory/context_store.hpp"
#include "memory/verb_args.hpp"

namespace kx::memory {
namespace {

using TopicSet = std::set<const TopicNode*>;

class Parser {
 public:
  Parser(const ContextStore& store, std::string_view text) : store_(store), text_(text) {}

  bool parse(TopicSet& out) {
    if (!expr(out)) return false;
    skip_space();
    if (pos_ != text_.size()) return fail("unexpected '" + std::string(1, text_[pos_]) + "'");
    return true;
  }
  const std::string& error() const { return error_; }

 private:
  bool fail(std::string message) {
    if (error_.empty()) error_ = std::move(message) + " at column " + std::to_string(pos_ + 1);
    return false;
  }
  void skip_space() {
    while (pos_ < text_.size() && std::isspace(static_cast<unsigned char>(text_[pos_]))) ++pos_;
  }
  bool eat(std::string_view token) {
    skip_space();
    if (text_.substr(pos_).starts_with(token)) {
      pos_ += token.size();
      return true;
    }
    return false;
  }

  bool expr(TopicSet& out) {
    if (!conjunction(out)) return false;
    while (!text_.substr(pos_).starts_with("&&") && (eat("||") || eat("|"))) {
      TopicSet rhs;
      if (!conjunction(rhs)) return false;
      out.insert(rhs.begin(), rhs.end());
    }
    return true;
  }

  bool conjunction(TopicSet& out) {
    if (!primary(out)) return false;
    while (eat("&&")) {
      TopicSet rhs, both;
      if (!primary(rhs)) return false;
      std::set_intersection(out.begin(), out.end(), rhs.begin(), rhs.end(),
                            std::inserter(both, both.begin()));
      out = std::move(both);
    }
    return true;
  }

  bool primary(TopicSet& out) {
    if (eat("(")) {
      if (!expr(out)) return false;
      return eat(")") ? true : fail("missing ')'");
    }
    const bool topics = eat("topics()");
    if (!topics && !eat("keywords()")) return fail("expected topics()==, keywords()== or '('");
    if (!eat("==")) return fail("expected '=='");
    skip_space();
    const std::size_t start = pos_;
    while (pos_ < text_.size() &&
           std::string_view(" \t)|&").find(text_[pos_]) == std::string_view::npos)
      ++pos_;
    std::string pattern(text_.substr(start, pos_ - start));
    if (pattern.empty()) return fail("empty pattern");
    if (topics) {
      for (const auto& [name, node] : all_topics())
        if (kx::lang::glob_match(pattern, name)) out.insert(node);
      return true;
    }
    for (char& c : pattern) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    auto add_postings = [&](const PostingList& postings) {
      for (const Posting p : postings)
        if (const RecordSlot* s = store_.slot(p.offset)) out.insert(s->topic);
    };
    if (pattern.find_first_of("*?") == std::string::npos) {
      if (const auto postings = store_.postings(pattern)) add_postings(*postings);
      return true;
    }
    store_.for_each_keyword([&](std::string_view keyword, const PostingList& postings) {
      if (kx::lang::glob_match(pattern, keyword)) add_postings(postings);
    });
    return true;
  }

  std::vector<std::pair<std::string_view, const TopicNode*>> all_topics() const {
    std::vector<std::pair<std::string_view, const TopicNode*>> out;
    for (const TopicNode* node = store_.most_recent(); node != nullptr; node = node->next)
      out.emplace_back(node->topic, node);
    return out;
  }

  const ContextStore& store_;
  std::string_view text_;
  std::size_t pos_ = 0;
  std::string error_;
};

}  // namespace

QueryResult query_topics(const ContextStore& store, std::string_view query) {
  QueryResult result;
  query = trim(query);
  if (query.starts_with("?")) query = trim(query.substr(1));
  if (query.find_first_not_of("() \t") == std::string_view::npos) {
    result.error = "empty query";
    return result;
  }
  TopicSet matches;
  Parser parser(store, query);
  if (!parser.parse(matches)) {
    result.error = "query not understood: " + parser.error();
    return result;
  }
  const auto deleted = store.postings("deleted");
  for (const TopicNode* node : matches) {
    bool is_deleted = false;
    if (deleted)
      for (const Posting p : *deleted)
        if (const RecordSlot* s = store.slot(p.offset); s && s->topic == node) is_deleted = true;
    result.topics.push_back(node->topic + (is_deleted ? " (deleted)" : ""));
  }
  std::sort(result.topics.begin(), result.topics.end());
  result.ok = true;
  return result;
}

std::string format_matches(const std::vector<std::string>& matches) {
  if (matches.empty()) return "OK: no match";
  std::string out = "OK: " + std::to_string(matches.size()) + " match(es)\n";
  for (const std::string& match : matches) out += match + "\n";
  return out;
}

std::string run_topic_query(const ContextStore& store, std::string_view query) {
  QueryResult result = query_topics(store, query);
  if (!result.ok) return error_result(result.error);
  return format_matches(result.topics);
}

}  // namespace kx::memory

#pragma once
// Related-term links between the keywords of one context, made when a keyword first
// enters the context and never at query time.
//
// Relatedness needs no word files: two keywords are related when they share a stem
// key, the first five letters of the keyword's leading letter run after one common
// English suffix is stripped ("token", "tokens", "tokenizer" and "tokenized" all key
// to "token"). Keywords whose key is shorter than four letters (numbers, "v1.2",
// short words) are never linked. Links are kept as groups of keywords sharing a key,
// so a link is symmetric by construction and costs one hash insert at add time.
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

namespace kx::memory {

// The stem key of a keyword, or "" when the keyword takes no links.
std::string relatedness_key(std::string_view keyword);

class RelatedTerms {
 public:
  // A keyword new to the context joins its group (linking to every member, both ways).
  void link(const std::string& keyword);
  // A keyword that left the context leaves its group.
  void unlink(const std::string& keyword);
  // Keywords linked to `word` (which need not be in the context), itself excluded,
  // in the order they entered the context.
  std::vector<std::string_view> related(std::string_view word) const;
  void clear() { groups_.clear(); }

 private:
  std::unordered_map<std::string, std::vector<std::string>> groups_;
};

}  // namespace kx::memory

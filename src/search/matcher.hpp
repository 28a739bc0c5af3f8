#pragma once
// The compiled pattern of one grep call, and the search of one text buffer for the
// lines it selects. A Matcher is shared by every worker thread; each thread brings
// its own MatchScratch.
#include <cstddef>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "search/literal.hpp"

namespace kx::search {

// Per-thread PCRE2 state (match data and JIT stack).
class MatchScratch {
 public:
  MatchScratch();
  ~MatchScratch();
  MatchScratch(const MatchScratch&) = delete;
  MatchScratch& operator=(const MatchScratch&) = delete;

  struct Impl;
  Impl& impl() { return *impl_; }

 private:
  std::unique_ptr<Impl> impl_;
};

struct Span {
  std::size_t begin = 0, end = 0;
};

class Matcher {
 public:
  // Compiles `pattern` (ECMAScript syntax, UTF-8 that may hold invalid bytes).
  // `literal_hint` is the pattern before -w/-x wrapping, where a required literal is
  // looked for. Nothing, with `error` set, when the pattern does not compile.
  static std::unique_ptr<Matcher> compile(const std::string& pattern,
                                          const std::string& literal_hint, bool ignore_case,
                                          bool hint_is_whole, std::string& error);
  ~Matcher();

  // The first line at or after `from` (a line start) that holds a match: its span
  // without the line feed. Nothing when no line further on matches.
  std::optional<Span> next_matching_line(std::string_view text, std::size_t from,
                                         MatchScratch& scratch) const;

  // The first match inside `line` at or after `offset` (relative to the line).
  std::optional<Span> match_in_line(std::string_view line, std::size_t offset,
                                    MatchScratch& scratch) const;

 private:
  Matcher() = default;
  bool line_holds_match(std::string_view line, MatchScratch& scratch) const;

  void* code_ = nullptr;  // pcre2_code_8
  std::optional<LiteralFinder> literal_;
  bool literal_is_match_ = false;  // finding the literal is finding a match
  bool may_look_around_ = false;   // a match's context may reach outside its line
};

}  // namespace kx::search

#pragma once
// A literal that every match of a pattern must contain, and a fast way to find it.
// The search skips ahead to the literal with memchr on its rarest byte and runs the
// regex only on the lines where it occurs.
#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

namespace kx::search {

struct RequiredLiteral {
  std::string text;
  bool whole_pattern = false;  // the pattern is exactly this literal, nothing else
};

// The longest run of literal characters that every match of `pattern` (ECMAScript
// syntax) contains, or nothing when the pattern has none (a top-level alternation,
// classes only). Conservative: anything it does not understand ends a run.
std::optional<RequiredLiteral> required_literal(std::string_view pattern);

// Finds a needle in a haystack, ASCII-caselessly when asked.
class LiteralFinder {
 public:
  LiteralFinder(std::string needle, bool ignore_case);

  // Offset of the first occurrence at or after `from`, or npos.
  std::size_t find(std::string_view haystack, std::size_t from) const;
  std::size_t size() const { return needle_.size(); }

 private:
  std::string needle_;  // lower-cased when caseless
  bool ignore_case_;
  std::size_t rare_;  // index of the needle byte that is rarest in ordinary text
};

}  // namespace kx::search

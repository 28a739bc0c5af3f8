#pragma once
// The session's $[] registers: the values the last publishing command left behind
// (grep -p publishes one "path:line" per hit). Later commands refer to them as
// $[n] (one value, counted from 0), $[a..b] (a slice, both ends included) or $[..]
// (all of them); a slice expands to its values separated by single spaces.
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace kx::lang {

class RegisterSet {
 public:
  // Replaces every register with `values`.
  void publish(std::vector<std::string> values) {
    values_ = std::move(values);
    ++generation_;
  }
  void clear() {
    values_.clear();
    ++generation_;
  }
  // Grows with every publish or clear: tells whether a command published.
  std::uint64_t generation() const { return generation_; }

  std::size_t size() const { return values_.size(); }
  const std::vector<std::string>& values() const { return values_; }

  // The registers a selector names: "3", "1..4", "..", "2.." or "..5" (the text
  // between the brackets). Nothing when the selector is malformed or out of range.
  std::optional<std::vector<std::string>> select(std::string_view selector) const;

  // `text` with every well-formed, in-range $[...] replaced by its values; other
  // text, including selectors that name nothing and a turn's "turn(x).$[..]",
  // stays as written.
  std::string expand(std::string_view text) const;

 private:
  std::vector<std::string> values_;
  std::uint64_t generation_ = 0;
};

}  // namespace kx::lang

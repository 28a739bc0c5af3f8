#include "search/literal.hpp"

#include <cstring>
#include <vector>

namespace kx::search {
namespace {

bool is_quantifier_start(std::string_view p, std::size_t i) {
  if (i >= p.size()) return false;
  char c = p[i];
  if (c == '*' || c == '+' || c == '?') return true;
  if (c != '{') return false;
  // "{n}", "{n,}", "{n,m}"; any other brace is a literal.
  std::size_t j = i + 1;
  std::size_t digits = 0;
  while (j < p.size() && p[j] >= '0' && p[j] <= '9') ++j, ++digits;
  if (digits == 0) return false;
  if (j < p.size() && p[j] == ',') {
    ++j;
    while (j < p.size() && p[j] >= '0' && p[j] <= '9') ++j;
  }
  return j < p.size() && p[j] == '}';
}

// Whether the quantifier at `i` allows zero repetitions; `end` gets its end.
bool quantifier_allows_zero(std::string_view p, std::size_t i, std::size_t& end) {
  bool zero = p[i] == '*' || p[i] == '?';
  if (p[i] == '{') {
    std::size_t close = p.find('}', i);
    zero = p[i + 1] == '0' && (p[i + 2] == ',' || p[i + 2] == '}');
    end = close + 1;
  } else {
    end = i + 1;
  }
  if (end < p.size() && (p[end] == '?' || p[end] == '+')) ++end;  // lazy or possessive
  return zero;
}

// The end of the group or class opened at `i` ('(' or '['), or npos.
std::size_t skip_bracketed(std::string_view p, std::size_t i) {
  if (p[i] == '[') {
    std::size_t j = i + 1;
    if (j < p.size() && p[j] == '^') ++j;
    for (; j < p.size(); ++j) {
      if (p[j] == '\\')
        ++j;
      else if (p[j] == ']')
        return j + 1;
    }
    return std::string_view::npos;
  }
  int depth = 0;
  for (std::size_t j = i; j < p.size(); ++j) {
    if (p[j] == '\\') {
      ++j;
    } else if (p[j] == '[') {
      std::size_t end = skip_bracketed(p, j);
      if (end == std::string_view::npos) return end;
      j = end - 1;
    } else if (p[j] == '(') {
      ++depth;
    } else if (p[j] == ')' && --depth == 0) {
      return j + 1;
    }
  }
  return std::string_view::npos;
}

bool has_top_level_alternation(std::string_view p) {
  for (std::size_t i = 0; i < p.size(); ++i) {
    if (p[i] == '\\') {
      ++i;
    } else if (p[i] == '(' || p[i] == '[') {
      std::size_t end = skip_bracketed(p, i);
      if (end == std::string_view::npos) return true;
      i = end - 1;
    } else if (p[i] == '|') {
      return true;
    }
  }
  return false;
}

std::size_t utf8_length(unsigned char lead) {
  if (lead >= 0xF0) return 4;
  if (lead >= 0xE0) return 3;
  if (lead >= 0xC0) return 2;
  return 1;
}

// Rank of a byte's frequency in source code and prose: higher is more common.
int byte_rank(unsigned char c) {
  if (c == ' ' || c == 'e' || c == 't') return 255;
  if (c == 'a' || c == 'o' || c == 'i' || c == 'n' || c == 's' || c == 'r') return 240;
  if (c == '\n' || c == '\t' || c == 'l' || c == 'c' || c == 'd' || c == 'u' || c == 'h')
    return 220;
  if (c >= 'a' && c <= 'z') return 180;
  if (c == '_' || c == '(' || c == ')' || c == ';' || c == ',' || c == '.' || c == '*' ||
      c == '=' || c == '/' || c == '-' || c == '"')
    return 170;
  if (c >= 'A' && c <= 'Z') return 120;
  if (c >= '0' && c <= '9') return 130;
  if (c >= 0x80) return 60;
  return 100;
}

unsigned char ascii_lower(unsigned char c) {
  return c >= 'A' && c <= 'Z' ? c + 32 : c;
}

}  // namespace

std::optional<RequiredLiteral> required_literal(std::string_view p) {
  if (has_top_level_alternation(p)) return std::nullopt;
  std::string best, run;
  bool whole = true;
  std::size_t last_atom = std::string::npos;  // where the run's last character starts
  auto end_run = [&] {
    if (run.size() > best.size()) best = run;
    run.clear();
    last_atom = std::string::npos;
  };
  for (std::size_t i = 0; i < p.size();) {
    unsigned char c = static_cast<unsigned char>(p[i]);
    std::string atom;
    std::size_t next = i + 1;
    if (c == '\\') {
      if (i + 1 >= p.size()) return std::nullopt;  // a trailing backslash does not compile
      unsigned char e = static_cast<unsigned char>(p[i + 1]);
      next = i + 2;
      bool alnum = (e >= '0' && e <= '9') || (e >= 'a' && e <= 'z') || (e >= 'A' && e <= 'Z');
      if (!alnum && e < 0x80) atom = std::string(1, static_cast<char>(e));
    } else if (c == '[' || c == '(') {
      next = skip_bracketed(p, i);
      if (next == std::string_view::npos) return std::nullopt;
    } else if (c == '.' || c == '^' || c == '$' || c == ')' || c == ']' || c == '|') {
      // not a literal
    } else if (is_quantifier_start(p, i)) {
      std::size_t end = i + 1;
      bool zero = quantifier_allows_zero(p, i, end);
      if (zero && last_atom != std::string::npos) run.resize(last_atom);
      whole = false;
      end_run();
      i = end;
      continue;
    } else {
      next = i + utf8_length(c);
      atom = std::string(p.substr(i, next - i));
    }
    if (atom.empty()) {
      whole = false;
      end_run();
    } else {
      last_atom = run.size();
      run += atom;
    }
    i = next;
  }
  end_run();
  if (best.empty()) return std::nullopt;
  return RequiredLiteral{best, whole};
}

LiteralFinder::LiteralFinder(std::string needle, bool ignore_case)
    : needle_(std::move(needle)), ignore_case_(ignore_case), rare_(0) {
  if (ignore_case_)
    for (char& c : needle_) c = static_cast<char>(ascii_lower(static_cast<unsigned char>(c)));
  for (std::size_t i = 1; i < needle_.size(); ++i)
    if (byte_rank(static_cast<unsigned char>(needle_[i])) <
        byte_rank(static_cast<unsigned char>(needle_[rare_])))
      rare_ = i;
}

std::size_t LiteralFinder::find(std::string_view hay, std::size_t from) const {
  const std::size_t n = needle_.size();
  if (n == 0) return from <= hay.size() ? from : std::string_view::npos;
  if (hay.size() < n || from > hay.size() - n) return std::string_view::npos;
  const char* data = hay.data();
  const std::size_t last_start = hay.size() - n;
  const unsigned char rare = static_cast<unsigned char>(needle_[rare_]);
  if (!ignore_case_ || !(rare >= 'a' && rare <= 'z')) {
    // One byte to look for.
    std::size_t pos = from + rare_;
    while (pos <= last_start + rare_) {
      const void* hit = std::memchr(data + pos, rare, last_start + rare_ + 1 - pos);
      if (hit == nullptr) return std::string_view::npos;
      std::size_t at = static_cast<std::size_t>(static_cast<const char*>(hit) - data);
      std::size_t start = at - rare_;
      bool equal = true;
      if (!ignore_case_) {
        equal = std::memcmp(data + start, needle_.data(), n) == 0;
      } else {
        for (std::size_t k = 0; k < n && equal; ++k)
          equal = ascii_lower(static_cast<unsigned char>(data[start + k])) ==
                  static_cast<unsigned char>(needle_[k]);
      }
      if (equal) return start;
      pos = at + 1;
    }
    return std::string_view::npos;
  }
  // A letter in either case: two memchr streams, always advancing the earlier one.
  const unsigned char upper = rare - 32;
  const std::size_t limit = last_start + rare_ + 1;
  auto next_of = [&](unsigned char byte, std::size_t pos) -> std::size_t {
    if (pos >= limit) return limit;
    const void* hit = std::memchr(data + pos, byte, limit - pos);
    return hit ? static_cast<std::size_t>(static_cast<const char*>(hit) - data) : limit;
  };
  std::size_t lower_at = next_of(rare, from + rare_);
  std::size_t upper_at = next_of(upper, from + rare_);
  while (true) {
    std::size_t at = std::min(lower_at, upper_at);
    if (at >= limit) return std::string_view::npos;
    std::size_t start = at - rare_;
    bool equal = true;
    for (std::size_t k = 0; k < n && equal; ++k)
      equal = ascii_lower(static_cast<unsigned char>(data[start + k])) ==
              static_cast<unsigned char>(needle_[k]);
    if (equal) return start;
    if (at == lower_at)
      lower_at = next_of(rare, at + 1);
    else
      upper_at = next_of(upper, at + 1);
  }
}

}  // namespace kx::search

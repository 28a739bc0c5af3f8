#include "search/matcher.hpp"

#define PCRE2_CODE_UNIT_WIDTH 8
#include <pcre2.h>

#include <cstring>

namespace kx::search {

struct MatchScratch::Impl {
  pcre2_match_data* data = nullptr;
  pcre2_match_context* context = nullptr;
  pcre2_jit_stack* stack = nullptr;
};

MatchScratch::MatchScratch() : impl_(std::make_unique<Impl>()) {
  impl_->data = pcre2_match_data_create(1, nullptr);
  impl_->context = pcre2_match_context_create(nullptr);
  // Deeply nested patterns need more than the JIT's 32 KB default.
  impl_->stack = pcre2_jit_stack_create(32 * 1024, 1024 * 1024, nullptr);
  if (impl_->context && impl_->stack) pcre2_jit_stack_assign(impl_->context, nullptr, impl_->stack);
}

MatchScratch::~MatchScratch() {
  pcre2_match_data_free(impl_->data);
  pcre2_match_context_free(impl_->context);
  pcre2_jit_stack_free(impl_->stack);
}

namespace {

bool ascii_only(std::string_view text) {
  for (char c : text)
    if (static_cast<unsigned char>(c) >= 0x80) return false;
  return true;
}

// One match in `subject` from `offset`; the whole subject is the line for ^ and $.
std::optional<Span> run(const pcre2_code* code, std::string_view subject, std::size_t offset,
                        MatchScratch& scratch) {
  auto& s = scratch.impl();
  int rc = pcre2_match(code, reinterpret_cast<PCRE2_SPTR>(subject.data()), subject.size(), offset,
                       0, s.data, s.context);
  if (rc < 0) return std::nullopt;  // no match, or a resource limit: treated as no match
  PCRE2_SIZE* ovector = pcre2_get_ovector_pointer(s.data);
  return Span{ovector[0], ovector[1]};
}

}  // namespace

std::unique_ptr<Matcher> Matcher::compile(const std::string& pattern,
                                          const std::string& literal_hint, bool ignore_case,
                                          bool hint_is_whole, std::string& error) {
  // ECMAScript's dialect on PCRE2: \u and \x as JavaScript reads them, an unset
  // back-reference matches the empty string, "[]" and "[^]" are classes; \w, \d and
  // \b stay ASCII as in JavaScript. Invalid UTF-8 in the text never fails a match.
  std::uint32_t options = PCRE2_UTF | PCRE2_MATCH_INVALID_UTF | PCRE2_MULTILINE | PCRE2_ALT_BSUX |
                          PCRE2_MATCH_UNSET_BACKREF | PCRE2_ALLOW_EMPTY_CLASS |
                          PCRE2_NEVER_BACKSLASH_C;
  if (ignore_case) options |= PCRE2_CASELESS;
  pcre2_compile_context* context = pcre2_compile_context_create(nullptr);
  pcre2_set_compile_extra_options(context, PCRE2_EXTRA_ALT_BSUX);
  int code_error = 0;
  PCRE2_SIZE offset = 0;
  pcre2_code* code = pcre2_compile(reinterpret_cast<PCRE2_SPTR>(pattern.data()), pattern.size(),
                                   options, &code_error, &offset, context);
  pcre2_compile_context_free(context);
  if (code == nullptr) {
    PCRE2_UCHAR message[256];
    pcre2_get_error_message(code_error, message, sizeof message);
    error = "ERROR: bad pattern '" + pattern + "': " + reinterpret_cast<const char*>(message) +
            " at offset " + std::to_string(offset);
    return nullptr;
  }
  pcre2_jit_compile(code, PCRE2_JIT_COMPLETE);  // without JIT it still matches, slower

  std::unique_ptr<Matcher> matcher(new Matcher());
  matcher->code_ = code;
  matcher->may_look_around_ = pattern.find("(?=") != std::string::npos ||
                              pattern.find("(?!") != std::string::npos ||
                              pattern.find("(?<") != std::string::npos;
  if (auto literal = required_literal(literal_hint)) {
    // Caseless matching of non-ASCII text folds across byte lengths: no byte skip.
    if (!ignore_case || ascii_only(literal->text)) {
      matcher->literal_.emplace(literal->text, ignore_case);
      matcher->literal_is_match_ = literal->whole_pattern && hint_is_whole;
    }
  }
  return matcher;
}

Matcher::~Matcher() {
  pcre2_code_free(static_cast<pcre2_code*>(code_));
}

bool Matcher::line_holds_match(std::string_view line, MatchScratch& scratch) const {
  return run(static_cast<const pcre2_code*>(code_), line, 0, scratch).has_value();
}

std::optional<Span> Matcher::match_in_line(std::string_view line, std::size_t offset,
                                           MatchScratch& scratch) const {
  return run(static_cast<const pcre2_code*>(code_), line, offset, scratch);
}

std::optional<Span> Matcher::next_matching_line(std::string_view text, std::size_t from,
                                                MatchScratch& scratch) const {
  const char* data = text.data();
  auto line_around = [&](std::size_t at) {
    std::size_t begin = at;
    while (begin > from && data[begin - 1] != '\n') {
      // memrchr is not portable; lines are short, so a backward scan is cheap.
      --begin;
    }
    const void* nl = std::memchr(data + at, '\n', text.size() - at);
    std::size_t end =
        nl ? static_cast<std::size_t>(static_cast<const char*>(nl) - data) : text.size();
    return Span{begin, end};
  };
  while (from < text.size()) {
    std::optional<Span> line;
    if (literal_) {
      std::size_t at = literal_->find(text, from);
      if (at == std::string_view::npos) return std::nullopt;
      line = line_around(at);
      if (literal_is_match_ ||
          line_holds_match(text.substr(line->begin, line->end - line->begin), scratch))
        return line;
    } else {
      auto found = run(static_cast<const pcre2_code*>(code_), text, from, scratch);
      if (!found) return std::nullopt;
      // An empty match at the very end of the text is past the last line.
      if (found->begin == text.size() && (text.empty() || text.back() == '\n')) return std::nullopt;
      line = line_around(found->begin);
      bool inside = found->end <= line->end && !may_look_around_;
      if (inside || line_holds_match(text.substr(line->begin, line->end - line->begin), scratch))
        return line;
    }
    from = line->end + 1;
  }
  return std::nullopt;
}

}  // namespace kx::search

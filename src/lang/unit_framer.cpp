#include "lang/unit_framer.hpp"

#include "lang/text.hpp"

namespace kx::lang {
namespace {

constexpr std::string_view kCdataOpen = "<![CDATA[";
constexpr std::string_view kCdataClose = "]]>";

bool is_ident_start(char c) {
  return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || c == '_';
}
bool is_ident_char(char c) {
  return is_ident_start(c) || (c >= '0' && c <= '9');
}

std::string_view skip_blanks(std::string_view text) {
  std::size_t i = 0;
  while (i < text.size() && (text[i] == ' ' || text[i] == '\t')) ++i;
  return text.substr(i);
}

bool is_blank(std::string_view text) {
  return text.find_first_not_of(" \t\r\n") == std::string_view::npos;
}

}  // namespace

// Mirrors the scanner's first-word rules: a brace, a control word before "(" or
// "{", "script", action/promote calls, and assignments or increments.
bool starts_statement(std::string_view line) {
  line = skip_blanks(line);
  if (line.starts_with("{")) return true;
  std::size_t n = 0;
  while (n < line.size() && is_ident_char(line[n])) ++n;
  if (n == 0 || !is_ident_start(line[0])) return false;
  std::string_view word = line.substr(0, n);
  std::string_view rest = skip_blanks(line.substr(n));
  if (word == "script") return true;
  if ((word == "if" || word == "while" || word == "do" || word == "for") &&
      (rest.starts_with("(") || rest.starts_with("{")))
    return true;
  if ((word == "action" || word == "promote") && rest.starts_with("(")) return true;
  if (rest.starts_with("++") || rest.starts_with("--")) return true;
  return rest.size() >= 2 && rest[0] == '=' && rest[1] != '=' && rest[1] != '~';
}

void UnitFramer::add(std::string_view bytes) {
  pending_.append(bytes);
}

void UnitFramer::scan_line(std::string_view line) {
  if (first_line_) {
    statement_ = starts_statement(line);
    first_line_ = false;
  }
  bool in_string = false;
  for (std::size_t i = 0; i < line.size(); ++i) {
    if (in_cdata_) {
      std::size_t close = line.find(kCdataClose, i);
      if (close == std::string_view::npos) return;
      in_cdata_ = false;
      i = close + kCdataClose.size() - 1;
      continue;
    }
    char c = line[i];
    if (line.substr(i).starts_with(kCdataOpen)) {
      in_cdata_ = true;
      i += kCdataOpen.size() - 1;
      continue;
    }
    if (!statement_) continue;
    if (in_string) {
      if (c == '\\')
        ++i;
      else if (c == '"')
        in_string = false;
      continue;
    }
    if (c == '"')
      in_string = true;
    else if (c == '{')
      ++brace_depth_;
    else if (c == '}' && brace_depth_ > 0)
      --brace_depth_;
  }
}

std::optional<std::string> UnitFramer::take(std::size_t end) {
  std::string unit = pending_.substr(unit_start_, end - unit_start_);
  unit_start_ = end;
  first_line_ = true;
  statement_ = false;
  in_cdata_ = false;
  brace_depth_ = 0;
  // Drop what is consumed once it outweighs what is left, keeping appends cheap.
  if (unit_start_ > pending_.size() / 2) {
    pending_.erase(0, unit_start_);
    scanned_ -= unit_start_;
    unit_start_ = 0;
  }
  return unit;
}

std::optional<std::string> UnitFramer::next() {
  for (;;) {
    std::size_t newline = pending_.find('\n', scanned_);
    if (newline == std::string::npos) return std::nullopt;
    scan_line(std::string_view(pending_).substr(scanned_, newline - scanned_));
    scanned_ = newline + 1;
    if (in_cdata_ || brace_depth_ > 0) continue;
    auto unit = take(scanned_);
    if (!is_blank(*unit)) return unit;
  }
}

std::optional<std::string> UnitFramer::finish() {
  if (auto unit = next()) return unit;
  if (unit_start_ >= pending_.size()) return std::nullopt;
  auto unit = take(pending_.size());
  scanned_ = unit_start_;
  if (is_blank(*unit)) return std::nullopt;
  return unit;
}

}  // namespace kx::lang

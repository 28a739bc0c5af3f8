#include "lang/text.hpp"

#include <algorithm>
#include <cctype>
#include <charconv>

namespace kx::lang {
namespace {
bool is_blank(char c) {
  return c == ' ' || c == '\t' || c == '\r' || c == '\n';
}
}  // namespace

std::string_view trim(std::string_view text) {
  while (!text.empty() && is_blank(text.front())) text.remove_prefix(1);
  while (!text.empty() && is_blank(text.back())) text.remove_suffix(1);
  return text;
}

std::string_view first_word(std::string_view text) {
  return text.substr(0, text.find_first_of(" \t"));
}

std::pair<std::string_view, std::string_view> split_first_word(std::string_view text) {
  std::size_t cut = text.find_first_of(" \t");
  if (cut == std::string_view::npos) return {text, {}};
  std::string_view rest = text.substr(cut);
  while (!rest.empty() && (rest.front() == ' ' || rest.front() == '\t')) rest.remove_prefix(1);
  return {text.substr(0, cut), rest};
}

std::vector<std::string_view> split_words(std::string_view text) {
  std::vector<std::string_view> words;
  std::size_t i = 0;
  while (i < text.size()) {
    while (i < text.size() && is_blank(text[i])) ++i;
    std::size_t start = i;
    while (i < text.size() && !is_blank(text[i])) ++i;
    if (i > start) words.push_back(text.substr(start, i - start));
  }
  return words;
}

std::string to_lower(std::string_view text) {
  std::string out(text);
  std::transform(out.begin(), out.end(), out.begin(),
                 [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  return out;
}

bool is_integer(std::string_view text) {
  if (text.starts_with('-')) text.remove_prefix(1);
  return !text.empty() && std::all_of(text.begin(), text.end(),
                                      [](unsigned char c) { return std::isdigit(c) != 0; });
}

std::optional<std::uint64_t> parse_unsigned(std::string_view text) {
  std::uint64_t value = 0;
  auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), value);
  if (text.empty() || ec != std::errc() || end != text.data() + text.size()) return std::nullopt;
  return value;
}

bool glob_match(std::string_view pattern, std::string_view text) {
  std::size_t p = 0, t = 0, star = std::string_view::npos, resume = 0;
  while (t < text.size()) {
    if (p < pattern.size() && (pattern[p] == '?' || pattern[p] == text[t])) {
      ++p;
      ++t;
    } else if (p < pattern.size() && pattern[p] == '*') {
      star = p++;
      resume = t;
    } else if (star != std::string_view::npos) {
      p = star + 1;
      t = ++resume;
    } else {
      return false;
    }
  }
  while (p < pattern.size() && pattern[p] == '*') ++p;
  return p == pattern.size();
}

Utf8Step utf8_step(std::string_view text, std::size_t pos) {
  auto byte = [&](std::size_t i) { return static_cast<unsigned char>(text[i]); };
  unsigned char lead = byte(pos);
  if (lead < 0x80) return {true, 1};
  std::size_t length = lead >= 0xC2 && lead <= 0xDF   ? 2
                       : lead >= 0xE0 && lead <= 0xEF ? 3
                       : lead >= 0xF0 && lead <= 0xF4 ? 4
                                                      : 0;
  if (length == 0) return {false, 1};
  // The second byte's range rules out overlong forms, UTF-16 halves and values
  // past U+10FFFF; later bytes are plain continuation bytes.
  unsigned char low = lead == 0xE0 ? 0xA0 : lead == 0xF0 ? 0x90 : 0x80;
  unsigned char high = lead == 0xED ? 0x9F : lead == 0xF4 ? 0x8F : 0xBF;
  for (std::size_t k = 1; k < length; ++k) {
    if (pos + k >= text.size()) return {false, k};
    unsigned char c = byte(pos + k);
    if (k == 1 ? (c < low || c > high) : (c & 0xC0) != 0x80) return {false, k};
  }
  return {true, length};
}

std::string valid_utf8(std::string_view text) {
  std::string out;
  out.reserve(text.size());
  for (std::size_t i = 0; i < text.size();) {
    Utf8Step step = utf8_step(text, i);
    if (step.valid)
      out.append(text.substr(i, step.length));
    else
      out += "\xEF\xBF\xBD";
    i += step.length;
  }
  return out;
}

std::string json_quoted(std::string_view text) {
  std::string out = "\"";
  for (unsigned char c : text) {
    switch (c) {
      case '"':
        out += "\\\"";
        break;
      case '\\':
        out += "\\\\";
        break;
      case '\n':
        out += "\\n";
        break;
      case '\r':
        out += "\\r";
        break;
      case '\t':
        out += "\\t";
        break;
      default:
        if (c < 0x20) {
          static constexpr char kHex[] = "0123456789abcdef";
          out += "\\u00";
          out += kHex[c >> 4];
          out += kHex[c & 0xF];
        } else {
          out += static_cast<char>(c);
        }
    }
  }
  return out + "\"";
}

namespace {

std::string escape_controls(std::string_view text, bool keep_layout) {
  std::string out;
  out.reserve(text.size());
  for (unsigned char c : text) {
    if ((c >= 0x20 && c != 0x7f) || (keep_layout && (c == '\n' || c == '\t'))) {
      out += static_cast<char>(c);
    } else if (c == '\n') {
      out += "\\n";
    } else if (c == '\r') {
      out += "\\r";
    } else if (c == '\t') {
      out += "\\t";
    } else {
      static constexpr char kHex[] = "0123456789abcdef";
      out += "\\x";
      out += kHex[c >> 4];
      out += kHex[c & 0xf];
    }
  }
  return out;
}

}  // namespace

std::string printable(std::string_view text) {
  return escape_controls(text, false);
}

std::string printable_lines(std::string_view text) {
  return escape_controls(text, true);
}

}  // namespace kx::lang

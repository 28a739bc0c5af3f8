#include "vfs/args.hpp"

#include <cctype>

namespace kst {
namespace {

bool is_blank(char c) {
  return c == ' ' || c == '\t' || c == '\n' || c == '\r';
}

bool is_tag_char(char c) {
  return std::isalnum(static_cast<unsigned char>(c)) || c == '_' || c == '-';
}

// At text[pos] == '<': the tag name when an element starts here, else "".
std::string opening_tag(std::string_view text, std::size_t pos) {
  std::size_t end = pos + 1;
  while (end < text.size() && is_tag_char(text[end])) ++end;
  if (end == pos + 1 || end >= text.size() || text[end] != '>') return "";
  return std::string(text.substr(pos + 1, end - pos - 1));
}

}  // namespace

std::optional<std::string> Args::element(std::string_view tag) const {
  for (const auto& [name, text] : elements)
    if (name == tag) return text;
  return std::nullopt;
}

std::optional<std::string> Args::get(std::string_view tag, std::size_t index) const {
  if (auto e = element(tag)) return e;
  if (index < words.size()) return words[index];
  return std::nullopt;
}

std::optional<Args> parse_args(std::string_view text, std::string& error) {
  Args args;
  std::size_t pos = 0;
  while (pos < text.size()) {
    if (is_blank(text[pos])) {
      ++pos;
      continue;
    }
    if (text[pos] == '<') {
      std::string tag = opening_tag(text, pos);
      if (!tag.empty()) {
        std::size_t body = pos + tag.size() + 2;
        std::string close = "</" + tag + ">";
        std::string value;
        std::size_t after = 0;
        if (text.substr(body).starts_with("<![CDATA[")) {
          std::size_t cdata_end = text.find("]]>", body + 9);
          if (cdata_end == std::string_view::npos) {
            error = "unterminated <![CDATA[ in <" + tag + ">";
            return std::nullopt;
          }
          value = std::string(text.substr(body + 9, cdata_end - body - 9));
          std::size_t rest = cdata_end + 3;
          while (rest < text.size() && is_blank(text[rest])) ++rest;
          if (text.substr(rest, close.size()) != close) {
            error = "missing " + close;
            return std::nullopt;
          }
          after = rest + close.size();
        } else {
          std::size_t end = text.find(close, body);
          if (end == std::string_view::npos) {
            error = "missing " + close;
            return std::nullopt;
          }
          value = std::string(text.substr(body, end - body));
          after = end + close.size();
        }
        args.elements.emplace_back(tag, std::move(value));
        pos = after;
        continue;
      }
    }
    if (text[pos] == '"' || text[pos] == '\'') {
      char quote = text[pos];
      std::size_t end = text.find(quote, pos + 1);
      if (end == std::string_view::npos) {
        error = std::string("unterminated ") + quote + " quote";
        return std::nullopt;
      }
      args.words.emplace_back(text.substr(pos + 1, end - pos - 1));
      pos = end + 1;
      continue;
    }
    std::size_t end = pos;
    while (end < text.size() && !is_blank(text[end])) ++end;
    args.words.emplace_back(text.substr(pos, end - pos));
    pos = end;
  }
  return args;
}

std::string too_many_names(std::string_view usage, std::string_view verb,
                           const std::vector<std::string>& given,
                           const std::vector<std::string_view>& tags) {
  std::vector<std::string> names;
  for (std::size_t i = 0; i < given.size(); ++i) {
    if (i < tags.size())
      names.push_back(given[i]);
    else
      names.back() += " " + given[i];
  }
  std::string quoted = std::string(verb), elements = std::string(verb) + " ";
  for (std::size_t i = 0; i < names.size(); ++i) {
    quoted += " \"" + names[i] + "\"";
    elements += "<" + std::string(tags[i]) + ">" + names[i] + "</" + std::string(tags[i]) + ">";
  }
  return std::string(usage) + "\n  " + std::to_string(given.size()) + " names given where " +
         std::to_string(tags.size()) + (tags.size() == 1 ? " is" : " are") +
         " taken — quote a name with blanks, or give it as an element:\n    " + quoted + "\n    " +
         elements;
}

}  // namespace kst

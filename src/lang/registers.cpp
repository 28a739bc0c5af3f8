#include "lang/registers.hpp"

#include <cstdint>

#include "lang/text.hpp"

namespace kx::lang {
namespace {

std::optional<std::size_t> parse_index(std::string_view text) {
  auto value = parse_unsigned(text);
  if (!value || *value > SIZE_MAX) return std::nullopt;
  return static_cast<std::size_t>(*value);
}

}  // namespace

std::optional<std::vector<std::string>> RegisterSet::select(std::string_view selector) const {
  std::size_t dots = selector.find("..");
  if (dots == std::string_view::npos) {
    auto index = parse_index(selector);
    if (!index || *index >= values_.size()) return std::nullopt;
    return std::vector<std::string>{values_[*index]};
  }
  if (values_.empty()) return std::nullopt;
  std::string_view from_text = selector.substr(0, dots);
  std::string_view to_text = selector.substr(dots + 2);
  auto from = from_text.empty() ? std::optional<std::size_t>(0) : parse_index(from_text);
  auto to = to_text.empty() ? std::optional<std::size_t>(values_.size() - 1) : parse_index(to_text);
  if (!from || !to || *from > *to || *to >= values_.size()) return std::nullopt;
  return std::vector<std::string>(values_.begin() + static_cast<std::ptrdiff_t>(*from),
                                  values_.begin() + static_cast<std::ptrdiff_t>(*to) + 1);
}

std::string RegisterSet::expand(std::string_view text) const {
  std::string out;
  std::size_t pos = 0;
  while (pos < text.size()) {
    std::size_t open = text.find("$[", pos);
    std::size_t close = open == std::string_view::npos ? open : text.find(']', open + 2);
    if (close == std::string_view::npos) break;
    out.append(text.substr(pos, open - pos));
    // "turn(x).$[..]" names another turn's values: the action that takes it reads them.
    bool names_a_turn = open >= 2 && text.substr(open - 2, 2) == ").";
    std::optional<std::vector<std::string>> chosen;
    if (!names_a_turn) chosen = select(text.substr(open + 2, close - open - 2));
    if (chosen) {
      for (std::size_t i = 0; i < chosen->size(); ++i) {
        if (i > 0) out += ' ';
        out += (*chosen)[i];
      }
    } else {
      out.append(text.substr(open, close + 1 - open));
    }
    pos = close + 1;
  }
  out.append(text.substr(std::min(pos, text.size())));
  return out;
}

}  // namespace kx::lang

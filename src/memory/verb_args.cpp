#include "memory/verb_args.hpp"

#include <cstdint>

namespace kx::memory {

std::string_view trim(std::string_view s) {
  constexpr std::string_view space = " \t\r\n";
  const auto first = s.find_first_not_of(space);
  if (first == std::string_view::npos) return {};
  return s.substr(first, s.find_last_not_of(space) - first + 1);
}

std::vector<std::string> split_args(std::string_view args, std::size_t max_fields) {
  std::vector<std::string> fields;
  if (trim(args).empty() || max_fields == 0) return fields;
  const auto comma = args.find(',');
  const auto bar = args.find('|');
  const char separator = bar < comma ? '|' : ',';
  while (fields.size() + 1 < max_fields) {
    const auto at = args.find(separator);
    if (at == std::string_view::npos) break;
    fields.emplace_back(trim(args.substr(0, at)));
    args.remove_prefix(at + 1);
  }
  fields.emplace_back(trim(args));
  return fields;
}

std::vector<std::string> split_list(std::string_view field, std::string_view separators) {
  std::vector<std::string> out;
  while (!field.empty()) {
    const auto at = field.find_first_of(separators);
    const std::string_view item = trim(field.substr(0, at));
    if (!item.empty()) out.emplace_back(item);
    if (at == std::string_view::npos) break;
    field.remove_prefix(at + 1);
  }
  return out;
}

std::uint32_t parse_position(std::string_view text) {
  text = trim(text);
  if (text.empty() || text.size() > 9) return 0;
  std::uint32_t n = 0;
  for (char c : text) {
    if (c < '0' || c > '9') return 0;
    n = n * 10 + static_cast<std::uint32_t>(c - '0');
  }
  return n;
}

}  // namespace kx::memory

#include "memory/memo_props.hpp"

namespace kx::memory {
namespace {

std::string_view trim(std::string_view s) {
  while (!s.empty() && (s.front() == ' ' || s.front() == '\t')) s.remove_prefix(1);
  while (!s.empty() && (s.back() == ' ' || s.back() == '\t')) s.remove_suffix(1);
  return s;
}

}  // namespace

const std::vector<MemoProperty>& memo_properties() {
  static const std::vector<MemoProperty> table = [] {
    const char* names[] = {"procedure",  "history",  "preference", "note",     "example",
                           "foundation", "protocol", "usage",      "decision", "constraint",
                           "reference",  "state",    "lesson",     "warning",  "design",
                           "todo",       "temporal"};
    std::vector<MemoProperty> out;
    std::uint32_t bit = 1;
    for (const char* name : names) {
      out.push_back({name, bit});
      bit <<= 1;
    }
    return out;
  }();
  return table;
}

const std::string& advertised_property_names() {
  static const std::string joined = [] {
    std::string out;
    const auto& table = memo_properties();
    for (std::size_t i = 0; i + 1 < table.size(); ++i) {
      if (i > 0) out += '|';
      out += table[i].name;
    }
    return out;
  }();
  return joined;
}

std::optional<std::uint32_t> parse_props(std::string_view text, std::string& unknown) {
  std::uint32_t bits = 0;
  while (true) {
    const std::size_t bar = text.find('|');
    const std::string_view name = trim(text.substr(0, bar));
    if (!name.empty()) {
      bool found = false;
      for (const MemoProperty& prop : memo_properties()) {
        if (prop.name == name) {
          bits |= prop.bit;
          found = true;
          break;
        }
      }
      if (!found) {
        unknown = std::string(name);
        return std::nullopt;
      }
    }
    if (bar == std::string_view::npos) break;
    text.remove_prefix(bar + 1);
  }
  return bits;
}

std::string props_to_text(std::uint32_t flags) {
  std::string out;
  for (const MemoProperty& prop : memo_properties()) {
    if ((flags & prop.bit) == 0) continue;
    if (!out.empty()) out += '|';
    out += prop.name;
  }
  return out.empty() ? "untyped" : out;
}

}  // namespace kx::memory

#include "memory/context_dir.hpp"

#include <cstdint>
#include <cstdio>

namespace kx::memory {
namespace {

constexpr std::size_t kMaxPartBytes = 96;

std::uint64_t fnv1a64(std::string_view s) {
  std::uint64_t hash = 0xcbf29ce484222325ULL;
  for (unsigned char c : s) {
    hash ^= c;
    hash *= 0x100000001b3ULL;
  }
  return hash;
}

bool kept_as_is(char c, bool first) {
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '_' ||
         c == '-' || (c == '.' && !first);
}

}  // namespace

std::string escape_name_part(std::string_view name) {
  std::string out;
  for (std::size_t i = 0; i < name.size(); ++i) {
    const char c = name[i];
    if (kept_as_is(c, i == 0)) {
      out += c;
    } else {
      char hex[4];
      std::snprintf(hex, sizeof hex, "%%%02X", static_cast<unsigned char>(c));
      out += hex;
    }
  }
  // Windows drops a trailing dot from file names; keep names distinct there too.
  if (!out.empty() && out.back() == '.') out.replace(out.size() - 1, 1, "%2E");
  if (out.empty()) out = "%";
  if (out.size() > kMaxPartBytes) {
    char hash[24];
    std::snprintf(hash, sizeof hash, "~%016llx", static_cast<unsigned long long>(fnv1a64(name)));
    out.resize(kMaxPartBytes - 17);
    while (!out.empty() && (out.back() == '%' || (out.size() >= 2 && out[out.size() - 2] == '%')))
      out.pop_back();  // never cut an escape in half
    out += hash;
  }
  return out;
}

std::optional<std::string> unescape_name_part(std::string_view part) {
  if (part == "%") return std::string();
  std::string out;
  for (std::size_t i = 0; i < part.size(); ++i) {
    if (part[i] != '%') {
      if (part[i] == '~') return std::nullopt;  // a long name cut to its hash
      out += part[i];
      continue;
    }
    const std::string hex(part.substr(i + 1, 2));
    if (hex.size() != 2 || hex.find_first_not_of("0123456789ABCDEF") != std::string::npos)
      return std::nullopt;
    out += static_cast<char>(std::stoi(hex, nullptr, 16));
    i += 2;
  }
  if (escape_name_part(out) != part) return std::nullopt;
  return out;
}

std::string bot_dir_prefix(std::string_view bot) {
  return escape_name_part(bot) + "@";
}

std::string context_dir_name(std::string_view bot, std::string_view context) {
  return bot_dir_prefix(bot) + escape_name_part(context);
}

}  // namespace kx::memory

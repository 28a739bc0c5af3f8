#include "server/json_escape.hpp"

namespace kx::server {

std::string json_escape(std::string_view text) {
  static constexpr char kHex[] = "0123456789abcdef";
  std::string out;
  out.reserve(text.size() + 8);
  for (char c : text) {
    auto byte = static_cast<unsigned char>(c);
    if (c == '"' || c == '\\') {
      out += '\\';
      out += c;
    } else if (c == '\n') {
      out += "\\n";
    } else if (c == '\r') {
      continue;
    } else if (byte < 0x20) {
      out += "\\u00";
      out += kHex[byte >> 4];
      out += kHex[byte & 0xf];
    } else {
      out += c;
    }
  }
  return out;
}

std::string json_string(std::string_view text) {
  // Built by appending: GCC 12 at -O3 warns falsely on "literal" + std::string.
  std::string out;
  out.reserve(text.size() + 10);
  out += '"';
  out += json_escape(text);
  out += '"';
  return out;
}

}  // namespace kx::server

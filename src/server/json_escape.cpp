#include "server/json_escape.hpp"

#include "lang/text.hpp"

namespace kx::server {

std::string json_escape(std::string_view text) {
  static constexpr char kHex[] = "0123456789abcdef";
  std::string out;
  out.reserve(text.size() + 8);
  for (std::size_t i = 0; i < text.size(); ++i) {
    char c = text[i];
    auto byte = static_cast<unsigned char>(c);
    if (byte >= 0x80) {
      lang::Utf8Step step = lang::utf8_step(text, i);
      if (step.valid)
        out.append(text.substr(i, step.length));
      else
        out += "\\ufffd";
      i += step.length - 1;
    } else if (c == '"' || c == '\\') {
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

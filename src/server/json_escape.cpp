#include "server/json_escape.hpp"

#include <array>
#include <cstdint>
#include <cstring>

#include "lang/text.hpp"

namespace kx::server {
namespace {

// Bytes that go out as they are: printable ASCII but for '"' and '\'. Answers of
// hundreds of kilobytes are mostly such runs, so each run is appended at once.
constexpr std::array<bool, 256> kPlain = [] {
  std::array<bool, 256> plain{};
  for (int b = 0x20; b < 0x80; ++b) plain[b] = b != '"' && b != '\\';
  return plain;
}();

// Whether all eight bytes at `p` are plain, tested together: a byte below 0x20,
// at or above 0x80, or equal to '"' or '\\' sets its top bit in `special`.
bool plain_word(const char* p) {
  constexpr std::uint64_t kOnes = 0x0101010101010101ULL;
  constexpr std::uint64_t kHigh = 0x8080808080808080ULL;
  std::uint64_t word;
  std::memcpy(&word, p, 8);
  auto has_zero = [&](std::uint64_t x) { return (x - kOnes) & ~x & kHigh; };
  const std::uint64_t below_space = (word - kOnes * 0x20) & ~word & kHigh;
  const std::uint64_t special = below_space | (word & kHigh) | has_zero(word ^ (kOnes * '"')) |
                                has_zero(word ^ (kOnes * '\\'));
  return special == 0;
}

}  // namespace

void append_json_escaped(std::string& out, std::string_view text) {
  static constexpr char kHex[] = "0123456789abcdef";
  const std::size_t size = text.size();
  std::size_t i = 0;
  while (i < size) {
    std::size_t run = i;
    while (run + 8 <= size && plain_word(text.data() + run)) run += 8;
    while (run < size && kPlain[static_cast<unsigned char>(text[run])]) ++run;
    out.append(text.data() + i, run - i);
    if (run == size) break;
    i = run;
    char c = text[i];
    auto byte = static_cast<unsigned char>(c);
    if (byte >= 0x80) {
      lang::Utf8Step step = lang::utf8_step(text, i);
      if (step.valid)
        out.append(text.data() + i, step.length);
      else
        out += "\\ufffd";
      i += step.length;
      continue;
    }
    if (c == '"' || c == '\\') {
      out += '\\';
      out += c;
    } else if (c == '\n') {
      out += "\\n";
    } else if (c != '\r') {
      out += "\\u00";
      out += kHex[byte >> 4];
      out += kHex[byte & 0xf];
    }
    ++i;
  }
}

void append_json_string(std::string& out, std::string_view text) {
  out += '"';
  append_json_escaped(out, text);
  out += '"';
}

std::string json_escape(std::string_view text) {
  std::string out;
  out.reserve(text.size() + 8);
  append_json_escaped(out, text);
  return out;
}

std::string json_string(std::string_view text) {
  std::string out;
  out.reserve(text.size() + 10);
  append_json_string(out, text);
  return out;
}

}  // namespace kx::server

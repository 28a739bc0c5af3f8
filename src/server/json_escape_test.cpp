#include "server/json_escape.hpp"

#include <gtest/gtest.h>

#include <nlohmann/json.hpp>
#include <random>

#include "lang/text.hpp"

namespace kx::server {

TEST(JsonEscape, CarriageReturnIsDroppedSoCrLfBecomesOneEscapedLineFeed) {
  EXPECT_EQ(json_escape(std::string("a\r\nb")), "a\\nb");
}

TEST(JsonEscape, OtherControlBytesUseLowerCaseUnicodeEscapes) {
  EXPECT_EQ(json_escape("\t"), "\\u0009");
  EXPECT_EQ(json_escape(std::string("\x1f\x01", 2)), "\\u001f\\u0001");
  EXPECT_EQ(json_escape(std::string(1, '\0')), "\\u0000");
}

TEST(JsonEscape, QuotesAndBackslashesGetABackslashAndUtf8PassesUnchanged) {
  EXPECT_EQ(json_escape("say \"hi\" \\ o/"), "say \\\"hi\\\" \\\\ o/");
  EXPECT_EQ(json_escape("Grüße — ✓"), "Grüße — ✓");
  EXPECT_EQ(json_string("x"), "\"x\"");
}

TEST(JsonEscape, BrokenUtf8IsWrittenAsReplacementEscapesSoStrictReadersAccept) {
  EXPECT_EQ(json_escape("a\xff\xfe\xC3\xA9\xE2\x9C"), "a\\ufffd\\ufffd\xC3\xA9\\ufffd");
  auto parsed = nlohmann::json::parse(json_string("name\xC0\xAF.txt"));
  EXPECT_EQ(parsed.get<std::string>(), "name\xEF\xBF\xBD\xEF\xBF\xBD.txt");
}

// Byte at a time, as the rules above read: what the word-wide scan must match.
std::string escaped_byte_by_byte(std::string_view text) {
  std::string out;
  for (std::size_t i = 0; i < text.size();) {
    auto byte = static_cast<unsigned char>(text[i]);
    if (byte >= 0x80) {
      lang::Utf8Step step = lang::utf8_step(text, i);
      out += step.valid ? std::string(text.substr(i, step.length)) : "\\ufffd";
      i += step.length;
      continue;
    }
    if (byte == '"' || byte == '\\')
      out += '\\', out += static_cast<char>(byte);
    else if (byte == '\n')
      out += "\\n";
    else if (byte < 0x20 && byte != '\r')
      out += "\\u00", out += "0123456789abcdef"[byte >> 4], out += "0123456789abcdef"[byte & 0xf];
    else if (byte >= 0x20)
      out += static_cast<char>(byte);
    ++i;
  }
  return out;
}

TEST(JsonEscape, EveryByteValueAtEveryPlaceInAWordIsEscapedAsAlone) {
  // Each byte value at each of the offsets a word-wide scan can see it, among
  // plain text on both sides, then long random mixes.
  for (int value = 0; value < 256; ++value)
    for (std::size_t at = 0; at < 17; ++at) {
      std::string text(24, 'x');
      text[at] = static_cast<char>(value);
      ASSERT_EQ(json_escape(text), escaped_byte_by_byte(text)) << value << " at " << at;
    }
  std::mt19937 random(7);
  const std::string alphabet =
      std::string("abc \"\\\n\r\t\x01\x1f\x7f ~") + "\xC3\xA9\xE2\x9C\x93\xff";
  for (int round = 0; round < 200; ++round) {
    std::string text;
    for (std::size_t n = random() % 200; n > 0; --n) text += alphabet[random() % alphabet.size()];
    ASSERT_EQ(json_escape(text), escaped_byte_by_byte(text)) << round;
  }
  std::string body = "{";
  append_json_string(body, "a\"b");
  EXPECT_EQ(body, "{\"a\\\"b\"");
}

}  // namespace kx::server

#include "server/json_escape.hpp"

#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

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

}  // namespace kx::server

#pragma once
// Small text helpers shared by the interpreter's modules.
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace kx::lang {

std::string_view trim(std::string_view text);

// The text up to the first space or tab.
std::string_view first_word(std::string_view text);

// Cuts at the first space or tab: {head, rest with leading blanks removed}.
std::pair<std::string_view, std::string_view> split_first_word(std::string_view text);

// Words separated by blanks (spaces, tabs, newlines).
std::vector<std::string_view> split_words(std::string_view text);

std::string to_lower(std::string_view text);

bool is_integer(std::string_view text);

// Decimal digits only, no sign or blanks, within range; nothing otherwise.
std::optional<std::uint64_t> parse_unsigned(std::string_view text);

// Whole-text match with '*' (any run) and '?' (one byte); linear time, one
// backtrack point.
bool glob_match(std::string_view pattern, std::string_view text);

// `text` safe to print on a terminal: control bytes (below 0x20, and 0x7f) become
// escapes (\n, \r, \t, \xNN) and a backslash stays as it is. A name shown this way
// can never move the cursor, retitle a terminal or start a forged line.
std::string printable(std::string_view text);

// A multi-line result made safe to print: as printable(), but line breaks and tabs,
// which lay out listings, stay. Names inside such a result go through printable()
// first, so that a newline in a name cannot start a forged line.
std::string printable_lines(std::string_view text);

// How much of `text` from `pos` is one UTF-8 character: `valid` with its length, or
// not valid with the length of the broken run (the longest prefix of a well-formed
// sequence, at least one byte) that stands for one U+FFFD. Overlong forms, UTF-16
// halves and code points past U+10FFFF are broken too.
struct Utf8Step {
  bool valid;
  std::size_t length;
};
Utf8Step utf8_step(std::string_view text, std::size_t pos);

// `text` with every broken run replaced by U+FFFD; valid text comes back unchanged.
std::string valid_utf8(std::string_view text);

// `text` as a JSON string literal, quotes included: '"' and '\\' escaped, control
// bytes as \n, \r, \t or \u00XX. Nothing is dropped.
std::string json_quoted(std::string_view text);

}  // namespace kx::lang

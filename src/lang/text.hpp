#pragma once
// Small text helpers shared by the interpreter's modules.
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

// Whole-text match with '*' (any run) and '?' (one byte); linear time, one
// backtrack point.
bool glob_match(std::string_view pattern, std::string_view text);

// `text` as a JSON string literal, quotes included: '"' and '\\' escaped, control
// bytes as \n, \r, \t or \u00XX. Nothing is dropped.
std::string json_quoted(std::string_view text);

}  // namespace kx::lang

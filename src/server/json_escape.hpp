#pragma once
// The one JSON string escaper. JSON answers are built by joining literal fragments
// with escaped values; there is no object model on the writing side.
#include <string>
#include <string_view>

namespace kx::server {

// Escapes `text` for use inside a JSON string: '"' and '\' get a backslash, LF
// becomes \n, CR is dropped (so CR LF ends up as one \n), every other byte below
// 0x20 becomes \u00xx in lower-case hex; all other bytes, UTF-8 included, pass.
std::string json_escape(std::string_view text);

// "\"" + json_escape(text) + "\"".
std::string json_string(std::string_view text);

}  // namespace kx::server

#pragma once
// The one JSON string escaper. JSON answers are built by joining literal fragments
// with escaped values; there is no object model on the writing side.
#include <string>
#include <string_view>

namespace kx::server {

// Escapes `text` for use inside a JSON string: '"' and '\' get a backslash, LF
// becomes \n, CR is dropped (so CR LF ends up as one \n), every other byte below
// 0x20 becomes \u00xx in lower-case hex; well-formed UTF-8 passes as it is. Bytes
// that are not well-formed UTF-8 are written as \ufffd (one per broken run, as
// lang::valid_utf8 cuts them), so every answer parses under a strict JSON reader.
std::string json_escape(std::string_view text);

// "\"" + json_escape(text) + "\"".
std::string json_string(std::string_view text);

// The same, appended to `out`: large answers are escaped straight into their body.
void append_json_escaped(std::string& out, std::string_view text);
void append_json_string(std::string& out, std::string_view text);

}  // namespace kx::server

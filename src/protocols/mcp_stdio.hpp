#pragma once
// MCP over standard input and output: newline-delimited JSON-RPC, one message per
// line. Standard output carries replies and nothing else.
#include <functional>
#include <string>
#include <string_view>

namespace kx::protocols {

// Reads lines until end of input, hands each non-empty one (trailing CR and LF
// removed) to `handle`, and writes a non-empty answer followed by one line feed.
// Returns 0 at end of input.
int serve_stdio(const std::function<std::string(std::string_view message)>& handle);

}  // namespace kx::protocols

#pragma once
// The MCP message handler: one JSON-RPC 2.0 message in, one reply out ("" for a
// notification or a client's response). The stdio and HTTP transports share it.
#include <string>
#include <string_view>

#include "protocols/mcp_tools.hpp"

namespace kx::protocols {

// Protocol revisions echoed when a client asks for them; anything else gets the first.
inline constexpr const char* kProtocolVersions[] = {"2025-11-25", "2025-06-18", "2025-03-26",
                                                    "2024-11-05"};
bool is_supported_protocol_version(std::string_view version);

// resources/list answers this many entries per page; the cursor is the decimal
// index of the next entry.
inline constexpr std::size_t kResourcePage = 100;
// completion/complete answers at most this many values.
inline constexpr std::size_t kMaxCompletions = 100;

class McpServer {
 public:
  explicit McpServer(ToolHost host) : host_(std::move(host)) {}

  // Handles one message (an object or a batch array). Thread-safe when the host is.
  std::string handle(std::string_view message) const;

 private:
  ToolHost host_;
};

// Whether the message is answered the same by any server, with no tools behind it:
// initialize, ping and notifications. A client's handshake need not wait while the
// stdio entry finds out where the tools live.
bool needs_no_tools(std::string_view message);

// A JSON-RPC error answering `message` (its id), or "" when it needs no answer.
std::string error_reply_for(std::string_view message, int code, const std::string& text);

// The instructions sent at initialize; under 2 KB, the key facts first.
const std::string& mcp_instructions();

}  // namespace kx::protocols

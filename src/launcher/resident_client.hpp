#pragma once
// The client side of forwarding: a short-lived kx posts its command line to the
// resident's "/console/exec" and prints the "out" field of the answer.
#include <cstdint>
#include <iosfwd>
#include <optional>
#include <string>
#include <string_view>

namespace kx::launcher {

// The request bytes for one line: "/console/exec?bot=cli", X-Kst-Cwd when the
// directory is known, X-Kst-Tty when our output is a terminal.
std::string build_exec_request(const std::string& line, const std::optional<std::string>& cwd,
                               bool tty);

// What to print for a raw reply: the decoded "out" field of the body, else the
// whole body. Nothing when the reply has no end of head (no usable answer).
std::optional<std::string> reply_output(std::string_view reply);

// Decodes a JSON string's inside, lossily: \uXXXX becomes '?' so the terminal only
// ever gets plain bytes.
std::string decode_lossy(std::string_view escaped);

// One exchange with the resident on `port`; nothing when it failed.
std::optional<std::string> exec_on_resident(std::uint16_t port, const std::string& line);

// Sends `line` (or, when it is empty, every non-empty line of `in`) and writes each
// result to `out`, ending it with a line feed. False when the first exchange failed.
bool forward_lines(std::uint16_t port, const std::string& line, std::istream& in,
                   std::ostream& out);

}  // namespace kx::launcher

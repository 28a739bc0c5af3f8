#pragma once
// The client side of forwarding: a short-lived kx posts its command line to the
// resident's "/console/exec" and prints the "out" field of the answer.
#include <cstdint>
#include <iosfwd>
#include <optional>
#include <string>
#include <string_view>

namespace kx::launcher {

// The request bytes for one line: "/console/exec?bot=cli", the home's token when
// there is one, X-Kst-Cwd when the directory is known, X-Kst-Tty when a person
// sits at the terminal.
std::string build_exec_request(const std::string& line, const std::optional<std::string>& cwd,
                               bool tty, const std::string& token);

// What to print for a raw reply: the decoded "out" field of the body, else the
// whole body. Nothing when the reply has no end of head (no usable answer).
std::optional<std::string> reply_output(std::string_view reply);

// Decodes a JSON string's inside, lossily: \uXXXX becomes '?' so the terminal only
// ever gets plain bytes.
std::string decode_lossy(std::string_view escaped);

// How one exchange with the resident ended.
struct ExecOutcome {
  enum Kind { kAnswered, kFailed, kRefused } kind = kFailed;  // kRefused: 401, another home
  std::string output;                                         // kAnswered: what to print
};

ExecOutcome exec_on_resident(std::uint16_t port, const std::string& line, const std::string& token);

// Sends `line` (or, when it is empty, every non-empty line of `in`) and writes each
// result to `out`, ending it with a line feed. kAnswered: all was answered.
// Otherwise `unsent` holds the line that was not answered and the rest of `in`,
// for a local run.
ExecOutcome::Kind forward_lines(std::uint16_t port, const std::string& line,
                                const std::string& token, std::istream& in, std::ostream& out,
                                std::string& unsent);

}  // namespace kx::launcher

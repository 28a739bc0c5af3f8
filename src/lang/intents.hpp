#pragma once
// The plain-language intent table: keyword lists, each naming one structured
// command, tried in order.
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace kx::lang {

struct Request {
  std::string instruction;          // the words before any content marker
  std::optional<std::string> body;  // the content of a write, when one was given
};

// Splits the body off a request: a CDATA block, else the text after the first
// content marker ("content:", "body:", "saying ", ...).
Request split_content(std::string_view text);

struct IntentMatch {
  std::string intent;   // "read", "write", ... (also the help topic to show)
  std::string command;  // the structured command to dispatch, or empty when...
  std::string failure;  // ...the request lacks something (an "ERROR: " text)
};

// The first intent whose keywords appear in the instruction, with its command built.
std::optional<IntentMatch> match_intent(const Request& request);

// A family the request seems to want when no intent matched ("search", "memory").
struct Guess {
  std::string action;      // "search your files"
  std::string help_topic;  // "grep"
};
std::optional<Guess> guess_family(std::string_view instruction);

}  // namespace kx::lang

#pragma once
// The tools an MCP client may call. Each is thin: it turns its arguments into one
// command line of the command language (a few run more than one) and answers the
// interpreter's result text.
#include <cstdint>
#include <functional>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace kx::protocols {

using Json = nlohmann::ordered_json;

// What the tools reach outside themselves. An empty function is a part that is not
// wired in this process; the tools then answer an "ERROR: " text saying so.
struct ToolHost {
  std::function<std::string(std::string_view line)> run;  // one line through the interpreter
  // Chat lives in the resident: a process serving MCP without one leaves these empty.
  // Posts `text`; answers "OK: ..." or "ERROR: ...".
  std::function<std::string(const std::string& channel, const std::string& text)> chat_say;
  // The channel's messages after sequence number `since`, waiting (about 25 s) for the
  // first when there is none yet; without `since`, the latest few at once. JSON text
  // {"channel","messages":[records],"since":<seq to pass next>} or "ERROR: ...".
  std::function<std::string(const std::string& channel, std::optional<std::uint64_t> since)>
      chat_read;
};

using ToolCall = std::function<std::string(const Json& args, const ToolHost& host)>;

struct Tool {
  std::string name;   // published name, safe for every client: "fs_read"
  std::string alias;  // the dotted name also accepted: "fs.read"
  std::string title;
  std::string description;
  Json input_schema;
  bool read_only = false;
  bool destructive = true;  // clients assume the worst unless told
  bool idempotent = false;
  ToolCall call;
};

// Every tool, in the order tools/list publishes them.
const std::vector<Tool>& tools();

// A tool by its published name or its dotted alias; nullptr when there is none.
const Tool* find_tool(std::string_view name);

// A string argument: strings as given, numbers and booleans as their text, absent "".
std::string arg_text(const Json& args, const char* key);

// Replaces exactly one occurrence of `old_text` in `text`. When the exact text is
// absent, tries again with CR LF and trailing blanks ignored on both sides. Fills
// `error` ("ERROR: ..." naming the lines of an ambiguous match) on failure.
struct EditResult {
  bool ok = false;
  std::string text;        // the whole new text
  std::size_t first_line;  // 1-based line of the replaced text
  bool normalised = false;
  std::string error;
};
EditResult replace_once(std::string_view text, std::string_view old_text,
                        std::string_view new_text);

// Lines [offset, offset + limit) of a text (offset 1-based, limit 0 = all), cut at
// `cap` bytes on a line boundary with a note saying how to read on.
std::string slice_lines(std::string_view text, long offset, long limit, std::size_t cap);

// The bot on whose behalf the memory tools run.
inline constexpr const char* kMemoryBot = "Kestrune";

inline constexpr std::size_t kReadCap = 96 * 1024;

}  // namespace kx::protocols

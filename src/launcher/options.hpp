#pragma once
// The process's own arguments: global options, and the command line built from the rest.
#include <cstdint>
#include <string>
#include <vector>

namespace kx::launcher {

inline constexpr std::uint16_t kDefaultPort = 9999;

struct EntryOptions {
  std::uint16_t port = kDefaultPort;
  std::string home_override;       // --conf / --home
  bool no_color = false;           // --no-color
  std::vector<std::string> words;  // what is left after the options
};

// Removes --port/-p, --conf/--home and their values, and --no-color. "-p" stays for grep once a
// non-option word has been seen, because grep has a -p of its own. An option that
// is the last argument has no value and stays.
EntryOptions parse_options(const std::vector<std::string>& args);

// Joins the words with single spaces. Only for grep, a word holding a blank or a
// quote is wrapped in double quotes (inner quotes as \"), so its grouping survives.
std::string build_command_line(const std::vector<std::string>& words);

// "gui", "up", "serve", "workstation", "mcp", "boot", "boot gui", or a line
// holding a start verb.
bool is_server_verb(const std::string& line);

// The decimal prefix of `text`, 0 when there is none.
std::uint16_t parse_port(const std::string& text);

// The usage text printed by `kx` alone at a console.
const char* usage_text();

}  // namespace kx::launcher

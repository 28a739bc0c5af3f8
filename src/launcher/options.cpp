#include "launcher/options.hpp"

#include <cctype>

namespace kx::launcher {
namespace {

bool takes_value(const std::string& arg) {
  return arg == "--port" || arg == "-p" || arg == "--conf" || arg == "--home";
}

// The first argument that is not an option or an option's value.
std::string first_word(const std::vector<std::string>& args) {
  for (std::size_t i = 0; i < args.size(); ++i) {
    if (takes_value(args[i])) {
      if (i + 1 < args.size()) ++i;
      continue;
    }
    if (!args[i].empty() && args[i][0] != '-') return args[i];
  }
  return "";
}

}  // namespace

std::uint16_t parse_port(const std::string& text) {
  unsigned long value = 0;
  for (char c : text) {
    if (!std::isdigit(static_cast<unsigned char>(c))) break;
    value = value * 10 + static_cast<unsigned long>(c - '0');
    if (value > 0xFFFFFFFFul) break;
  }
  return static_cast<std::uint16_t>(value);
}

EntryOptions parse_options(const std::vector<std::string>& args) {
  EntryOptions options;
  const bool grep_line = first_word(args) == "grep";
  bool seen_word = false;
  for (std::size_t i = 0; i < args.size(); ++i) {
    const std::string& arg = args[i];
    bool has_value = i + 1 < args.size();
    if (has_value && arg == "--port") {
      options.port = parse_port(args[++i]);
    } else if (has_value && arg == "-p" && !(grep_line && seen_word)) {
      options.port = parse_port(args[++i]);
    } else if (has_value && (arg == "--conf" || arg == "--home")) {
      options.home_override = args[++i];
    } else if (arg == "--no-color" && !(grep_line && seen_word)) {
      options.no_color = true;
    } else {
      if (!arg.empty() && arg[0] != '-') seen_word = true;
      options.words.push_back(arg);
    }
  }
  return options;
}

std::string build_command_line(const std::vector<std::string>& words) {
  const bool grep_line = !words.empty() && words[0] == "grep";
  std::string line;
  for (std::size_t i = 0; i < words.size(); ++i) {
    if (i > 0) line += ' ';
    const std::string& word = words[i];
    if (grep_line && word.find_first_of(" \t\"'") != std::string::npos) {
      line += '"';
      for (char c : word) {
        if (c == '"') line += '\\';
        line += c;
      }
      line += '"';
    } else {
      line += word;
    }
  }
  return line;
}

bool is_server_verb(const std::string& line) {
  return line == "gui" || line == "up" || line == "serve" || line == "workstation" ||
         line == "mcp" || line == "boot" || line == "boot gui" ||
         line.find("gui:start") != std::string::npos ||
         line.find("orchestration:start") != std::string::npos ||
         line.find("vc:start") != std::string::npos;
}

const char* usage_text() {
  return "Kestrune (kx) — persistent memory + automatic version control for your code, and a "
         "terminal.\n\n  kx gui                  open the workstation UI in your browser\n  kx "
         "terminal             open the ride-along terminal\n  kx grep <pattern>       fast "
         "in-RAM search across your versioned trees\n  kx fs:cat <path>        read a file "
         "(every save is auto-versioned)\n  kx fsvctl:log <path>    version history   .   kx "
         "fsvctl:revert <path> <n>   roll back\n  kx enroll <dir>         put a directory under "
         "automatic version control\n  kx memory.help          persistent-memory verbs\n  kx "
         "fssys:help           the full command manual\n\nClaude Code drives all of this "
         "automatically over MCP (kx mcp).";
}

}  // namespace kx::launcher

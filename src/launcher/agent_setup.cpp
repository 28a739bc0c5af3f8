#include "launcher/agent_setup.hpp"

#include <chrono>
#include <cstdio>
#include <vector>

#include "lang/interpreter.hpp"
#include "lang/session.hpp"
#include "lang/text.hpp"
#include "launcher/config_edit.hpp"
#include "launcher/options.hpp"
#include "launcher/resident_lifecycle.hpp"
#include "platform/home.hpp"
#include "platform/login_start.hpp"
#include "platform/process_info.hpp"
#include "platform/read_file.hpp"
#include "platform/shell.hpp"
#include "server/version.hpp"

namespace kx::launcher {
namespace {

namespace fs = std::filesystem;
using Json = nlohmann::json;

constexpr const char* kBegin = "<!-- kestrune:begin (kx claude-setup keeps this block) -->";
constexpr const char* kEnd = "<!-- kestrune:end -->";

const char* kInstructions =
    "## Kestrune (kx)\n"
    "Kestrune's MCP server `kx` is connected. Use it:\n"
    "- At the start of a task: `memory_contexts`, then `memory_browse`/`memory_retrieve` for "
    "what earlier sessions learned.\n"
    "- Read files with `fs_read` (offset/limit for big ones), change them with `fs_edit` (one "
    "exact replacement) or `fs_write`: every save is a version, so `vc_log`, `vc_diff` and "
    "`vc_revert` can undo anything.\n"
    "- Search with `grep` (regex, in RAM) and `fs_list` (glob).\n"
    "- Save decisions, lessons and how-tos with `memory_addmemo` (props decision|lesson|...) "
    "before you finish.\n"
    "- Anything else: `kst_run` with a Kestrune command line; `fssys:help` is the manual.\n";

std::string skill_text() {
  return std::string(
             "---\n"
             "name: kestrune\n"
             "description: Persistent memory and automatic version control through the kx MCP "
             "server. Use when starting a task (recall), editing files (versioned saves), "
             "undoing a change, or saving what was learned.\n"
             "---\n\n") +
         kInstructions;
}

std::string read_text(const fs::path& path, bool& existed) {
  std::string text;
  std::error_code ec;
  existed = fs::exists(path, ec);
  if (existed) platform::read_whole_file(path, text, 4096);
  return text;
}

// Double quotes: both /bin/sh and cmd.exe take them around a path with blanks.
std::string shell_quote(const std::string& word) {
  return "\"" + word + "\"";
}

// One step's report line and whether it failed.
struct Step {
  std::string what;
  std::string outcome;  // "unchanged", "written", "would write", "refused: ...", ...
  bool failed = false;
};

// Writes a new text for `path`, or says what it would do.
Step file_step(
    const std::string& what, const fs::path& path, bool apply,
    const std::function<std::optional<std::string>(const std::string&, std::string&)>& transform) {
  Step step{what + " (" + path.string() + ")", "", false};
  bool existed = false;
  std::string old_text = read_text(path, existed);
  std::string error;
  std::optional<std::string> text = transform(old_text, error);
  if (!text) {
    step.outcome = "refused, left untouched: " + error;
    step.failed = true;
    return step;
  }
  if (existed && *text == old_text) {
    step.outcome = "unchanged";
    return step;
  }
  if (!apply) {
    step.outcome = existed ? "would update" : "would create";
    return step;
  }
  FileEdit edit = write_checked(path, old_text, existed, *text);
  step.outcome = edit.detail;
  step.failed = edit.outcome == EditOutcome::kRefused;
  return step;
}

std::optional<std::string> with_block(const std::string& text, std::string&) {
  std::string block = std::string(kBegin) + "\n" + kInstructions + kEnd + "\n";
  std::size_t begin = text.find(kBegin);
  std::size_t end = text.find(kEnd);
  if (begin != std::string::npos && end != std::string::npos && end > begin) {
    std::size_t after = end + std::string(kEnd).size();
    if (after < text.size() && text[after] == '\n') ++after;
    return text.substr(0, begin) + block + text.substr(after);
  }
  std::string out = text;
  if (!out.empty() && !out.ends_with("\n")) out += "\n";
  if (!out.empty()) out += "\n";
  return out + block;
}

std::vector<std::string> kx_args(const AgentPaths& p, const char* verb) {
  std::vector<std::string> args = p.kx_options;
  args.push_back(verb);
  return args;
}

Json stdio_entry(const AgentPaths& p, bool typed) {
  Json entry{{"command", p.kx.string()}, {"args", kx_args(p, "mcp")}};
  if (typed) entry["type"] = "stdio";
  return entry;
}

// "<kx>" [options] <verb>, each word quoted for the shell as needed.
std::string kx_command_line(const AgentPaths& p, const char* verb) {
  std::string line = shell_quote(p.kx.string());
  for (const std::string& arg : kx_args(p, verb))
    line += " " + (arg.find_first_of(" \t\"'") == std::string::npos ? arg : shell_quote(arg));
  return line;
}

Step json_registration(const std::string& agent, const fs::path& file, const std::string& container,
                       const Json& entry, bool apply) {
  return file_step(agent + " MCP registration", file, apply,
                   [&](const std::string& text, std::string& error) {
                     return jsonc_with_entry(text, container, "kx", entry, error);
                   });
}

// Registration through the agent's own command, which owns its file.
Step cli_registration(const std::string& agent, const AgentPaths& p, const std::string& scope,
                      const std::string& add, bool apply) {
  Step step{agent + " MCP registration (" + agent + " mcp add)", "", false};
  auto listed =
      platform::run_shell(agent + " mcp list", p.project, std::chrono::seconds(60), 1 << 20);
  bool ours = listed.output.find(p.kx.string()) != std::string::npos;
  for (const std::string& option : p.kx_options)
    ours = ours && listed.output.find(option) != std::string::npos;
  if (ours) {
    step.outcome = "unchanged";
    return step;
  }
  if (!apply) {
    step.outcome = "would run: " + add;
    return step;
  }
  // An older kx entry (another kx, home or port) would make the add fail; when
  // there is none the removal fails harmlessly.
  (void)platform::run_shell(agent + " mcp remove " + scope + "kx", p.project,
                            std::chrono::seconds(60), 1 << 16);
  auto done = platform::run_shell(add, p.project, std::chrono::seconds(60), 1 << 16);
  step.failed = !done.failure.empty() || done.exit_code != 0;
  step.outcome = step.failed ? "failed: " + std::string(lang::trim(done.output)) : "registered";
  return step;
}

bool found(const char* program, const fs::path& dir) {
  std::error_code ec;
  return platform::is_program_on_path(program) || fs::is_directory(dir, ec);
}

std::vector<Step> registrations(const AgentPaths& p, bool apply) {
  std::vector<Step> steps;
  const std::string kx = kx_command_line(p, "mcp");
  if (platform::is_program_on_path("claude"))
    steps.push_back(cli_registration("claude", p, "--scope user ",
                                     "claude mcp add --scope user kx -- " + kx, apply));
  else
    steps.push_back(json_registration("claude", p.project / ".mcp.json", "mcpServers",
                                      stdio_entry(p, true), apply));
  if (platform::is_program_on_path("codex")) {
    steps.push_back(cli_registration("codex", p, "", "codex mcp add kx -- " + kx, apply));
  } else if (found("codex", p.user / ".codex")) {
    Json command = p.kx.string();
    Json args = kx_args(p, "mcp");
    steps.push_back(file_step("codex MCP registration", p.user / ".codex" / "config.toml", apply,
                              [&](const std::string& text, std::string& error) {
                                return toml_with_table(text, "mcp_servers.kx",
                                                       "command = " + command.dump() +
                                                           "\nargs = " + args.dump() + "\n",
                                                       error);
                              }));
  }
  if (platform::is_program_on_path("gemini"))
    steps.push_back(cli_registration("gemini", p, "--scope user ",
                                     "gemini mcp add --scope user kx " + kx, apply));
  else if (found("gemini", p.user / ".gemini"))
    steps.push_back(json_registration("gemini", p.user / ".gemini" / "settings.json", "mcpServers",
                                      stdio_entry(p, false), apply));
  std::error_code ec;
  if (fs::is_directory(p.project / ".vscode", ec))
    steps.push_back(json_registration("vscode", p.project / ".vscode" / "mcp.json", "servers",
                                      stdio_entry(p, true), apply));
  if (fs::is_directory(p.user / ".cursor", ec))
    steps.push_back(json_registration("cursor", p.user / ".cursor" / "mcp.json", "mcpServers",
                                      stdio_entry(p, false), apply));
  return steps;
}

std::string brief_command(const AgentPaths& p) {
  return kx_command_line(p, "claude.brief");
}

Step session_hook(const AgentPaths& p, bool apply) {
  return file_step(
      "claude SessionStart hook", p.user / ".claude" / "settings.json", apply,
      [&](const std::string& text, std::string& error) -> std::optional<std::string> {
        auto parsed = parse_jsonc(text, error);
        if (!parsed) return std::nullopt;
        Json hooks =
            parsed->is_object() && parsed->contains("hooks") ? (*parsed)["hooks"] : Json::object();
        Json list = hooks.is_object() && hooks.contains("SessionStart") ? hooks["SessionStart"]
                                                                        : Json::array();
        if (!list.is_array()) {
          error = "hooks.SessionStart is not a list";
          return std::nullopt;
        }
        const std::string ours = brief_command(p);
        Json kept = Json::array();
        for (const Json& group : list) {
          bool is_ours = group.is_object() && group.contains("hooks") &&
                         group["hooks"].dump().find("claude.brief") != std::string::npos;
          if (!is_ours) kept.push_back(group);
        }
        kept.push_back(
            Json{{"hooks", Json::array({Json{{"type", "command"}, {"command", ours}}})}});
        // Order kept: our group moves to the end only when it changes.
        for (const Json& group : list)
          if (group == kept.back())
            return jsonc_with_entry(text, "hooks", "SessionStart", list, error);
        return jsonc_with_entry(text, "hooks", "SessionStart", kept, error);
      });
}

Step boot_step(const AgentPaths& p, bool apply) {
  Step step{"boot (start-up entry)", "", false};
  auto entry = platform::login_start_entry();
  if (entry && *entry == platform::login_start_text(p.kx)) {
    step.outcome = "unchanged";
  } else if (!apply) {
    step.outcome = "would register";
  } else {
    step.failed = !platform::register_login_start(p.kx);
    step.outcome = step.failed ? "failed" : "registered";
  }
  return step;
}

std::string word(const Step& s) {
  if (s.outcome == "unchanged") return "unchanged";
  if (s.failed) return "FAILED";
  if (s.outcome.starts_with("would")) return "pending";
  return "ok";
}

std::string combined(const std::vector<Step>& steps) {
  std::string w = "unchanged";
  for (const Step& s : steps) {
    std::string one = word(s);
    if (one == "FAILED") return one;
    if (one != "unchanged") w = one;
  }
  return w;
}

std::string status_text(const AgentPaths& p) {
  std::string out = "OK: agents and their kx registration (kx = " + p.kx.string() + ")\n";
  struct Agent {
    const char* name;
    fs::path file;
    const char* container;
  };
  const Agent agents[] = {
      {"claude", p.project / ".mcp.json", "mcpServers"},
      {"codex", p.user / ".codex" / "config.toml", nullptr},
      {"gemini", p.user / ".gemini" / "settings.json", "mcpServers"},
      {"vscode", p.project / ".vscode" / "mcp.json", "servers"},
      {"cursor", p.user / ".cursor" / "mcp.json", "mcpServers"},
  };
  for (const Agent& a : agents) {
    bool on_path = platform::is_program_on_path(a.name);
    bool existed = false;
    std::string text = read_text(a.file, existed);
    std::string registered = "not registered";
    if (existed && a.container != nullptr) {
      std::string error;
      auto json = parse_jsonc(text, error);
      if (!json)
        registered = "file does not parse: " + error;
      else if (json->contains(a.container) && (*json)[a.container].contains("kx"))
        registered = "kx -> " + (*json)[a.container]["kx"].value("command", std::string("?"));
    } else if (existed && text.find("[mcp_servers.kx]") != std::string::npos) {
      registered = "kx registered in " + a.file.string();
    }
    out += "  " + std::string(a.name) + ": " + (on_path ? "command on PATH" : "no command") + "; " +
           a.file.string() + ": " + registered + "\n";
  }
  return out;
}

// Every kx command an agent configuration points at, from the files we write.
std::vector<std::string> registered_commands(const AgentPaths& p) {
  std::vector<std::string> commands;
  for (const auto& [file, container] :
       {std::pair{p.project / ".mcp.json", "mcpServers"},
        std::pair{p.user / ".gemini" / "settings.json", "mcpServers"},
        std::pair{p.project / ".vscode" / "mcp.json", "servers"},
        std::pair{p.user / ".cursor" / "mcp.json", "mcpServers"}}) {
    bool existed = false;
    std::string text = read_text(file, existed), error;
    if (!existed) continue;
    auto json = parse_jsonc(text, error);
    if (json && json->contains(container) && (*json)[container].contains("kx"))
      commands.push_back((*json)[container]["kx"].value("command", std::string()));
  }
  return commands;
}

std::string doctor(const AgentPaths& p, bool fix, std::uint16_t port) {
  std::vector<std::string> problems;
  std::string out;
  for (const std::string& command : registered_commands(p)) {
    std::error_code ec;
    if (!fs::exists(command, ec))
      problems.push_back("a registration points to a missing kx: " + command);
  }
  ProbeResult health = probe(port);
  if (health.health != Health::kCompatible)
    problems.push_back(health.health == Health::kNothing
                           ? "no resident answers on port " + std::to_string(port)
                           : "the resident on port " + std::to_string(port) + " is version " +
                                 health.version + ", this kx is " + kVersion);
  fs::path token = platform::home_dir() / "resident.token";
  std::error_code ec;
  if (fs::exists(token, ec)) {
    auto perms = fs::status(token, ec).permissions();
    if ((perms & (fs::perms::group_all | fs::perms::others_all)) != fs::perms::none)
      problems.push_back("the token file " + token.string() + " is readable by others");
  }
  if (problems.empty())
    return "OK: agent set-up healthy (kx " + p.kx.string() + ", resident " + kVersion +
           " on port " + std::to_string(port) + ")";
  out = "ERROR: " + std::to_string(problems.size()) + " problem(s):\n";
  for (const std::string& problem : problems) out += "  - " + problem + "\n";
  if (!fix) return out + "try: claude.doctor --fix";
  std::string summary;
  out += agent_setup(p, true, &summary);
  if (fs::exists(token, ec))
    fs::permissions(token, fs::perms::owner_read | fs::perms::owner_write, ec);
  if (health.health == Health::kNothing) out += bring_up(port) ? "resident started\n" : "";
  return "OK: repaired what could be repaired\n" + out;
}

std::string show(const AgentPaths& p, std::string_view section) {
  if (section == "instructions") return std::string(kBegin) + "\n" + kInstructions + kEnd;
  if (section == "skill") return skill_text();
  if (section == "mcp") return stdio_entry(p, true).dump(2);
  if (section == "hook") return brief_command(p);
  return "ERROR: claude.show wants one of: instructions, skill, mcp, hook";
}

// The short briefing a new agent session starts with.
std::string brief(lang::Session& session) {
  // The turns before this briefing: its own commands are not news.
  const std::deque<lang::HistoryEntry> earlier = session.history;
  std::string out = "Kestrune briefing (kx MCP tools are connected)\n";
  out += lang::run_line(session, "cli", "fsstat:stores") + "\n";
  out += lang::run_line(session, "cli", std::string("memory.contexts ") + "Kestrune") + "\n";
  if (!earlier.empty()) {
    out += "recent turns:\n";
    std::size_t shown = 0;
    for (auto it = earlier.rbegin(); it != earlier.rend() && shown < 5; ++it, ++shown)
      out += "  " + it->line.substr(0, 120) + "\n";
  }
  if (out.size() > 9000) out = out.substr(0, 9000) + "\n[briefing cut]";
  return out;
}

std::uint16_t g_port = kDefaultPort;

}  // namespace

AgentPaths default_agent_paths(const fs::path& project) {
  AgentPaths paths{platform::user_profile_dir(), project, platform::executable_path(), {}};
  if (platform::has_home_override())
    paths.kx_options.insert(paths.kx_options.end(), {"--conf", platform::home_dir().string()});
  if (g_port != kDefaultPort)
    paths.kx_options.insert(paths.kx_options.end(), {"--port", std::to_string(g_port)});
  return paths;
}

std::string agent_setup(const AgentPaths& p, bool apply, std::string* summary) {
  std::vector<Step> mcp = registrations(p, apply);
  Step instructions =
      file_step("instructions", p.user / ".claude" / "CLAUDE.md", apply, with_block);
  std::vector<Step> all = mcp;
  all.push_back(instructions);
  if (found("codex", p.user / ".codex"))
    all.push_back(
        file_step("codex instructions", p.user / ".codex" / "AGENTS.md", apply, with_block));
  Step skill =
      file_step("skill", p.user / ".claude" / "skills" / "kestrune" / "SKILL.md", apply,
                [](const std::string&, std::string&) { return std::optional(skill_text()); });
  Step boot = boot_step(p, apply);
  Step hook = session_hook(p, apply);
  all.push_back(skill);
  all.push_back(boot);
  all.push_back(hook);
  bool failed = false;
  std::string out;
  for (const Step& s : all) {
    out += "  " + s.what + ": " + s.outcome + "\n";
    failed = failed || s.failed;
  }
  if (summary != nullptr) {
    char line[512];
    std::snprintf(line, sizeof line,
                  "[claude-setup] skills: %s; global CLAUDE.md: %s; MCP (stdio): %s; boot: %s; "
                  "sessionstart: %s\n",
                  word(skill).c_str(), word(instructions).c_str(), combined(mcp).c_str(),
                  word(boot).c_str(), word(hook).c_str());
    *summary = line;
  }
  std::string head = failed  ? "ERROR: agent set-up incomplete\n"
                     : apply ? "OK: agent set-up done\n"
                             : "OK: agent set-up (dry run; claude.setup --apply does it)\n";
  return head + out;
}

void register_agent_families(lang::Registry& registry) {
  using lang::Session;
  auto paths = [](Session& session) {
    return default_agent_paths(session.cwd.empty() ? fs::current_path() : session.cwd);
  };
  auto has = [](std::string_view args, std::string_view flag) {
    for (auto w : lang::split_words(args))
      if (w == flag) return true;
    return false;
  };
  lang::Family claude{"claude", ':', "Agent set-up", {}, nullptr};
  auto verb = [&](const char* name, const char* summary, const char* usage, lang::VerbHandler run) {
    claude.verbs.push_back(lang::Verb{name, {}, summary, usage, usage, "", "", std::move(run)});
  };
  verb("setup", "register kx mcp with the coding agents; --apply does it", "claude.setup [--apply]",
       [=](Session& s, std::string_view a) { return agent_setup(paths(s), has(a, "--apply")); });
  verb("status", "each agent found and what is registered", "claude.status",
       [=](Session& s, std::string_view) { return status_text(paths(s)); });
  verb("doctor", "check the set-up; --fix repairs", "claude.doctor [--fix]",
       [=](Session& s, std::string_view a) { return doctor(paths(s), has(a, "--fix"), g_port); });
  verb("show", "print what the set-up writes", "claude.show instructions|skill|mcp|hook",
       [=](Session& s, std::string_view a) { return show(paths(s), lang::trim(a)); });
  verb("brief", "the briefing a new agent session starts with", "claude.brief",
       [](Session& s, std::string_view) { return brief(s); });
  claude.unknown_verb = [](std::string_view v) {
    return "ERROR: unknown claude verb '" + std::string(v) + "' (setup|status|doctor|show|brief)";
  };
  registry.add_family(std::move(claude));
}

void set_agent_port(std::uint16_t port) {
  g_port = port;
}

int claude_setup_verb() {
  std::string summary;
  std::string report =
      agent_setup(default_agent_paths(platform::current_directory().value_or(".")), true, &summary);
  std::fputs(report.c_str(), stderr);
  std::fputs(summary.c_str(), stdout);
  return report.starts_with("ERROR") ? 1 : 0;
}

}  // namespace kx::launcher

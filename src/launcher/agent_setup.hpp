#pragma once
// Agent set-up: registers `kx mcp` with the coding agents found on this machine,
// writes their instructions, the skill, the start-up entry and the session-start
// hook, and checks and repairs all of it: the claude family ("claude.setup" or
// "claude:setup").
#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

#include "lang/registry.hpp"

namespace kx::launcher {

// Where the set-up looks and writes: the user's profile directory, the project
// directory (for per-project files such as .mcp.json), the kx to register and the
// options every command the agents run starts with.
struct AgentPaths {
  std::filesystem::path user;
  std::filesystem::path project;
  std::filesystem::path kx;
  std::vector<std::string> kx_options;  // e.g. "--conf", "<home>", "--port", "<n>"
};
// The agents run kx with this process's home (--conf) and port when they are not
// the defaults, so they reach the resident this set-up was made for.
AgentPaths default_agent_paths(const std::filesystem::path& project);

// Shows (apply = false) or does the set-up; every step reports "unchanged" when
// there is nothing to do. `summary` gets the one-line report of `kx claude-setup`.
std::string agent_setup(const AgentPaths& paths, bool apply, std::string* summary = nullptr);

void register_agent_families(lang::Registry& registry);
// config.modules and config.describe: the configuration keys.
void register_config_family(lang::Registry& registry);

// The port claude.doctor checks (the process's --port).
void set_agent_port(std::uint16_t port);

// `kx claude-setup`: the set-up, applied, for the current directory.
int claude_setup_verb();

}  // namespace kx::launcher

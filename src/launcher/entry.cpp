#include "launcher/entry.hpp"

#include <algorithm>
#include <cstdio>
#include <iostream>
#include <string>
#include <vector>

#include "lang/parse_driver.hpp"
#include "launcher/agent_setup.hpp"
#include "launcher/kxterm.hpp"
#include "launcher/mcp_entry.hpp"
#include "launcher/options.hpp"
#include "launcher/resident_lifecycle.hpp"
#include "launcher/resident_link.hpp"
#include "launcher/result_paint.hpp"
#include "launcher/unit_source.hpp"
#include "launcher/workspace.hpp"
#include "platform/console.hpp"
#include "platform/home.hpp"
#include "platform/process_info.hpp"
#include "platform/shell.hpp"
#include "platform/spawn.hpp"

namespace kx::launcher {
namespace {

// Tools of subsystems that are not part of this build: say so and fail.
int not_in_this_build(const std::string& what) {
  std::fprintf(stderr, "Kestrune: %s is not part of this build\n", what.c_str());
  return 1;
}

int env_check() {
  auto state = [](bool ready) { return ready ? "ready" : "MISSING"; };
  bool python = platform::is_program_on_path("python3") || platform::is_program_on_path("python");
  bool node = platform::is_program_on_path("node");
  bool claude = platform::is_program_on_path("claude");
  bool all = python && node && claude;
  std::printf("[env-check] python:%s node:%s claude:%s => %s\n", state(python), state(node),
              state(claude), all ? "ready" : "incomplete");
  return all ? 0 : 1;
}

// Runs the units of standard input one by one, as the resident runs them posted.
int run_units_locally(lang::Session& session, UnitSource& source) {
  lang::ScriptVariables variables;
  int status = lang::kAccepted;
  while (auto unit = source.next()) {
    int unit_status =
        lang::run_unit(session, *unit, lang::UnitForm::kLines, variables, std::cout, std::cerr);
    status = std::max(status, unit_status);
  }
  return status;
}

int run_locally(const EntryOptions& options, const std::string& line, UnitSource& source) {
  // A process that lives on follows outside edits as they happen; a one-shot command
  // only catches up with them before it runs.
  bool lives_on = is_server_verb(line) || line == "repl" || line.empty();
  auto workspace = make_workspace(lives_on);
  lang::Session& session = *workspace->session;

  if (is_server_verb(line)) return run_server_verb(*workspace, options.port, line);
  // The same test the forwarder makes for X-Kst-Tty, so approval is given or refused
  // alike whether the command runs here or in the resident.
  session.person_present = platform::person_at_console();

  if (line == "repl") {
    // An interactive session: a prompt before each line, until end of input.
    platform::enable_virtual_terminal_output();
    return lang::parse_input(session, platform::read_stdin, platform::stdin_is_terminal(),
                             std::cout, std::cerr);
  }
  if (line.empty()) {
    if (platform::stdin_is_terminal()) {
      // At a console with no arguments: the usage text, then nothing else.
      std::puts(usage_text());
      return 0;
    }
    return run_units_locally(session, source);
  }
  lang::ScriptVariables variables;
  return lang::run_unit(session, line, lang::UnitForm::kArguments, variables, std::cout, std::cerr);
}

}  // namespace

int run_entry(int argc, char** argv) {
  std::vector<std::string> args(argv + 1, argv + argc);
  platform::keep_freed_memory_for_reuse();

  if (!args.empty() && (args[0] == "remotebot" || args[0] == "collab"))
    return not_in_this_build("the '" + args[0] + "' chat client");

  EntryOptions options = parse_options(args);
  if (!options.home_override.empty()) platform::set_home_override(options.home_override);
  if (options.no_color) platform::set_color_disabled(true);
  // Results at a console are coloured; piped or redirected output stays plain.
  // Never destroyed: std::cout is flushed through it after static objects are gone.
  if (platform::stdout_wants_color()) std::cout.rdbuf(new PaintingBuffer(std::cout.rdbuf()));
  set_agent_port(options.port);
  // The single-word set-up verbs come after the options, so `--conf` reaches them too.
  if (options.words.size() == 1) {
    const std::string& only = options.words[0];
    if (only == "env-check") return env_check();
    if (only == "claude-setup") return claude_setup_verb();
    if (only == "env-setup" || only == "skillify")
      return not_in_this_build("'" + only + "' (agent configuration)");
  }

  if (!options.words.empty() && options.words[0] == "kxterm")
    return run_kxterm(options.port,
                      std::vector<std::string>(options.words.begin() + 1, options.words.end()));
  if (!options.words.empty() && options.words[0] == "terminal") {
    if (!bring_up(options.port)) {
      std::fprintf(stderr, "Kestrune: couldn't bring up the engine on port %d\n", options.port);
      return 1;
    }
    // The login link sets the token cookie the page's WebSocket needs, then lands on
    // the terminal page.
    std::string url = ui_login_url(options.port, "term.html");
    if (!platform::open_url(url)) std::printf("%s\n", url.c_str());
    return 0;
  }

  std::string line = build_command_line(options.words);
  if (line == "mcp" && options.words.size() == 1) return run_mcp(options.port);
  UnitSource source(platform::read_stdin);
  // The REPL always runs its session here: a prompt per line needs no resident.
  bool stays_here =
      is_server_verb(line) || line == "repl" || (line.empty() && platform::stdin_is_terminal());
  if (stays_here) return run_locally(options, line, source);
  ForwardResult forwarded = forward_to_resident(options.port, line, source);
  if (!forwarded.rest_runs_here) return forwarded.status;
  return std::max(forwarded.status, run_locally(options, line, source));
}

}  // namespace kx::launcher

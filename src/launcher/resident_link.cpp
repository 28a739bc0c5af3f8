// Forwarding a line to the resident, and the verbs that make this process one.
#include "launcher/resident_link.hpp"

#include <cstdio>
#include <exception>

#include "lang/console_seats.hpp"
#include "lang/interpreter.hpp"
#include "launcher/resident_client.hpp"
#include "launcher/resident_lifecycle.hpp"
#include "platform/env.hpp"
#include "server/version.hpp"

namespace kx::launcher {
namespace {

void say_running_locally(std::uint16_t port) {
  std::fprintf(stderr, "Kestrune: could not take over port %d — running this command locally\n",
               port);
}

ForwardResult run_here(std::uint16_t port) {
  say_running_locally(port);
  ForwardResult everything;
  everything.rest_runs_here = true;
  return everything;
}

ForwardResult forward_or_say(std::uint16_t port, const std::string& line, UnitSource& source) {
  ForwardResult result = forward_units(port, line, source);
  if (!result.rest_runs_here) return result;
  if (!result.any_sent) {
    say_running_locally(port);
  } else {
    std::fprintf(stderr,
                 "Kestrune: the resident on port %d no longer answers — running the rest of the "
                 "input locally\n",
                 port);
  }
  return result;
}

// Every unit of every caller runs under the session's one lock, through the same
// front end as a local run, in the caller's own console seat.
}  // namespace

// Every unit of every caller runs under the session's one lock, through the same
// front end as a local run, in the caller's own console seat.
server::ExecBridge make_exec_bridge(Workspace& workspace) {
  auto seats = std::make_shared<lang::ConsoleSeats>();
  return [&workspace, seats](const server::ExecRequest& request) -> server::ExecResult {
    std::string key = request.session.empty() ? "" : request.bot + "\n" + request.session;
    lang::Session& session = *workspace.session;
    std::lock_guard guard(session.lock);
    std::string saved_bot = session.bot_id;
    session.bot_id = request.bot;
    lang::UnitResult result =
        seats->run(session, key, request.cwd, request.line,
                   request.arguments ? lang::UnitForm::kArguments : lang::UnitForm::kLines);
    session.bot_id = saved_bot;
    return {std::move(result.out), std::move(result.err), result.status};
  };
}

namespace {

bool contains(const std::string& line, const char* word) {
  return line.find(word) != std::string::npos;
}

}  // namespace

ForwardResult forward_to_resident(std::uint16_t port, const std::string& line, UnitSource& source) {
  ForwardResult everything;
  everything.rest_runs_here = true;
  // Tests and scripts that must never touch a resident set KESTRUNE_LOCAL=1.
  if (platform::get_env_nonempty("KESTRUNE_LOCAL")) return everything;
  ProbeResult found = probe(port);
  switch (found.health) {
    case Health::kCompatible:
      return forward_or_say(port, line, source);
    case Health::kNothing:
      if (!bring_up(port)) return run_here(port);
      return forward_or_say(port, line, source);
    case Health::kOtherVersion:
      if (!found.version.empty() && compare_versions(found.version, kVersion) < 0) {
        std::fprintf(stderr, "Kestrune: evicting stale resident %s on port %d, starting %s\n",
                     found.version.c_str(), port, kVersion);
        if (!shut_down(port) || !bring_up(port)) return run_here(port);
        return forward_or_say(port, line, source);
      }
      std::fprintf(stderr, "Kestrune: port %d is held by %s — running this command locally\n", port,
                   "a different Kestrune version");
      return everything;
    case Health::kForeign:
      std::fprintf(stderr, "Kestrune: port %d is held by %s — running this command locally\n", port,
                   "a non-Kestrune process");
      return everything;
  }
  return everything;
}

int run_server_verb(Workspace& workspace, std::uint16_t port, const std::string& line) {
  ResidentOptions options;
  options.port = port;
  options.exec = make_exec_bridge(workspace);
  if (line == "boot" || line == "boot gui") {
    options.open_browser = line == "boot gui";
    return boot(options);
  }
  bool foreground = line == "gui" || line == "up" || line == "serve" || line == "workstation";
  bool start_verb = contains(line, "gui:start") || contains(line, "orchestration:start");
  if (!foreground && !start_verb && !contains(line, "vc:start")) {
    std::fprintf(stderr, "Kestrune: '%s' is not a server verb\n", line.c_str());
    return 1;
  }
  options.print_up_line = true;
  options.config_check = start_verb;
  options.open_browser = line == "gui";
  return serve_in_foreground(options);
}

}  // namespace kx::launcher

// Forwarding a line to the resident, and the verbs that make this process one.
#include "launcher/resident_link.hpp"

#include <cstdio>
#include <exception>
#include <iostream>

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

bool forward_or_say(std::uint16_t port, const std::string& line) {
  if (forward_lines(port, line, std::cin, std::cout)) return true;
  say_running_locally(port);
  return false;
}

}  // namespace

// Every command of every caller runs under the session's one lock; the caller's
// working directory applies to its own command only.
server::ExecBridge make_exec_bridge(Workspace& workspace) {
  return [&workspace](const server::ExecRequest& request) -> std::string {
    lang::Session& session = *workspace.session;
    std::lock_guard guard(session.lock);
    std::filesystem::path saved_cwd = session.cwd;
    if (!request.cwd.empty()) session.cwd = request.cwd;
    std::string out;
    try {
      out = lang::run_line(session, request.bot, request.line);
    } catch (const std::exception& e) {
      out = std::string("ERROR: the command failed inside the resident (") + e.what() + ")";
    } catch (...) {
      out = "ERROR: the command failed inside the resident";
    }
    session.cwd = saved_cwd;
    return out;
  };
}

namespace {

bool contains(const std::string& line, const char* word) {
  return line.find(word) != std::string::npos;
}

}  // namespace

bool forward_to_resident(std::uint16_t port, const std::string& line) {
  // Tests and scripts that must never touch a resident set KESTRUNE_LOCAL=1.
  if (platform::get_env_nonempty("KESTRUNE_LOCAL")) return false;
  ProbeResult found = probe(port);
  switch (found.health) {
    case Health::kCompatible:
      return forward_or_say(port, line);
    case Health::kNothing:
      if (!bring_up(port)) {
        say_running_locally(port);
        return false;
      }
      return forward_or_say(port, line);
    case Health::kOtherVersion:
      if (!found.version.empty() && compare_versions(found.version, kVersion) < 0) {
        std::fprintf(stderr, "Kestrune: evicting stale resident %s on port %d, starting %s\n",
                     found.version.c_str(), port, kVersion);
        if (!shut_down(port) || !bring_up(port)) {
          say_running_locally(port);
          return false;
        }
        return forward_or_say(port, line);
      }
      std::fprintf(stderr, "Kestrune: port %d is held by %s — running this command locally\n", port,
                   "a different Kestrune version");
      return false;
    case Health::kForeign:
      std::fprintf(stderr, "Kestrune: port %d is held by %s — running this command locally\n", port,
                   "a non-Kestrune process");
      return false;
  }
  return false;
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

// Forwarding a line to the resident, and the verbs that make this process one.
#include "launcher/resident_link.hpp"

#include <cstdio>
#include <exception>
#include <mutex>
#include <set>
#include <utility>

#include "lang/console_seats.hpp"
#include "lang/interpreter.hpp"
#include "launcher/resident_client.hpp"
#include "launcher/resident_lifecycle.hpp"
#include "platform/env.hpp"
#include "server/home_token.hpp"
#include "server/version.hpp"
#include "vfs/store_view.hpp"

namespace kx::launcher {
namespace {

void say_running_locally(std::uint16_t port) {
  std::fprintf(stderr, "Kestrune: could not take over port %d — running this command locally\n",
               port);
}

// Ports whose resident refused our home's token: nothing more goes there from this
// process.
std::set<std::uint16_t> g_other_homes;

void say_other_home(std::uint16_t port) {
  std::fprintf(stderr, "Kestrune: port %d serves another home — running this command locally\n",
               port);
  g_other_homes.insert(port);
}

ForwardResult run_here() {
  ForwardResult everything;
  everything.rest_runs_here = true;
  return everything;
}

ForwardResult forward_or_say(std::uint16_t port, const std::string& line, UnitSource& source,
                             const std::string& token) {
  ForwardResult result = forward_units(port, line, source, token);
  if (!result.rest_runs_here) return result;
  if (result.refused) {
    say_other_home(port);
  } else if (!result.any_sent) {
    say_running_locally(port);
  } else {
    std::fprintf(stderr,
                 "Kestrune: the resident on port %d no longer answers — running the rest of the "
                 "input locally\n",
                 port);
  }
  return result;
}

}  // namespace

// Every unit of every caller runs under the session's one lock (a long computation
// may let it go, see lang::run_outside_lock), through the same front end as a local
// run, in the caller's own console seat.
server::ExecBridge make_exec_bridge(Workspace& workspace) {
  auto seats = std::make_shared<lang::ConsoleSeats>();
  return [&workspace, seats](const server::ExecRequest& request) -> server::ExecResult {
    std::string key = request.session.empty() ? "" : request.bot + "\n" + request.session;
    lang::Session& session = *workspace.session;
    std::lock_guard guard(session.lock);
    // The resident's one session takes on each caller's presence for its command only.
    struct PresenceScope {
      lang::Session& session;
      bool saved;
      ~PresenceScope() { session.person_present = saved; }
    } presence{session, std::exchange(session.person_present, request.person)};
    if (request.structured_only) {
      // The resident's own pages keep no console: their lines are not turns.
      std::filesystem::path saved_cwd = session.cwd;
      if (!request.cwd.empty()) session.cwd = request.cwd;
      auto previous_swap = std::exchange(
          session.swap_caller_state, [&session, &saved_cwd] { std::swap(session.cwd, saved_cwd); });
      const bool records_turns = std::exchange(session.records_turns, false);
      std::string out = lang::run_line(session, request.bot, request.line);
      session.records_turns = records_turns;
      session.swap_caller_state = std::move(previous_swap);
      session.cwd = saved_cwd;
      return out;
    }
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

std::uint32_t version_param(const server::Request& request, const char* name) {
  std::string text = server::form_param(request.query, name);
  std::uint32_t value = 0;
  for (char c : text) {
    if (c < '0' || c > '9' || value > 100000000) return 0;
    value = value * 10 + static_cast<std::uint32_t>(c - '0');
  }
  return value;
}

// The store's read-only views. Each runs under the session's lock, like a command,
// so it never sees a tree halfway through a save.
std::map<std::string, server::ViewHandler> make_store_views(Workspace& workspace) {
  using server::Request;
  using server::Response;
  auto run = [&workspace](auto view) {
    return [&workspace, view](const Request& request) -> Response {
      std::lock_guard guard(workspace.session->lock);
      if (workspace.session->before_line) workspace.session->before_line();
      vfs::View answer = view(*workspace.stores, request);
      return {answer.status, server::kJsonUtf8, std::move(answer.body)};
    };
  };
  auto store = [](const Request& r) { return server::form_param(r.query, "store"); };
  auto path = [](const Request& r) { return server::form_param(r.query, "path"); };
  std::map<std::string, server::ViewHandler> views;
  views["/vc/list"] = run([](kst::StoreSet& s, const Request&) { return vfs::stores_view(s); });
  views["/store/tree"] =
      run([store](kst::StoreSet& s, const Request& r) { return vfs::tree_view(s, store(r)); });
  views["/store/log"] = run([store, path](kst::StoreSet& s, const Request& r) {
    return vfs::log_view(s, store(r), path(r));
  });
  // The diff itself runs on copies, without the session's lock.
  views["/store/diff"] = [&workspace, store, path](const Request& r) -> Response {
    std::unique_lock guard(workspace.session->lock);
    if (workspace.session->before_line) workspace.session->before_line();
    vfs::View answer = vfs::diff_view(*workspace.stores, store(r), path(r), version_param(r, "a"),
                                      version_param(r, "b"), [&guard] { guard.unlock(); });
    return {answer.status, server::kJsonUtf8, std::move(answer.body)};
  };
  views["/store/changes"] =
      run([](kst::StoreSet& s, const Request&) { return vfs::changes_view(s); });
  // A version's bytes are the file's own, not JSON.
  views["/store/version"] = [&workspace, store, path](const Request& r) -> Response {
    std::lock_guard guard(workspace.session->lock);
    vfs::View answer =
        vfs::version_view(*workspace.stores, store(r), path(r), version_param(r, "n"));
    const char* type = answer.status == "200 OK" ? server::kTextUtf8 : server::kJsonUtf8;
    return {answer.status, type, std::move(answer.body)};
  };
  return views;
}

bool contains(const std::string& line, const char* word) {
  return line.find(word) != std::string::npos;
}

}  // namespace

std::optional<std::string> reach_own_resident(std::uint16_t port) {
  // Tests and scripts that must never touch a resident set KESTRUNE_LOCAL=1.
  if (platform::get_env_nonempty("KESTRUNE_LOCAL")) return std::nullopt;
  if (g_other_homes.count(port)) return std::nullopt;
  std::string token = own_home_token();
  ProbeResult found = probe(port);
  switch (found.health) {
    case Health::kCompatible:
      // Its home's fingerprint tells before anything is sent whether our units
      // would land in someone else's home.
      if (!found.home.empty() &&
          (token.empty() || found.home != server::token_fingerprint(token))) {
        say_other_home(port);
        return std::nullopt;
      }
      return token;
    case Health::kNothing:
      if (!bring_up(port)) {
        say_running_locally(port);
        return std::nullopt;
      }
      // The resident just brought up made the token if there was none.
      return own_home_token();
    case Health::kOtherVersion:
      if (!found.version.empty() && compare_versions(found.version, kVersion) < 0) {
        std::fprintf(stderr, "Kestrune: evicting stale resident %s on port %d, starting %s\n",
                     found.version.c_str(), port, kVersion);
        if (!shut_down(port) || !bring_up(port)) {
          say_running_locally(port);
          return std::nullopt;
        }
        return own_home_token();
      }
      std::fprintf(stderr, "Kestrune: port %d is held by %s — running this command locally\n", port,
                   "a different Kestrune version");
      return std::nullopt;
    case Health::kForeign:
      std::fprintf(stderr, "Kestrune: port %d is held by %s — running this command locally\n", port,
                   "a non-Kestrune process");
      return std::nullopt;
  }
  return std::nullopt;
}

ForwardResult forward_to_resident(std::uint16_t port, const std::string& line, UnitSource& source) {
  std::optional<std::string> token = reach_own_resident(port);
  if (!token) return run_here();
  return forward_or_say(port, line, source, *token);
}

int run_server_verb(Workspace& workspace, std::uint16_t port, const std::string& line) {
  ResidentOptions options;
  options.port = port;
  options.exec = make_exec_bridge(workspace);
  options.views = make_store_views(workspace);
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

#pragma once
// How a resident comes to exist and how it ends: the health probe that tells a
// compatible resident from anything else on the port, spawning one, asking one to
// shut down, and serving as one.
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "server/server.hpp"

namespace kx::launcher {

enum class Health : int {
  kNothing = 0,       // no connection, or no complete reply
  kForeign = 1,       // something that is not this program
  kOtherVersion = 2,  // this program at another version
  kCompatible = 3,    // this program at this version
};

struct ProbeResult {
  Health health = Health::kNothing;
  std::string version;  // for kOtherVersion
  std::string home;     // the fingerprint of the resident's home token ("" when not sent)
};

// Classifies a raw "/health" reply (status line, headers and body).
ProbeResult classify_health_reply(std::string_view reply);

ProbeResult probe(std::uint16_t port);

// Component-wise numeric comparison of dotted versions: <0, 0, >0.
int compare_versions(std::string_view a, std::string_view b);

// Makes sure a compatible resident serves the port, spawning one when the port is
// free. A foreign or other-version holder is never displaced here.
bool bring_up(std::uint16_t port);

// Asks the resident on the port to exit (with our home's token) and waits until the
// port is free.
bool shut_down(std::uint16_t port);

// The token of this process's home; "" when it has none (no resident ever served it).
std::string own_home_token();

// The address that lets a browser in: http://127.0.0.1:<port>/ui/?token=<token>.
std::string ui_login_url(std::uint16_t port);

// What a serving process needs from its caller.
struct ResidentOptions {
  std::uint16_t port = 9999;
  server::ExecBridge exec;
  std::map<std::string, server::ViewHandler> views;
  bool open_browser = false;   // open the web UI once serving
  bool print_up_line = false;  // "Kestrune orchestration server up — ..." (start verbs)
  bool config_check = false;   // warn when no configuration file exists (start verbs)
};

// The boot sequence: take the port's lock (held elsewhere: exit 0 silently), serve,
// wait for our own health answer, then live until "/shutdown", SIGTERM or SIGINT.
// Returns the exit status.
int boot(const ResidentOptions& options);

// The start verbs: like boot, but a taken lock says so on standard output and the
// process announces itself when it serves.
int serve_in_foreground(const ResidentOptions& options);

// The server's settings for this process: the home's token (created when missing),
// listen address from the configuration, asset roots beside the executable, chat
// files under the user's data directory. Nothing when no token could be kept
// (the reason was printed).
std::optional<server::ServerOptions> resident_server_options(std::uint16_t port);

// Makes the resident start when the user logs in (the agent set-up calls this).
// False when the entry could not be written.
bool register_startup();

}  // namespace kx::launcher

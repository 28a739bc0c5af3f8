#pragma once
// The resident's settings read from the configuration files.
//
// "server.listen" names the address the resident listens on: "127.0.0.1" (the
// default) keeps the port private to this machine, "0.0.0.0" opens it to the
// network. It is written either as a key of its own or inside a [server] section:
//   server.listen = 0.0.0.0
//   [server]
//   listen = 0.0.0.0
#include <istream>
#include <optional>
#include <string>
#include <string_view>

namespace kx::launcher {

// The value of "module.key" in one configuration text, written either as that key
// or as "key" inside a [module] section; the last one wins.
std::optional<std::string> parse_config_value(std::istream& config, std::string_view key);
// The value from <home>/config/Kestrune.cfg, then <home>/Kestrune.cfg.
std::optional<std::string> configured_value(std::string_view key);
// The value of server.listen in one configuration text, if it is there.
std::optional<std::string> parse_listen_address(std::istream& config);

// From <home>/config/Kestrune.cfg, then <home>/Kestrune.cfg; "127.0.0.1" when
// neither sets it or the value is not an IPv4 address (said on stderr).
std::string configured_listen_address();

}  // namespace kx::launcher

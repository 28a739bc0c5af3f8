#include "launcher/server_config.hpp"

#include <cstdio>
#include <fstream>

#include "platform/home.hpp"
#include "platform/socket.hpp"

namespace kx::launcher {
namespace {

std::string trim(const std::string& text) {
  std::size_t start = text.find_first_not_of(" \t\r\n");
  if (start == std::string::npos) return {};
  std::size_t end = text.find_last_not_of(" \t\r\n");
  return text.substr(start, end - start + 1);
}

}  // namespace

std::optional<std::string> parse_config_value(std::istream& config, std::string_view key_name) {
  const std::string_view module = key_name.substr(0, key_name.find('.'));
  const std::string_view leaf = key_name.substr(key_name.find('.') + 1);
  std::string section;
  std::string line;
  std::optional<std::string> found;
  while (std::getline(config, line)) {
    line = trim(line);
    if (line.empty() || line[0] == '#' || line[0] == ';') continue;
    if (line.front() == '[' && line.back() == ']') {
      section = trim(line.substr(1, line.size() - 2));
      continue;
    }
    std::size_t eq = line.find('=');
    if (eq == std::string::npos) continue;
    std::string key = trim(line.substr(0, eq));
    if (key == key_name || (section == module && key == leaf)) found = trim(line.substr(eq + 1));
  }
  return found;
}

std::optional<std::string> parse_listen_address(std::istream& config) {
  return parse_config_value(config, "server.listen");
}

std::optional<std::string> configured_value(std::string_view key) {
  for (const auto& file : {platform::main_config_file(), platform::legacy_config_file()}) {
    std::ifstream in(file);
    if (!in) continue;
    if (auto value = parse_config_value(in, key)) return value;
  }
  return std::nullopt;
}

std::string configured_listen_address() {
  for (const auto& file : {platform::main_config_file(), platform::legacy_config_file()}) {
    std::ifstream in(file);
    if (!in) continue;
    auto address = parse_listen_address(in);
    if (!address) continue;
    if (platform::is_ipv4_address(*address)) return *address;
    std::fprintf(stderr, "Kestrune: server.listen '%s' is not an IPv4 address — using 127.0.0.1\n",
                 address->c_str());
    break;
  }
  return "127.0.0.1";
}

}  // namespace kx::launcher

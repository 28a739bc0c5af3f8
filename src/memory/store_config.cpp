#include "memory/store_config.hpp"

#include <fstream>

namespace kx::memory {
namespace {

std::string trim(const std::string& s) {
  const auto first = s.find_first_not_of(" \t\r");
  if (first == std::string::npos) return {};
  return s.substr(first, s.find_last_not_of(" \t\r") - first + 1);
}

}  // namespace

StoreConfig read_store_config(const std::filesystem::path& file) {
  StoreConfig config;
  std::ifstream in(file);
  std::string line;
  while (std::getline(in, line)) {
    const auto eq = line.find('=');
    if (eq == std::string::npos) continue;
    const std::string key = trim(line.substr(0, eq));
    const std::string value = trim(line.substr(eq + 1));
    if (key == "embed")
      config.embed_armed = value == "ARMED";
    else if (key == "embed.url" && !value.empty())
      config.embed_url = value;
    else if (key == "embed.model" && !value.empty())
      config.embed_model = value;
    else if (key == "sync")
      config.sync_each = value == "each";
  }
  return config;
}

bool StoreConfigFollower::follow(const std::filesystem::path& file, StoreConfig& config) {
  if (!check_.may_have_changed(file)) return false;
  config = read_store_config(file);
  return true;
}

std::string write_store_config(const std::filesystem::path& file, const StoreConfig& config) {
  std::ofstream out(file, std::ios::trunc);
  out << "[store]\n"
      << "embed=" << (config.embed_armed ? "ARMED" : "disarmed") << "\n"
      << "embed.url=" << config.embed_url << "\n"
      << "embed.model=" << config.embed_model << "\n"
      << "sync=" << (config.sync_each ? "each" : "group") << "\n";
  out.flush();
  return out ? std::string() : "could not write " + file.string();
}

}  // namespace kx::memory

#include "platform/env.hpp"

#include <cstdlib>

namespace kx::platform {

std::optional<std::string> get_env(const char* name) {
  const char* value = std::getenv(name);
  if (value == nullptr) return std::nullopt;
  return std::string(value);
}

std::optional<std::string> get_env_nonempty(const char* name) {
  auto value = get_env(name);
  if (!value || value->empty()) return std::nullopt;
  return value;
}

}  // namespace kx::platform

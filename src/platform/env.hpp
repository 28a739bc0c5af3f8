#pragma once
// Environment variables of the process.
#include <optional>
#include <string>

namespace kx::platform {

// The variable's value, or nothing when it is not set.
std::optional<std::string> get_env(const char* name);

// The variable's value when it is set and not empty.
std::optional<std::string> get_env_nonempty(const char* name);

}  // namespace kx::platform

namespace kx::platform {

// Sets or removes a variable of this process (tests and child set-up).
void set_env(const char* name, const char* value);
void unset_env(const char* name);

}  // namespace kx::platform

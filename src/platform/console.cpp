#include <atomic>

#include "platform/console.hpp"
#include "platform/env.hpp"

namespace kx::platform {
namespace {
std::atomic<bool> g_color_disabled{false};
}

void set_color_disabled(bool disabled) {
  g_color_disabled = disabled;
}

bool person_at_console() {
  return stdin_is_terminal() && stdout_is_terminal();
}

bool stdout_wants_color() {
  return !g_color_disabled && !get_env("NO_COLOR").has_value() && stdout_is_terminal();
}

}  // namespace kx::platform

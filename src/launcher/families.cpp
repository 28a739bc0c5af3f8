// The one place that knows every command family. Each subsystem contributes one
// registration call; order matters only for the help overview.
#include "launcher/workspace.hpp"

#include "lang/system_family.hpp"

namespace kx::launcher {

std::unique_ptr<Workspace> make_workspace() {
  auto workspace = std::make_unique<Workspace>();
  lang::Registry& registry = workspace->registry;
  lang::register_system_family(registry);
  workspace->session = std::make_unique<lang::Session>(workspace->registry);
  return workspace;
}

}  // namespace kx::launcher

// The one place that knows every command family. Each subsystem contributes one
// registration call; order matters only for the help overview.
#include "launcher/workspace.hpp"

#include <exception>
#include <iostream>

#include "lang/system_family.hpp"
#include "launcher/agent_setup.hpp"
#include "memory/memory_family.hpp"
#include "platform/home.hpp"
#include "search/grep_family.hpp"
#include "vfs/config_follow.hpp"
#include "vfs/file_families.hpp"
#include "vfs/history_families.hpp"

namespace kx::launcher {

std::unique_ptr<Workspace> make_workspace(bool live_watch) {
  auto workspace = std::make_unique<Workspace>();
  lang::Registry& registry = workspace->registry;
  lang::register_system_family(registry);
  // Re-enrollment reports go to standard error: standard output carries results only.
  auto stores = vfs::register_file_families(registry, live_watch);
  vfs::register_lock_and_history_families(registry, stores);
  auto file_watches = vfs::register_file_watches(registry, stores, live_watch);
  // Seen before they are read: a change made meanwhile is followed at the first line.
  auto follower = std::make_shared<kst::ConfigFollower>(stores, file_watches);
  follower->mark_seen();
  vfs::reenroll_from_config(*stores, std::cerr);
  file_watches->resume(std::cerr);
  workspace->stores = stores;
  memory::register_memory_family(registry, platform::contexts_dir());
  search::register_grep(registry, stores);
  register_agent_families(registry);
  register_config_family(registry);
  workspace->session = std::make_unique<lang::Session>(workspace->registry);
  workspace->session->before_line = [follower] {
    try {
      follower->follow(std::cerr);
    } catch (const std::exception& e) {
      std::cerr << "warning: could not follow the enrolled directories or watched files ("
                << e.what() << ")\n";
    }
  };
  return workspace;
}

}  // namespace kx::launcher

#pragma once
// Everything one kx process serves commands from: the registry of families and the
// interpreter session. Subsystem state is created by the family modules when they
// register and is owned by their handlers.
#include <memory>

#include "lang/registry.hpp"
#include "lang/session.hpp"
#include "vfs/store_set.hpp"

namespace kx::launcher {

struct Workspace {
  lang::Registry registry;
  std::unique_ptr<lang::Session> session;
  std::shared_ptr<kst::StoreSet> stores;  // the file families' stores
};

// Registers every family and creates the session. The home directory must be
// settled (override installed) before this is called. `live_watch`: the process lives
// on (resident, interactive or piped session) and watches enrolled trees on threads.
std::unique_ptr<Workspace> make_workspace(bool live_watch);

}  // namespace kx::launcher

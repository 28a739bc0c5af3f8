#pragma once
// The fssys: family: the manual and the help system from the command line.
#include "lang/registry.hpp"

namespace kx::lang {

void register_system_family(Registry& registry);

}  // namespace kx::lang

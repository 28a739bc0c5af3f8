#pragma once
// Registers the "grep" command over the process's stores.
#include <memory>

#include "lang/registry.hpp"
#include "vfs/store_set.hpp"

namespace kx::search {

void register_grep(lang::Registry& registry, std::shared_ptr<kst::StoreSet> stores);

}  // namespace kx::search

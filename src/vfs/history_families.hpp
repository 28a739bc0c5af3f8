#pragma once
// The families "fslock:" (locks) and "fsvctl:" (history, check-out and check-in,
// emits), over the same set of stores as the file families.
#include <memory>

#include "lang/registry.hpp"
#include "vfs/store_set.hpp"

namespace kx::vfs {

// Registers both families. From here on every store of the set, present or added
// later, checks locks before each save; journalled check-outs are taken over.
void register_lock_and_history_families(lang::Registry& registry,
                                        std::shared_ptr<kst::StoreSet> stores);

}  // namespace kx::vfs

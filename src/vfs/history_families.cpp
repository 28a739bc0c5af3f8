#include "vfs/history_families.hpp"

#include <filesystem>

#include "vfs/commands.hpp"
#include "vfs/history_state.hpp"
#include "vfs/path_resolve.hpp"

namespace kx::vfs {

HistoryState::HistoryState(std::shared_ptr<kst::StoreSet> set)
    : stores(std::move(set)),
      locks(*stores, stores->home() / "checkouts.jsonl"),
      emits(stores->home() / "pending_emits.json") {}

Target find_target(kst::StoreSet& stores, std::string_view arg) {
  Target t;
  const std::filesystem::path given(arg);
  t.store = given.is_absolute() ? stores.containing(given) : nullptr;
  if (t.store == nullptr) t.store = stores.active();
  if (t.store == nullptr) {
    t.error = kst::kNoStore;
    return t;
  }
  const kst::Resolved r = kst::resolve_node(*t.store, arg);
  if (!r.error.empty()) {
    t.error = "ERROR: " + r.error;
    return t;
  }
  t.found = r.found;
  t.path = r.path;
  t.is_file = r.found && t.store->find_file(r.path) != nullptr;
  return t;
}

void register_lock_and_history_families(lang::Registry& registry,
                                        std::shared_ptr<kst::StoreSet> stores) {
  auto state = std::make_shared<HistoryState>(stores);
  state->locks.attach_all();
  std::weak_ptr<HistoryState> weak = state;
  stores->on_add([weak](kst::Store& store) {
    if (auto s = weak.lock()) s->locks.attach(store);
  });
  registry.add_family(make_lock_family(state));
  registry.add_family(make_history_family(state));
}

}  // namespace kx::vfs

#include "vfs/emit_plan.hpp"

#include <algorithm>

namespace kst {

const PendingEmit& EmitQueue::add(std::string scope, std::optional<std::int64_t> asof,
                                  std::string requested_by, std::int64_t now) {
  pending_.push_back({next_++, std::move(scope), asof, std::move(requested_by), now});
  return pending_.back();
}

const PendingEmit* EmitQueue::find(std::uint32_t number) const {
  for (const PendingEmit& e : pending_)
    if (e.number == number) return &e;
  return nullptr;
}

std::optional<PendingEmit> EmitQueue::take(std::uint32_t number) {
  auto it = std::find_if(pending_.begin(), pending_.end(),
                         [&](const PendingEmit& e) { return e.number == number; });
  if (it == pending_.end()) return std::nullopt;
  PendingEmit emit = std::move(*it);
  pending_.erase(it);
  return emit;
}

AsOfChoice version_as_of(std::span<const VersionStamp> chain, std::optional<std::int64_t> asof) {
  const VersionStamp* last = nullptr;
  for (const VersionStamp& stamp : chain) {
    if (asof && stamp.at > *asof) break;
    last = &stamp;
  }
  if (last == nullptr) return {AsOfChoice::Kind::not_yet_existing, 0};
  if (last->tombstone) return {AsOfChoice::Kind::deleted, 0};
  return {AsOfChoice::Kind::write, last->version};
}

bool is_human_seat(std::string_view seat) {
  return seat == "cli" || seat == "panel" || seat == "human" || seat == "user";
}

}  // namespace kst

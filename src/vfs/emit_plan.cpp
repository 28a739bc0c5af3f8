#include "vfs/emit_plan.hpp"

#include <algorithm>

#include <nlohmann/json.hpp>

#include "platform/durable_file.hpp"
#include "platform/read_file.hpp"

namespace kst {

EmitQueue::EmitQueue(std::filesystem::path file) : file_(std::move(file)) {}

void EmitQueue::load() {
  if (file_.empty()) return;
  std::string text;
  std::error_code ec;
  if (!std::filesystem::exists(file_, ec)) {
    pending_.clear();
    next_ = 1;
    return;
  }
  if (!kx::platform::read_whole_file(file_, text, 4096)) return;  // keep the last good queue
  const auto json = nlohmann::json::parse(text, nullptr, false);
  if (!json.is_object()) return;  // a damaged file is left alone: the last good queue stays
  pending_.clear();
  next_ = json.value("next", 1u);
  for (const auto& e : json.value("pending", nlohmann::json::array())) {
    if (!e.is_object()) continue;
    PendingEmit p;
    p.number = e.value("number", 0u);
    p.scope = e.value("scope", std::string());
    if (e.contains("asof") && e["asof"].is_number_integer()) p.asof = e["asof"].get<std::int64_t>();
    p.requested_by = e.value("by", std::string());
    p.requested_at = e.value("at", std::int64_t{0});
    next_ = std::max(next_, p.number + 1);
    pending_.push_back(std::move(p));
  }
}

bool EmitQueue::save(std::string& error) const {
  if (file_.empty()) return true;
  nlohmann::json list = nlohmann::json::array();
  for (const PendingEmit& e : pending_) {
    nlohmann::json j = {
        {"number", e.number}, {"scope", e.scope}, {"by", e.requested_by}, {"at", e.requested_at}};
    if (e.asof) j["asof"] = *e.asof;
    list.push_back(std::move(j));
  }
  const nlohmann::json all = {{"next", next_}, {"pending", std::move(list)}};
  return kx::platform::replace_file_durable(
      file_, all.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace) + "\n", error);
}

const PendingEmit* EmitQueue::add(std::string scope, std::optional<std::int64_t> asof,
                                  std::string requested_by, std::int64_t now, std::string& error) {
  load();
  pending_.push_back({next_++, std::move(scope), asof, std::move(requested_by), now});
  if (!save(error)) {
    load();  // back to what the file holds
    return nullptr;
  }
  return &pending_.back();
}

const std::vector<PendingEmit>& EmitQueue::pending() {
  load();
  return pending_;
}

const PendingEmit* EmitQueue::find(std::uint32_t number) {
  load();
  for (const PendingEmit& e : pending_)
    if (e.number == number) return &e;
  return nullptr;
}

std::optional<PendingEmit> EmitQueue::take(std::uint32_t number) {
  load();
  auto it = std::find_if(pending_.begin(), pending_.end(),
                         [&](const PendingEmit& e) { return e.number == number; });
  if (it == pending_.end()) return std::nullopt;
  PendingEmit emit = std::move(*it);
  pending_.erase(it);
  std::string error;
  if (!save(error)) {
    load();
    return std::nullopt;
  }
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

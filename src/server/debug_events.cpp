#include "server/debug_events.hpp"

namespace kx::server {

void DebugEvents::log(std::string json_object) {
  std::lock_guard guard(lock_);
  events_.emplace_back(++last_seq_, std::move(json_object));
  if (events_.size() > kCapacity) events_.pop_front();
}

std::string DebugEvents::since_json(std::uint64_t since) {
  std::lock_guard guard(lock_);
  std::string out = "{\"ok\":true,\"seq\":" + std::to_string(last_seq_) + ",\"events\":[";
  bool first = true;
  for (auto& [seq, event] : events_) {
    if (seq <= since) continue;
    if (!first) out += ',';
    first = false;
    out += event;
  }
  out += "]}";
  return out;
}

}  // namespace kx::server

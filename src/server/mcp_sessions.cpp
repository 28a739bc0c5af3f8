#include "server/mcp_sessions.hpp"

#include "platform/owner_only_file.hpp"

namespace kx::server {
namespace {

// Adds `id` to a bounded set, forgetting the oldest entry when full.
void remember(std::set<std::string>& set, std::deque<std::string>& order, const std::string& id,
              std::size_t cap) {
  if (!set.insert(id).second) return;
  order.push_back(id);
  if (order.size() > cap) {
    set.erase(order.front());
    order.pop_front();
  }
}

}  // namespace

std::string McpSessions::begin() {
  unsigned char bytes[16];
  if (!platform::secure_random(bytes, sizeof bytes)) return {};
  static constexpr char kHex[] = "0123456789abcdef";
  std::string id;
  for (unsigned char b : bytes) {
    id += kHex[b >> 4];
    id += kHex[b & 0xf];
  }
  std::lock_guard guard(lock_);
  remember(live_, live_order_, id, kRemembered);
  return id;
}

bool McpSessions::ended(const std::string& id) {
  std::lock_guard guard(lock_);
  return ended_.contains(id);
}

McpSessions::End McpSessions::end(const std::string& id) {
  std::lock_guard guard(lock_);
  if (ended_.contains(id)) return End::kAlreadyEnded;
  if (live_.erase(id) == 0) return End::kUnknown;
  std::erase(live_order_, id);
  remember(ended_, ended_order_, id, kRemembered);
  return End::kEnded;
}

}  // namespace kx::server

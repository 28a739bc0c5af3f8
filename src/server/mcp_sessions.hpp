#pragma once
// Streamable HTTP sessions of "/mcp": an id handed out with each initialize answer
// ("Mcp-Session-Id") and ended by the client with DELETE. A request naming an ended
// session is refused (404), which tells the client to initialize again. Ids this
// process never handed out (a client that outlived a restart) and requests naming no
// session are served: the tools keep no per-session state, so the id only marks an end.
#include <cstddef>
#include <deque>
#include <mutex>
#include <set>
#include <string>

namespace kx::server {

class McpSessions {
 public:
  // A fresh id (32 hex digits); empty when no random bytes could be had.
  std::string begin();
  // Whether `id` names a session that was ended.
  bool ended(const std::string& id);
  enum class End { kEnded, kAlreadyEnded, kUnknown };
  End end(const std::string& id);

 private:
  static constexpr std::size_t kRemembered = 4096;  // the oldest are forgotten first
  std::mutex lock_;
  std::set<std::string> live_;
  std::deque<std::string> live_order_;
  std::set<std::string> ended_;
  std::deque<std::string> ended_order_;
};

}  // namespace kx::server

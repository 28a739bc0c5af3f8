#pragma once
// A small ring of recent debug events, read by "/debug/stream?since=N". Each event
// is a JSON object written by whoever logged it; the ring numbers them.
#include <cstdint>
#include <deque>
#include <mutex>
#include <string>

namespace kx::server {

class DebugEvents {
 public:
  static constexpr std::size_t kCapacity = 1000;

  void log(std::string json_object);
  // {"ok":true,"seq":<latest>,"events":[...]} with the events after `since`.
  std::string since_json(std::uint64_t since);

 private:
  std::mutex lock_;
  std::uint64_t last_seq_ = 0;
  std::deque<std::pair<std::uint64_t, std::string>> events_;
};

}  // namespace kx::server

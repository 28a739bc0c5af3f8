#pragma once
// Readiness of many sockets for one thread: the thread registers sockets with
// what it waits for, then sleeps until some are ready or another thread wakes it.
// Level-triggered: a socket stays ready until it has been read or written.
#include <cstdint>
#include <memory>
#include <vector>

#include "platform/socket.hpp"

namespace kx::platform {

class Poller {
 public:
  enum Interest : unsigned { kNone = 0, kRead = 1, kWrite = 2 };

  struct Event {
    std::uint64_t key = 0;
    bool readable = false;
    bool writable = false;
    bool failed = false;  // an error or a hang-up: the next receive or send says which
  };

  Poller();
  ~Poller();
  Poller(const Poller&) = delete;
  Poller& operator=(const Poller&) = delete;

  bool valid() const;

  // Registration belongs to the waiting thread. A socket is removed before it closes.
  bool add(const Socket& socket, std::uint64_t key, unsigned interest);
  bool modify(const Socket& socket, std::uint64_t key, unsigned interest);
  void remove(const Socket& socket);

  // Waits up to `timeout_millis` (-1: no limit) and replaces `events` with what
  // became ready. A wake() ends the wait and shows up as no event of its own.
  void wait(std::vector<Event>& events, int timeout_millis);

  // Ends the current or the next wait; any thread may call it.
  void wake();

 private:
  struct Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace kx::platform

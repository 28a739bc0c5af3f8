#pragma once
// How other threads reach the connection loop: a finished handler posts its
// answer, a WebSocket sender marks its connection as having output. Both wake the
// loop's poller. Shared by pointer with everything that may outlive the loop.
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "platform/poller.hpp"

namespace kx::server {

class WebSocketLink;

// What a handler left for its connection.
struct Completion {
  std::uint64_t id = 0;
  std::string bytes;                    // the answer; for an upgrade, bytes after the head
  std::function<void()> after_sent;     // runs once the answer is out
  std::shared_ptr<WebSocketLink> link;  // set: the connection now carries frames
  bool drop = false;                    // close without an answer
};

class LoopMailbox {
 public:
  platform::Poller& poller() { return poller_; }

  void post(Completion done) {
    {
      std::lock_guard guard(lock_);
      done_.push_back(std::move(done));
    }
    poller_.wake();
  }
  void touch(std::uint64_t id) {
    {
      std::lock_guard guard(lock_);
      touched_.push_back(id);
    }
    poller_.wake();
  }
  // The loop takes everything posted since it last looked.
  void take(std::vector<Completion>& done, std::vector<std::uint64_t>& touched) {
    std::lock_guard guard(lock_);
    done.swap(done_);
    touched.swap(touched_);
  }

 private:
  platform::Poller poller_;
  std::mutex lock_;
  std::vector<Completion> done_;
  std::vector<std::uint64_t> touched_;
};

}  // namespace kx::server

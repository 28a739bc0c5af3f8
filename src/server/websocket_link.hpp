#pragma once
// One WebSocket connection between the loop and its endpoint.
//
// Out: the endpoint's sends (from any thread) queue frames here and the loop
// writes them. A sender waits while a full queue's worth is unsent, and gives up,
// cutting the connection, when the peer takes nothing for the send time-out: a
// consumer that never reads is closed, not buffered without end.
//
// In: the loop hands over whole messages; they reach the session's callbacks one
// at a time and in order, on a worker, followed by on_close exactly once.
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>
#include <string>

#include "server/loop_mailbox.hpp"
#include "server/websocket_endpoint.hpp"

namespace kx::server {

class WebSocketLink final : public WebSocketOutlet {
 public:
  WebSocketLink(std::shared_ptr<LoopMailbox> mailbox, std::uint64_t id, std::size_t queue_limit,
                std::chrono::milliseconds send_timeout);

  // The endpoint's side.
  bool send_text(std::string_view message) override;
  bool send_binary(std::string_view message) override;
  void close(std::uint16_t code) override;

  // The loop's side. Queues bytes without waiting (the handshake, pongs).
  void queue_now(std::string_view bytes);
  // Moves what is queued to `out`. `finished`: the endpoint closed and all is out;
  // `broken`: a sender gave up on the peer.
  void take(std::string& out, bool& finished, bool& broken);
  // The connection is gone: every later send fails, waiting senders return.
  void end();

  enum class Event { kMessage, kPeerClosed, kGone };
  // Queues an event for the session; true when the caller must start drain() on a
  // worker (no drain is under way).
  bool deliver(Event event, std::string message = {}, bool binary = false);
  // Bytes of messages handed over and not yet handled.
  std::size_t backlog() const { return backlog_.load(); }
  // The loop stopped reading for the backlog; the link touches the loop once it
  // has worked it down.
  void pause_reading() { paused_.store(true); }
  bool reading_paused() const { return paused_.load(); }

  // The opener's side: the session is ready; handles what arrived meanwhile.
  void start(WebSocketSession session);
  // Handles queued events until none is left.
  void drain();

 private:
  bool send(int opcode, std::string_view payload);

  std::shared_ptr<LoopMailbox> mailbox_;
  const std::uint64_t id_;
  const std::size_t queue_limit_;
  const std::chrono::milliseconds send_timeout_;

  std::mutex out_lock_;
  std::condition_variable room_;
  std::string queued_;
  bool ended_ = false;      // no send is accepted any more
  bool finishing_ = false;  // the endpoint closed: the loop ends after the queue
  bool broken_ = false;

  struct Pending {
    Event event;
    std::string message;
    bool binary;
  };
  std::mutex in_lock_;
  std::deque<Pending> inbox_;
  bool draining_ = true;  // held by the opener until start()
  bool closed_ = false;   // on_close has run
  std::atomic<std::size_t> backlog_{0};
  std::atomic<bool> paused_{false};
  WebSocketSession session_;
};

}  // namespace kx::server

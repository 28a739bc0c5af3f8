// The connection loop: one thread owns the listener and every connection and
// waits on all of them at once. A connection reads its request within the
// time-outs, goes to a worker for its answer, writes it without blocking anyone,
// then closes lingering; an upgrade stays as a WebSocket whose frames the loop
// parses and whose messages the link hands to the endpoint in order.
#include <algorithm>
#include <chrono>
#include <deque>
#include <memory>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

#include "lang/text.hpp"
#include "server/http_request.hpp"
#include "server/http_response.hpp"
#include "server/request_reader.hpp"
#include "server/router.hpp"
#include "server/server_state.hpp"
#include "server/websocket_frame.hpp"
#include "server/websocket_link.hpp"

namespace kx::server {
namespace {

using Clock = std::chrono::steady_clock;
using Millis = std::chrono::milliseconds;

constexpr std::uint64_t kListenerKey = 0;
constexpr std::size_t kChunk = 4096;  // the head limit is checked per chunk of this size
constexpr int kReadsPerTurn = 32;     // chunks one connection may take before the others' turn
constexpr int kAcceptsPerTurn = 256;
constexpr Millis kTick(100);         // time-outs are checked this often
constexpr Millis kPoolCheck(5);      // how soon jobs stuck behind long ones are looked at
constexpr Millis kAcceptPause(100);  // after the system refused a connection (no descriptors)

enum class Phase { kReading, kWorking, kWriting, kLingering, kWebSocket };

struct Connection {
  std::uint64_t id = 0;
  platform::Socket socket;
  std::uint32_t peer = 0;
  bool loopback = false;
  Phase phase = Phase::kReading;
  bool registered = true;  // false once the poller reported it failed while working
  unsigned interest = platform::Poller::kRead;
  RequestReader reader;
  Clock::time_point request_deadline;
  Clock::time_point wait_deadline;  // the receive, send or linger time-out
  std::string out;
  std::size_t sent = 0;
  std::function<void()> after_sent;
  // WebSocket
  std::shared_ptr<WebSocketLink> link;
  std::string frames;
  MessageAssembler assembler;
  bool peer_closed = false;
  bool paused = false;
};

bool is_loopback_peer(std::uint32_t ipv4) {
  return (ipv4 >> 24) == 127;
}

// On a worker: the answer to one complete request.
void answer_request(const std::shared_ptr<ServerState>& state, std::uint64_t id, Request& request) {
  Completion done;
  done.id = id;
  try {
    if (lang::to_lower(request.header("upgrade")) == "websocket") {
      if (auto refusal = websocket_refusal(*state, request)) {
        done.bytes = format_response(*refusal);
      } else {
        open_websocket(state, id, request);
        return;
      }
    } else {
      RouteEffects effects;
      done.bytes = format_response(route_request(*state, request, effects));
      done.after_sent = std::move(effects.after_response);
    }
  } catch (...) {
    // Out of memory or a bug in one handler ends that connection, not the resident.
    done = Completion{};
    done.id = id;
    done.drop = true;
  }
  state->mailbox->post(std::move(done));
}

class ConnectionLoop {
 public:
  explicit ConnectionLoop(std::shared_ptr<ServerState> state)
      : state_(std::move(state)),
        limits_(state_->options.limits),
        poller_(state_->mailbox->poller()) {}

  void run() {
    platform::set_nonblocking(state_->listener);
    poller_.add(state_->listener, kListenerKey, platform::Poller::kRead);
    std::vector<platform::Poller::Event> events;
    std::vector<Completion> done;
    std::vector<std::uint64_t> touched;
    Clock::time_point next_sweep = Clock::now() + kTick;
    while (!state_->stopping.load()) {
      // Jobs queued behind long ones get a thread soon, even with no new request.
      bool waiting = state_->workers.jobs_waiting();
      if (waiting) state_->workers.maintain();
      poller_.wait(events, static_cast<int>(waiting ? kPoolCheck.count() : kTick.count()));
      now_ = Clock::now();
      for (const auto& event : events) {
        if (event.key == kListenerKey)
          accept_waiting();
        else
          on_event(event);
      }
      state_->mailbox->take(done, touched);
      for (Completion& completion : done) on_completion(std::move(completion));
      for (std::uint64_t id : touched) on_touched(id);
      done.clear();
      touched.clear();
      if (now_ >= next_sweep) {
        sweep();
        next_sweep = now_ + kTick;
      }
    }
    poller_.remove(state_->listener);
    while (!connections_.empty()) close_connection(*connections_.begin()->second);
  }

 private:
  // Listener
  void accept_waiting() {
    for (int i = 0; i < kAcceptsPerTurn; ++i) {
      platform::Accepted accepted;
      platform::AcceptStatus status = platform::accept_now(state_->listener, accepted);
      if (status == platform::AcceptStatus::kNone) return;
      if (status == platform::AcceptStatus::kFailed) {
        // Out of descriptors, most likely: the listener stays ready, so stop
        // looking at it for a moment instead of spinning.
        poller_.modify(state_->listener, kListenerKey, platform::Poller::kNone);
        accept_paused_until_ = now_ + kAcceptPause;
        return;
      }
      add_connection(std::move(accepted));
    }
  }

  void add_connection(platform::Accepted accepted) {
    auto connection = std::make_unique<Connection>();
    Connection& c = *connection;
    c.id = next_id_++;
    c.socket = std::move(accepted.socket);
    c.loopback = is_loopback_peer(accepted.peer_ipv4);
    // Every address of this machine is one peer: 127.0.0.2 is no way around the cap.
    c.peer = c.loopback ? 0x7f000001 : accepted.peer_ipv4;
    c.request_deadline = now_ + Millis(limits_.request_deadline_millis);
    c.wait_deadline = now_ + Millis(limits_.receive_timeout_millis);
    if (!poller_.add(c.socket, c.id, c.interest)) return;  // closes on scope exit
    connections_.emplace(c.id, std::move(connection));
    state_->active.fetch_add(1);
    PeerQueue& queue = reading_[c.peer];
    queue.order.push_back(c.id);
    ++queue.count;
    if (queue.count > limits_.idle_per_peer) evict_oldest(queue, c.id);
  }

  // Per peer: connections still sending their request, oldest first. Ids of
  // connections that moved on stay in `order` until they reach its front.
  struct PeerQueue {
    std::deque<std::uint64_t> order;
    int count = 0;
  };

  void evict_oldest(PeerQueue& queue, std::uint64_t newest) {
    while (!queue.order.empty()) {
      std::uint64_t id = queue.order.front();
      queue.order.pop_front();
      Connection* c = find(id);
      if (c != nullptr && c->phase == Phase::kReading && id != newest) {
        close_connection(*c);
        return;
      }
    }
  }

  void leave_reading(Connection& c) {
    auto found = reading_.find(c.peer);
    if (found == reading_.end()) return;
    PeerQueue& queue = found->second;
    if (--queue.count == 0) {
      reading_.erase(found);
    } else if (queue.order.size() > 64 &&
               queue.order.size() > 2 * static_cast<std::size_t>(queue.count)) {
      std::erase_if(queue.order, [&](std::uint64_t id) {
        Connection* other = find(id);
        return other == nullptr || other->phase != Phase::kReading || id == c.id;
      });
    }
  }

  Connection* find(std::uint64_t id) {
    auto found = connections_.find(id);
    return found == connections_.end() ? nullptr : found->second.get();
  }

  void set_interest(Connection& c, unsigned interest) {
    if (!c.registered || c.interest == interest) return;
    c.interest = interest;
    poller_.modify(c.socket, c.id, interest);
  }

  void close_connection(Connection& c) {
    if (c.phase == Phase::kReading) leave_reading(c);
    if (c.registered) poller_.remove(c.socket);
    if (c.link) {
      c.link->end();
      deliver(c, WebSocketLink::Event::kGone);
    }
    c.socket.close();
    state_->active.fetch_sub(1);
    std::uint64_t id = c.id;
    connections_.erase(id);  // `c` is gone from here on
  }

  // Events
  void on_event(const platform::Poller::Event& event) {
    Connection* c = find(event.key);
    if (c == nullptr) return;
    if (c->phase == Phase::kWorking) {
      // Only a failure is reported while a worker has the request; it would be
      // reported again on every wait, so stop watching until the answer comes.
      if (event.failed) {
        poller_.remove(c->socket);
        c->registered = false;
      }
      return;
    }
    std::uint64_t id = c->id;
    if (event.readable || event.failed) on_readable(*c);
    if (event.writable && (c = find(id)) != nullptr) flush(*c);
  }

  void on_readable(Connection& c) {
    char chunk[kChunk];
    for (int i = 0; i < kReadsPerTurn; ++i) {
      long n = platform::receive_now(c.socket, chunk, sizeof chunk);
      if (n == platform::kWouldBlock) break;
      if (n <= 0) {
        peer_stopped(c);
        return;
      }
      std::string_view got(chunk, static_cast<std::size_t>(n));
      if (c.phase == Phase::kReading) {
        c.wait_deadline = now_ + Millis(limits_.receive_timeout_millis);
        if (c.reader.feed(got) != RequestReader::State::kNeedMore) break;
      } else if (c.phase == Phase::kWebSocket) {
        c.frames.append(got);
        if (c.frames.size() > kMaxFramePayload + 16) break;  // parse before taking more
      }
      // Lingering: what the peer still sends is dropped.
    }
    if (c.phase == Phase::kReading)
      request_progress(c);
    else if (c.phase == Phase::kWebSocket)
      read_frames(c);
  }

  // The peer closed, failed or timed out.
  void peer_stopped(Connection& c) {
    if (c.phase == Phase::kReading) {
      c.reader.end_of_input();
      request_progress(c);
      return;
    }
    close_connection(c);
  }

  void request_progress(Connection& c) {
    switch (c.reader.state()) {
      case RequestReader::State::kNeedMore:
        return;
      case RequestReader::State::kDrop:
        close_connection(c);
        return;
      case RequestReader::State::kDone:
        break;
    }
    leave_reading(c);
    c.phase = Phase::kWorking;
    set_interest(c, platform::Poller::kNone);
    auto request = std::make_shared<Request>(std::move(c.reader.request()));
    request->loopback = c.loopback;
    c.reader = RequestReader{};
    std::shared_ptr<ServerState> state = state_;
    state_->workers.submit([state, id = c.id, request] { answer_request(state, id, *request); });
  }

  void on_completion(Completion done) {
    Connection* c = find(done.id);
    if (c == nullptr || c->phase != Phase::kWorking) {
      if (done.link) {
        done.link->end();
        if (done.link->deliver(WebSocketLink::Event::kGone)) start_drain(done.link);
      }
      return;
    }
    if (!c->registered || done.drop) {
      if (done.link) c->link = std::move(done.link);
      close_connection(*c);
      return;
    }
    c->wait_deadline = now_ + Millis(limits_.send_timeout_millis);
    if (done.link) {
      c->phase = Phase::kWebSocket;
      c->link = std::move(done.link);
      c->frames = std::move(done.bytes);
      platform::set_no_delay(c->socket);
      std::uint64_t id = c->id;
      flush(*c);
      if ((c = find(id)) != nullptr) read_frames(*c);
      return;
    }
    c->phase = Phase::kWriting;
    c->out = std::move(done.bytes);
    c->after_sent = std::move(done.after_sent);
    flush(*c);
  }

  void on_touched(std::uint64_t id) {
    Connection* c = find(id);
    if (c == nullptr || c->phase != Phase::kWebSocket) return;
    if (c->paused && !c->link->reading_paused()) {
      c->paused = false;
      read_frames(*c);
      if ((c = find(id)) == nullptr) return;
    }
    flush(*c);
  }

  // Output
  void flush(Connection& c) {
    for (;;) {
      if (c.sent == c.out.size()) {
        c.out.clear();
        c.sent = 0;
        if (c.phase == Phase::kWriting) {
          answered(c);
          return;
        }
        if (c.phase != Phase::kWebSocket) return;
        bool finished = false;
        bool broken = false;
        c.link->take(c.out, finished, broken);
        if (broken || (finished && c.out.empty())) {
          close_connection(c);
          return;
        }
        if (c.out.empty()) {
          update_websocket_interest(c);
          return;
        }
        c.wait_deadline = now_ + Millis(limits_.send_timeout_millis);
      }
      long n = platform::send_now(c.socket, std::string_view(c.out).substr(c.sent));
      if (n == platform::kWouldBlock) break;
      if (n < 0) {
        close_connection(c);
        return;
      }
      c.sent += static_cast<std::size_t>(n);
      c.wait_deadline = now_ + Millis(limits_.send_timeout_millis);
    }
    if (c.phase == Phase::kWebSocket)
      update_websocket_interest(c);
    else
      set_interest(c, platform::Poller::kWrite);
  }

  void update_websocket_interest(Connection& c) {
    unsigned interest = platform::Poller::kNone;
    if (!c.peer_closed && !c.paused) interest |= platform::Poller::kRead;
    if (c.sent < c.out.size()) interest |= platform::Poller::kWrite;
    set_interest(c, interest);
  }

  // The answer is out: end our side and drain the peer until it closes, so that
  // it reads the whole answer instead of a reset.
  void answered(Connection& c) {
    platform::shutdown_send(c.socket);
    if (c.after_sent) {
      state_->workers.submit(std::move(c.after_sent));
      c.after_sent = nullptr;
    }
    c.phase = Phase::kLingering;
    c.wait_deadline = now_ + Millis(limits_.linger_millis);
    set_interest(c, platform::Poller::kRead);
  }

  // WebSocket input
  void read_frames(Connection& c) {
    while (!c.peer_closed && !c.paused) {
      Frame frame;
      std::size_t consumed = 0;
      FrameStatus status = parse_frame(c.frames, frame, consumed);
      if (status == FrameStatus::kTooLarge) {
        close_connection(c);
        return;
      }
      if (status == FrameStatus::kNeedMore) break;
      c.frames.erase(0, consumed);
      FrameAction action = c.assembler.feed(std::move(frame));
      switch (action.kind) {
        case FrameAction::kClose:
          c.peer_closed = true;
          c.frames.clear();
          deliver(c, WebSocketLink::Event::kPeerClosed);
          break;
        case FrameAction::kTooLarge:
          close_connection(c);
          return;
        case FrameAction::kPong:
          c.link->queue_now(encode_frame(kPong, action.data));
          if (c.sent == c.out.size()) {
            std::uint64_t id = c.id;
            flush(c);
            if (find(id) == nullptr) return;
          }
          break;
        case FrameAction::kMessage:
          deliver(c, WebSocketLink::Event::kMessage, std::move(action.data), action.binary);
          if (c.link->backlog() > limits_.websocket_queue_bytes * 4) {
            // The endpoint lags: let TCP hold the peer back instead of our memory.
            c.link->pause_reading();
            c.paused = true;
          }
          break;
        case FrameAction::kNone:
          break;
      }
    }
    update_websocket_interest(c);
  }

  void deliver(Connection& c, WebSocketLink::Event event, std::string message = {},
               bool binary = false) {
    if (c.link->deliver(event, std::move(message), binary)) start_drain(c.link);
  }

  // The state goes along: the session's callbacks use it, to the last on_close.
  void start_drain(const std::shared_ptr<WebSocketLink>& link) {
    state_->workers.submit([state = state_, link] { link->drain(); });
  }

  // Time-outs
  void sweep() {
    if (accept_paused_until_ && now_ >= *accept_paused_until_) {
      poller_.modify(state_->listener, kListenerKey, platform::Poller::kRead);
      accept_paused_until_.reset();
    }
    expired_.clear();
    for (auto& [id, connection] : connections_) {
      const Connection& c = *connection;
      bool expired = false;
      switch (c.phase) {
        case Phase::kReading:
          expired = now_ >= c.wait_deadline || now_ >= c.request_deadline;
          break;
        case Phase::kWriting:
        case Phase::kLingering:
          expired = now_ >= c.wait_deadline;
          break;
        case Phase::kWebSocket:
          expired = c.sent < c.out.size() && now_ >= c.wait_deadline;
          break;
        case Phase::kWorking:
          break;
      }
      if (expired) expired_.push_back(id);
    }
    for (std::uint64_t id : expired_)
      if (Connection* c = find(id)) peer_stopped(*c);
  }

  std::shared_ptr<ServerState> state_;
  const ServerLimits limits_;
  platform::Poller& poller_;
  Clock::time_point now_ = Clock::now();
  std::uint64_t next_id_ = 1;
  std::unordered_map<std::uint64_t, std::unique_ptr<Connection>> connections_;
  std::unordered_map<std::uint32_t, PeerQueue> reading_;
  std::vector<std::uint64_t> expired_;
  std::optional<Clock::time_point> accept_paused_until_;
};

}  // namespace

void run_connection_loop(const std::shared_ptr<ServerState>& state) {
  ConnectionLoop(state).run();
}

}  // namespace kx::server

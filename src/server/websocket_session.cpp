// The WebSocket side of a connection: admission, the link between the loop and
// the endpoint, and the handshake that hands an upgrade over to the endpoint.
#include <memory>
#include <mutex>

#include "server/http_request.hpp"
#include "server/router.hpp"
#include "server/server_state.hpp"
#include "server/sha1.hpp"
#include "server/websocket_endpoint.hpp"
#include "server/websocket_frame.hpp"
#include "server/websocket_link.hpp"

namespace kx::server {

WebSocketLink::WebSocketLink(std::shared_ptr<LoopMailbox> mailbox, std::uint64_t id,
                             std::size_t queue_limit, std::chrono::milliseconds send_timeout)
    : mailbox_(std::move(mailbox)),
      id_(id),
      queue_limit_(queue_limit),
      send_timeout_(send_timeout) {}

bool WebSocketLink::send_text(std::string_view message) {
  return send(kTextFrame, message);
}

bool WebSocketLink::send_binary(std::string_view message) {
  return send(kBinaryFrame, message);
}

bool WebSocketLink::send(int opcode, std::string_view payload) {
  std::string frame = encode_frame(opcode, payload);
  std::unique_lock guard(out_lock_);
  if (ended_) return false;
  if (queued_.size() >= queue_limit_ && !room_.wait_for(guard, send_timeout_, [&] {
        return ended_ || queued_.size() < queue_limit_;
      })) {
    // The peer took nothing for the whole time-out: cut it off instead of
    // stalling every later delivery.
    ended_ = true;
    broken_ = true;
    guard.unlock();
    mailbox_->touch(id_);
    return false;
  }
  if (ended_) return false;
  bool was_empty = queued_.empty();
  queued_ += frame;
  guard.unlock();
  if (was_empty) mailbox_->touch(id_);
  return true;
}

void WebSocketLink::close(std::uint16_t code) {
  std::string payload{static_cast<char>(code >> 8), static_cast<char>(code & 0xff)};
  {
    std::lock_guard guard(out_lock_);
    if (ended_) return;
    queued_ += encode_frame(kClose, payload);
    ended_ = true;
    finishing_ = true;
  }
  mailbox_->touch(id_);
}

void WebSocketLink::queue_now(std::string_view bytes) {
  std::lock_guard guard(out_lock_);
  if (!broken_) queued_ += bytes;
}

void WebSocketLink::take(std::string& out, bool& finished, bool& broken) {
  std::lock_guard guard(out_lock_);
  out += queued_;
  queued_.clear();
  finished = finishing_;
  broken = broken_;
  room_.notify_all();
}

void WebSocketLink::end() {
  std::lock_guard guard(out_lock_);
  ended_ = true;
  queued_.clear();
  room_.notify_all();
}

bool WebSocketLink::deliver(Event event, std::string message, bool binary) {
  std::lock_guard guard(in_lock_);
  backlog_ += message.size();
  inbox_.push_back({event, std::move(message), binary});
  if (draining_) return false;
  draining_ = true;
  return true;
}

void WebSocketLink::start(WebSocketSession session) {
  session_ = std::move(session);
  drain();
}

void WebSocketLink::drain() {
  for (;;) {
    Pending next;
    {
      std::lock_guard guard(in_lock_);
      if (inbox_.empty() || closed_) {
        inbox_.clear();
        draining_ = false;
        return;
      }
      next = std::move(inbox_.front());
      inbox_.pop_front();
    }
    std::size_t size = next.message.size();
    switch (next.event) {
      case Event::kMessage:
        if (session_.on_message) session_.on_message(std::move(next.message), next.binary);
        break;
      case Event::kPeerClosed:
        // Answered only now, so that replies to earlier messages go out before it.
        close(1000);
        [[fallthrough]];
      case Event::kGone:
        if (next.event == Event::kGone) end();
        {
          std::lock_guard guard(in_lock_);
          closed_ = true;
        }
        if (session_.on_close) session_.on_close();
        break;
    }
    backlog_ -= size;
    if (paused_.load() && backlog_.load() < queue_limit_ / 2) {
      paused_.store(false);
      mailbox_->touch(id_);
    }
  }
}

std::optional<Response> websocket_refusal(ServerState& state, const Request& request) {
  if (!admits_websocket(state, request))
    return json_response(
        "403 Forbidden",
        R"({"ok":false,"error":"a WebSocket needs this resident's token and its own origin: open the UI with `kx gui`"})");
  const WebSocketEndpoint* endpoint = find_websocket_endpoint(request.path);
  if (endpoint == nullptr)
    return json_response("404 Not Found", R"({"ok":false,"error":"no such WebSocket endpoint"})");
  if (endpoint->refusal != nullptr) return endpoint->refusal(state, request);
  return std::nullopt;
}

void open_websocket(const std::shared_ptr<ServerState>& state, std::uint64_t id, Request& request) {
  Completion done;
  done.id = id;
  const WebSocketEndpoint* endpoint = find_websocket_endpoint(request.path);
  const std::string& key = request.header("sec-websocket-key");
  if (endpoint == nullptr || key.empty()) {
    done.drop = true;
    state->mailbox->post(std::move(done));
    return;
  }
  const ServerLimits& limits = state->options.limits;
  auto link =
      std::make_shared<WebSocketLink>(state->mailbox, id, limits.websocket_queue_bytes,
                                      std::chrono::milliseconds(limits.send_timeout_millis));
  link->queue_now(
      "HTTP/1.1 101 Switching Protocols\r\nUpgrade: websocket\r\nConnection: Upgrade\r\n"
      "Sec-WebSocket-Accept: " +
      websocket_accept_key(key) + "\r\n\r\n");
  // The loop takes the connection over now, so that what the endpoint sends while
  // it opens (a history replay) flows out instead of filling the queue.
  done.link = link;
  done.bytes = std::move(request.body);
  state->mailbox->post(std::move(done));
  WebSocketSession session;
  try {
    session = endpoint->open(*state, request, link);
  } catch (...) {
    link->close(1011);
  }
  link->start(std::move(session));
}

}  // namespace kx::server

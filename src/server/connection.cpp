// One connection, from accept to close: read the request within its limits,
// answer it (or hand the socket to the WebSocket loop), then close lingering.
#include <chrono>
#include <string>

#include "server/http_request.hpp"
#include "server/http_response.hpp"
#include "server/router.hpp"
#include "server/server_state.hpp"

namespace kx::server {
namespace {

constexpr int kReceiveTimeoutMillis = 15000;
constexpr int kLingerMillis = 2000;
// A request trickling in byte by byte still ends here, whatever each receive does.
constexpr auto kRequestDeadline = std::chrono::seconds(60);
constexpr std::size_t kChunk = 4096;

using Clock = std::chrono::steady_clock;

// Receives one chunk, never waiting past the deadline. False: peer gone, error
// or time-out.
bool receive_chunk(const platform::Socket& socket, std::string& buffer,
                   Clock::time_point deadline) {
  auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now());
  if (left.count() <= 0) return false;
  int wait = static_cast<int>(std::min<long long>(left.count(), kReceiveTimeoutMillis));
  platform::set_receive_timeout(socket, std::max(wait, 1));
  char chunk[kChunk];
  long n = platform::receive_some(socket, chunk, sizeof chunk);
  if (n <= 0) return false;
  buffer.append(chunk, static_cast<std::size_t>(n));
  return true;
}

// Reads head and body. False means: close without an answer.
bool read_request(const platform::Socket& socket, Request& request) {
  const auto deadline = Clock::now() + kRequestDeadline;
  std::string buffer;
  std::size_t head_end;
  std::size_t scanned = 0;
  for (;;) {
    head_end = find_head_end(buffer, scanned);
    if (head_end != std::string::npos) break;
    scanned = buffer.size() >= 3 ? buffer.size() - 3 : 0;
    if (buffer.size() > kMaxHeadBytes) return false;
    if (!receive_chunk(socket, buffer, deadline)) return false;
  }
  parse_head(std::string_view(buffer).substr(0, head_end), request);
  request.body = buffer.substr(head_end + 4);
  if (request.method == "POST") {
    std::size_t length = content_length(request);
    if (length > kMaxBodyBytes) return false;  // silent on purpose: no 413 for a body this size
    while (request.body.size() < length) {
      if (!receive_chunk(socket, request.body, deadline)) break;
    }
    if (request.body.size() > length) request.body.resize(length);
  }
  platform::set_receive_timeout(socket, 0);
  return true;
}

// Ends our side, then drains what the peer still sends so that it reads the whole
// answer instead of a reset.
void lingering_close(platform::Socket& socket) {
  platform::shutdown_send(socket);
  platform::set_receive_timeout(socket, kLingerMillis);
  const auto deadline = Clock::now() + std::chrono::milliseconds(kLingerMillis);
  char sink[512];
  while (Clock::now() < deadline && platform::receive_some(socket, sink, sizeof sink) > 0) {
  }
  socket.close();
}

std::string lower(std::string text) {
  for (char& c : text)
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
  return text;
}

}  // namespace

void handle_connection(std::shared_ptr<ServerState> state, platform::Socket socket, bool loopback) {
  Request request;
  request.loopback = loopback;
  if (!read_request(socket, request)) {
    socket.close();
    return;
  }
  if (lower(request.header("upgrade")) == "websocket") {
    serve_websocket(*state, socket, request);
    socket.close();
    return;
  }
  RouteEffects effects;
  Response response = route_request(*state, request, effects);
  send_response(socket, response);
  lingering_close(socket);
  if (effects.after_response) effects.after_response();
}

}  // namespace kx::server

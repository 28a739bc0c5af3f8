// One connection, from accept to close: read the request within its limits,
// answer it (or hand the socket to the WebSocket loop), then close lingering.
#include <chrono>
#include <string>

#include "server/http_request.hpp"
#include "server/http_response.hpp"
#include "server/request_reader.hpp"
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

// Reads head and body. False means: close without an answer.
bool read_request(const platform::Socket& socket, Request& request) {
  const auto deadline = Clock::now() + kRequestDeadline;
  RequestReader reader;
  char chunk[kChunk];
  while (reader.state() == RequestReader::State::kNeedMore) {
    auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now());
    long n = -1;
    if (left.count() > 0) {
      int wait = static_cast<int>(std::min<long long>(left.count(), kReceiveTimeoutMillis));
      platform::set_receive_timeout(socket, std::max(wait, 1));
      n = platform::receive_some(socket, chunk, sizeof chunk);
    }
    if (n <= 0) {
      reader.end_of_input();
      break;
    }
    reader.feed(std::string_view(chunk, static_cast<std::size_t>(n)));
  }
  if (reader.state() != RequestReader::State::kDone) return false;
  bool loopback = request.loopback;
  request = std::move(reader.request());
  request.loopback = loopback;
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
    if (auto refusal = websocket_refusal(*state, request)) {
      send_response(socket, *refusal);
      lingering_close(socket);
      return;
    }
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

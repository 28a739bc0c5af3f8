#include "server/server.hpp"

#include <chrono>
#include <cstdio>
#include <cstring>
#include <system_error>
#include <thread>

#include "server/server_state.hpp"

namespace kx::server {
namespace {

constexpr int kSendTimeoutMillis = 5000;
constexpr int kBindRetryStepMillis = 500;

bool is_loopback_peer(std::uint32_t ipv4) {
  return (ipv4 >> 24) == 127;
}

// Binds, retrying every 500 ms while the port is busy (a previous instance still
// closing, or another spawn racing us).
bool bind_listener(ServerState& state) {
  const ServerOptions& options = state.options;
  int waited = 0;
  bool announced = false;
  for (;;) {
    if (state.stopping.load()) return false;
    platform::ListenResult result = platform::listen_tcp(options.listen_address, options.port);
    if (result.socket) {
      if (announced) std::printf("chat: bind() succeeded after %ds\n", waited / 1000);
      state.listener = std::move(*result.socket);
      return true;
    }
    if (result.failed == platform::ListenResult::Stage::kSocket) {
      std::fputs("chat: socket() failed\n", stderr);
      return false;
    }
    if (result.failed == platform::ListenResult::Stage::kListen) {
      std::fputs("chat: listen() failed\n", stderr);
      return false;
    }
    if (!announced) {
      std::fprintf(stderr,
                   "chat: bind() on port %d failed (err %d) — port in use (TIME_WAIT from a "
                   "previous instance, or another spawn). retrying for up to 120s...\n",
                   options.port, result.error);
      announced = true;
    }
    if (waited >= options.bind_retry_millis) {
      std::fputs(
          "chat: bind() still failing after 120s — another Kestrune spawn is probably serving. "
          "giving up.\n",
          stderr);
      return false;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(kBindRetryStepMillis));
    waited += kBindRetryStepMillis;
  }
}

void start_connection_thread(const std::shared_ptr<ServerState>& state,
                             platform::Accepted accepted) {
  bool loopback = is_loopback_peer(accepted.peer_ipv4);
  state->active.fetch_add(1);
  try {
    std::thread([state, socket = std::move(accepted.socket), loopback]() mutable {
      try {
        handle_connection(state, std::move(socket), loopback);
      } catch (...) {
        // Out of memory or a bug in one handler ends that connection, not the resident.
      }
      state->active.fetch_sub(1);
    }).detach();
  } catch (const std::system_error&) {
    // Out of threads: this connection is dropped, the server goes on.
    state->active.fetch_sub(1);
  }
}

}  // namespace

Server::Server(ServerOptions options) : state_(std::make_shared<ServerState>(std::move(options))) {}

Server::~Server() {
  stop();
}

int Server::serve() {
  if (!bind_listener(*state_)) {
    state_->phase = state_->stopping ? Phase::kStopped : Phase::kFailed;
    return state_->stopping ? 0 : 1;
  }
  // Announced before the port is published, so that whoever waits for it to listen
  // never sees this line land in the middle of its own output.
  const std::uint16_t port = platform::local_port(state_->listener);
  std::printf("orchestration server listening on http://127.0.0.1:%d/\n", port);
  std::fflush(stdout);
  state_->bound_port = port;
  state_->phase = Phase::kListening;
  while (!state_->stopping.load()) {
    auto accepted = platform::accept_connection(state_->listener);
    if (!accepted) {
      if (state_->stopping.load()) break;
      std::this_thread::sleep_for(std::chrono::milliseconds(10));  // e.g. out of descriptors
      continue;
    }
    if (state_->active.load() >= kMaxConnections) continue;  // closes on scope exit
    platform::set_send_timeout(accepted->socket, kSendTimeoutMillis);
    start_connection_thread(state_, std::move(*accepted));
  }
  state_->listener.close();
  state_->phase = Phase::kStopped;
  return 0;
}

void Server::stop() {
  if (state_->stopping.exchange(true)) return;
  if (state_->phase.load() != Phase::kListening) return;  // a bind retry sees the flag
  // Some systems wake a blocked accept on shutdown, others only on a connection:
  // do both.
  platform::shutdown_both(state_->listener);
  if (auto poke = platform::connect_loopback(state_->bound_port.load(), 500)) poke->close();
}

Server::Phase Server::phase() const {
  return state_->phase.load();
}

std::uint16_t Server::bound_port() const {
  return state_->bound_port.load();
}

int Server::active_connections() const {
  return state_->active.load();
}

}  // namespace kx::server

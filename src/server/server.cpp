#include "server/server.hpp"

#include <chrono>
#include <cstdio>
#include <cstring>
#include <thread>

#include "server/server_state.hpp"

namespace kx::server {
namespace {

constexpr int kBindRetryStepMillis = 500;

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
  // Idle connections cost a descriptor each: take every one the system allows.
  platform::raise_socket_limit();
  run_connection_loop(state_);
  state_->listener.close();
  state_->phase = Phase::kStopped;
  return 0;
}

void Server::stop() {
  if (state_->stopping.exchange(true)) return;
  state_->mailbox->poller().wake();  // a bind retry sees the flag
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

#pragma once
// Test helpers: a server on a free port with a recording interpreter, and a raw
// client that sends exact bytes and reads until the server closes.
#include <chrono>
#include <filesystem>
#include <memory>
#include <random>
#include <string>
#include <thread>

#include "platform/socket.hpp"
#include "server/server.hpp"

namespace kx::server::testing {

// The token RunningServer serves with unless the test gives its own.
inline const std::string kTestToken(64, 'c');
inline const std::string kTokenHeader = "X-Kst-Token: " + kTestToken + "\r\n";

// `request` with the test token's header after its request line.
inline std::string with_token(const std::string& request) {
  std::size_t line_end = request.find("\r\n");
  if (line_end == std::string::npos) return request;
  return request.substr(0, line_end + 2) + kTokenHeader + request.substr(line_end + 2);
}

inline std::string raw_exchange(std::uint16_t port, const std::string& request,
                                int timeout_millis = 5000) {
  auto socket = platform::connect_loopback(port, timeout_millis);
  if (!socket) return "<no connection>";
  platform::set_receive_timeout(*socket, timeout_millis);
  platform::send_all(*socket, request);
  std::string reply;
  char chunk[4096];
  for (;;) {
    long n = platform::receive_some(*socket, chunk, sizeof chunk);
    if (n <= 0) break;
    reply.append(chunk, static_cast<std::size_t>(n));
  }
  return reply;
}

inline std::string body_of(const std::string& reply) {
  auto end = reply.find("\r\n\r\n");
  return end == std::string::npos ? std::string() : reply.substr(end + 4);
}

inline std::string status_of(const std::string& reply) {
  auto end = reply.find("\r\n");
  return reply.substr(0, end);
}

class RunningServer {
 public:
  explicit RunningServer(ServerOptions options) {
    options.port = 0;
    if (options.token.empty()) options.token = kTestToken;
    server_ = std::make_unique<Server>(std::move(options));
    thread_ = std::thread([this] { server_->serve(); });
    for (int i = 0; i < 500 && server_->phase() != Server::Phase::kListening; ++i)
      std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  ~RunningServer() {
    server_->stop();
    thread_.join();
  }
  std::uint16_t port() const { return server_->bound_port(); }
  Server& server() { return *server_; }

 private:
  std::unique_ptr<Server> server_;
  std::thread thread_;
};

// A fresh directory under the system's temporary folder, removed at the end.
class TempDir {
 public:
  TempDir() {
    std::random_device random;
    path_ = std::filesystem::temp_directory_path() /
            ("kx_server_test_" + std::to_string(random()) + std::to_string(random()));
    std::filesystem::remove_all(path_);
    std::filesystem::create_directories(path_);
  }
  ~TempDir() {
    std::error_code ec;
    std::filesystem::remove_all(path_, ec);
  }
  const std::filesystem::path& path() const { return path_; }

 private:
  std::filesystem::path path_;
};

}  // namespace kx::server::testing

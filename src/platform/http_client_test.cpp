#include "platform/http_client.hpp"

#include <gtest/gtest.h>

#include <atomic>
#include <thread>

#include "platform/socket.hpp"

namespace kx::platform {
namespace {

// A one-shot HTTP server on a free loopback port: accepts one connection, records
// the request and answers with a canned reply (or stays silent).
class StubServer {
 public:
  explicit StubServer(std::string reply) : reply_(std::move(reply)) {
    ListenResult listening = listen_tcp("127.0.0.1", 0);
    EXPECT_TRUE(listening.socket.has_value());
    listener_ = std::move(*listening.socket);
    port_ = local_port(listener_);
    thread_ = std::thread([this] { serve(); });
  }
  ~StubServer() {
    if (!served_) connect_loopback(port_, 1000);  // wake an accept nobody came to
    thread_.join();
  }
  std::string url(std::string_view path) const {
    return "http://127.0.0.1:" + std::to_string(port_) + std::string(path);
  }
  const std::string& request() const { return request_; }

 private:
  void serve() {
    std::optional<Accepted> peer = accept_connection(listener_);
    served_ = true;
    listener_.close();  // later connections are refused
    if (!peer) return;
    char buffer[4096];
    while (true) {
      const auto header_end = request_.find("\r\n\r\n");
      if (header_end != std::string::npos) {
        const auto at = request_.find("Content-Length: ");
        const std::size_t length =
            at == std::string::npos ? 0 : std::stoul(request_.substr(at + 16));
        if (request_.size() >= header_end + 4 + length) break;
      }
      const long n = receive_some(peer->socket, buffer, sizeof buffer);
      if (n <= 0) break;
      request_.append(buffer, static_cast<std::size_t>(n));
    }
    if (!reply_.empty()) {
      send_all(peer->socket, reply_);
    } else {
      receive_some(peer->socket, buffer, sizeof buffer);  // silent: wait for the client to go
    }
  }

  std::string reply_;
  Socket listener_;
  std::uint16_t port_ = 0;
  std::atomic<bool> served_{false};
  std::string request_;
  std::thread thread_;
};

TEST(HttpPost, SendsThePostAndReadsAContentLengthBody) {
  StubServer server("HTTP/1.1 200 OK\r\nContent-Length: 5\r\n\r\nhello");
  const HttpResponse r = http_post(server.url("/api/x"), "application/json", "{\"a\":1}", 2000);
  ASSERT_TRUE(r.ok) << r.error;
  EXPECT_EQ(r.status, 200);
  EXPECT_EQ(r.body, "hello");
  EXPECT_TRUE(server.request().starts_with("POST /api/x HTTP/1.1\r\n"));
  EXPECT_NE(server.request().find("Content-Type: application/json\r\n"), std::string::npos);
  EXPECT_TRUE(server.request().ends_with("\r\n\r\n{\"a\":1}"));
}

TEST(HttpPost, DecodesAChunkedBody) {
  StubServer server(
      "HTTP/1.1 201 Created\r\nTransfer-Encoding: chunked\r\n\r\n3\r\nabc\r\n2\r\nde\r\n0\r\n\r\n");
  const HttpResponse r = http_post(server.url("/"), "text/plain", "", 2000);
  ASSERT_TRUE(r.ok) << r.error;
  EXPECT_EQ(r.status, 201);
  EXPECT_EQ(r.body, "abcde");
}

TEST(HttpPost, ReportsAClosedPortAndASilentServer) {
  std::string closed_url;
  {
    StubServer gone("HTTP/1.1 200 OK\r\nContent-Length: 0\r\n\r\n");
    closed_url = gone.url("/");
    http_post(closed_url, "text/plain", "", 2000);  // the one connection it takes
  }
  const HttpResponse refused = http_post(closed_url, "text/plain", "", 2000);
  EXPECT_FALSE(refused.ok);
  EXPECT_FALSE(refused.error.empty());

  StubServer silent("");
  const HttpResponse timed_out = http_post(silent.url("/"), "text/plain", "x", 200);
  EXPECT_FALSE(timed_out.ok);
  EXPECT_EQ(timed_out.error, "timed out");
}

TEST(HttpPost, RefusesOtherSchemes) {
  const HttpResponse r = http_post("https://127.0.0.1/", "text/plain", "", 100);
  EXPECT_FALSE(r.ok);
  EXPECT_NE(r.error.find("unsupported URL"), std::string::npos);
}

}  // namespace
}  // namespace kx::platform

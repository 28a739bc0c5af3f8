#include "platform/http_client.hpp"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <thread>

namespace kx::platform {
namespace {

// A one-shot HTTP server on a free loopback port: accepts one connection, records
// the request and answers with a canned reply (or stays silent).
class StubServer {
 public:
  explicit StubServer(std::string reply) : reply_(std::move(reply)) {
    listener_ = ::socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    addr.sin_port = 0;
    EXPECT_EQ(::bind(listener_, reinterpret_cast<sockaddr*>(&addr), sizeof addr), 0);
    EXPECT_EQ(::listen(listener_, 1), 0);
    socklen_t len = sizeof addr;
    ::getsockname(listener_, reinterpret_cast<sockaddr*>(&addr), &len);
    port_ = ntohs(addr.sin_port);
    thread_ = std::thread([this] { serve(); });
  }
  ~StubServer() {
    ::shutdown(listener_, SHUT_RDWR);
    thread_.join();
    ::close(listener_);
  }
  std::string url(std::string_view path) const {
    return "http://127.0.0.1:" + std::to_string(port_) + std::string(path);
  }
  const std::string& request() const { return request_; }

 private:
  void serve() {
    const int fd = ::accept(listener_, nullptr, nullptr);
    if (fd < 0) return;
    char buffer[4096];
    while (true) {
      const auto header_end = request_.find("\r\n\r\n");
      if (header_end != std::string::npos) {
        const auto at = request_.find("Content-Length: ");
        const std::size_t length =
            at == std::string::npos ? 0 : std::stoul(request_.substr(at + 16));
        if (request_.size() >= header_end + 4 + length) break;
      }
      const ssize_t n = ::recv(fd, buffer, sizeof buffer, 0);
      if (n <= 0) break;
      request_.append(buffer, static_cast<std::size_t>(n));
    }
    if (!reply_.empty()) {
      ::send(fd, reply_.data(), reply_.size(), MSG_NOSIGNAL);
    } else {
      ::recv(fd, buffer, sizeof buffer, 0);  // silent: wait for the client to give up
    }
    ::close(fd);
  }

  std::string reply_;
  int listener_ = -1;
  int port_ = 0;
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

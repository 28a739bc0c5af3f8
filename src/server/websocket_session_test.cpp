// WebSocket over a real socket: the handshake, ping/pong, the close handshake,
// and the limits that end a connection without a close frame.
#include <gtest/gtest.h>

#include "server/sha1.hpp"
#include "server/test_client.hpp"
#include "server/websocket_frame.hpp"

namespace kx::server {
namespace {

std::string masked(int opcode, const std::string& payload, bool fin = true) {
  std::string frame;
  frame += static_cast<char>((fin ? 0x80 : 0) | opcode);
  frame += static_cast<char>(0x80 | payload.size());  // payloads under 126 bytes here
  const char mask[4] = {0x01, 0x02, 0x03, 0x04};
  frame.append(mask, 4);
  for (std::size_t i = 0; i < payload.size(); ++i)
    frame += static_cast<char>(payload[i] ^ mask[i % 4]);
  return frame;
}

class WebSocketTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ServerOptions options;
    options.chat.chatlogs = dir.path() / "chatlogs";
    server = std::make_unique<testing::RunningServer>(std::move(options));
  }
  // Opens and upgrades a connection; returns the handshake answer in `answer`.
  std::optional<platform::Socket> open(std::string& answer, const std::string& first_frames = "",
                                       const std::string& target = "/",
                                       const std::string& headers = testing::kTokenHeader) {
    auto socket = platform::connect_loopback(server->port(), 2000);
    if (!socket) return std::nullopt;
    platform::set_receive_timeout(*socket, 3000);
    platform::send_all(*socket,
                       "GET " + target + " HTTP/1.1\r\nHost: 127.0.0.1\r\n" + headers +
                           "Upgrade: WebSocket\r\n"
                           "Connection: Upgrade\r\nSec-WebSocket-Key: dGhlIHNhbXBsZSBub25jZQ==\r\n"
                           "Sec-WebSocket-Version: 13\r\n\r\n" +
                           first_frames);
    answer = read_until(*socket, "\r\n\r\n");
    return socket;
  }
  static std::string read_until(const platform::Socket& socket, const std::string& marker) {
    std::string got;
    char c;
    while (got.find(marker) == std::string::npos && platform::receive_some(socket, &c, 1) == 1)
      got += c;
    return got;
  }
  static std::string read_all(const platform::Socket& socket) {
    std::string got;
    char chunk[4096];
    long n;
    while ((n = platform::receive_some(socket, chunk, sizeof chunk)) > 0) got.append(chunk, n);
    return got;
  }

  testing::TempDir dir;
  std::unique_ptr<testing::RunningServer> server;
};

}  // namespace

TEST_F(WebSocketTest, HandshakeAnswersWithTheAcceptKey) {
  std::string answer;
  auto socket = open(answer);
  ASSERT_TRUE(socket);
  EXPECT_EQ(answer,
            "HTTP/1.1 101 Switching Protocols\r\nUpgrade: websocket\r\nConnection: Upgrade\r\n"
            "Sec-WebSocket-Accept: s3pPLMBiTxaQ9kYGzzhZRbK+xOo=\r\n\r\n");
}

TEST_F(WebSocketTest, PingIsAnsweredWithPongAndCloseWithClose1000) {
  std::string answer;
  // The ping rides in the same packet as the upgrade request.
  auto socket = open(answer, masked(kPing, "are you there"));
  ASSERT_TRUE(socket);
  platform::send_all(*socket, masked(kClose, std::string("\x03\xe8", 2)));
  std::string rest = read_all(*socket);
  EXPECT_EQ(rest, encode_frame(kPong, "are you there") + std::string("\x88\x02\x03\xe8", 4));
}

TEST_F(WebSocketTest, ChatMessagesArriveAsTextFrames) {
  std::string answer;
  auto socket = open(answer);
  ASSERT_TRUE(socket);
  platform::send_all(*socket, masked(kTextFrame, "jo", false) + masked(kContinuation, "in\n\nme"));
  std::string joined = read_until(*socket, "\"history\":[]}");
  EXPECT_NE(joined.find(R"({"type":"joined","channel":"general","name":"me","history":[]})"),
            std::string::npos);
}

TEST_F(WebSocketTest, OversizedFramesAndMissingKeysEndTheConnectionWithoutAClose) {
  std::string answer;
  auto socket = open(answer);
  ASSERT_TRUE(socket);
  std::string too_big = "\x82\xff";
  for (int i = 0; i < 8; ++i) too_big += static_cast<char>(i == 5 ? 0x20 : 0);
  platform::send_all(*socket, too_big);
  EXPECT_EQ(read_all(*socket), "");

  auto keyless = platform::connect_loopback(server->port(), 2000);
  ASSERT_TRUE(keyless);
  platform::set_receive_timeout(*keyless, 3000);
  platform::send_all(*keyless, testing::with_token("GET / HTTP/1.1\r\nUpgrade: websocket\r\n\r\n"));
  EXPECT_EQ(read_all(*keyless), "");
}

// No handshake without the token, nor for another site's page; a client that
// cannot set headers may put the token in the query.
TEST_F(WebSocketTest, UpgradeNeedsTheTokenAndTheResidentsOwnOrigin) {
  const std::string port = std::to_string(server->port());
  const std::string own = "Origin: http://127.0.0.1:" + port + "\r\n";
  struct Case {
    std::string target, headers;
    bool admitted;
  };
  const Case cases[] = {
      {"/", "", false},
      {"/", "X-Kst-Token: " + std::string(64, '0') + "\r\n", false},
      {"/", testing::kTokenHeader + "Origin: http://evil.example\r\n", false},
      {"/", testing::kTokenHeader + "Origin: http://127.0.0.1:1\r\n", false},
      {"/", "Cookie: kst_token=" + testing::kTestToken + "\r\n" + own, true},
      {"/?token=" + testing::kTestToken, "Origin: http://localhost:" + port + "\r\n", true},
      {"/", testing::kTokenHeader, true},
  };
  for (const Case& c : cases) {
    std::string answer;
    auto socket = open(answer, "", c.target, c.headers);
    ASSERT_TRUE(socket);
    EXPECT_EQ(answer.starts_with("HTTP/1.1 101"), c.admitted) << c.target << " " << c.headers;
    if (!c.admitted) {
      EXPECT_TRUE(answer.starts_with("HTTP/1.1 403 Forbidden")) << answer;
    }
  }
}

}  // namespace kx::server

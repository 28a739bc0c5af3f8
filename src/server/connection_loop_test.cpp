// The connection loop and its worker pool over real sockets: requests that come
// in pieces, time-outs that end slow peers, the per-peer cap on half-sent
// requests, many idle connections, and WebSocket order and back-pressure.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <thread>
#include <vector>

#include "server/test_client.hpp"
#include "server/websocket_frame.hpp"
#include "server/worker_pool.hpp"

namespace kx::server {
namespace {

using Clock = std::chrono::steady_clock;
using testing::raw_exchange;
using testing::RunningServer;
using testing::status_of;

const std::string kHealth = "GET /health HTTP/1.1\r\nHost: 127.0.0.1\r\n\r\n";

std::string read_all(const platform::Socket& socket) {
  std::string got;
  char chunk[4096];
  for (long n; (n = platform::receive_some(socket, chunk, sizeof chunk)) > 0;)
    got.append(chunk, static_cast<std::size_t>(n));
  return got;
}

platform::Socket connect_to(std::uint16_t port) {
  auto socket = platform::connect_loopback(port, 2000);
  EXPECT_TRUE(socket);
  platform::set_receive_timeout(*socket, 5000);
  return std::move(*socket);
}

template <typename Pred>
bool eventually(Pred pred, int millis = 3000) {
  for (auto end = Clock::now() + std::chrono::milliseconds(millis); Clock::now() < end;) {
    if (pred()) return true;
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  return pred();
}

TEST(WorkerPool, JobsBehindALongOneGetAThreadAndIdleThreadsEnd) {
  WorkerPool pool(8, std::chrono::milliseconds(100));
  std::atomic<bool> release{false};
  std::atomic<int> done{0};
  pool.submit([&] {
    while (!release) std::this_thread::sleep_for(std::chrono::milliseconds(1));
  });
  pool.submit([&] { ++done; });
  EXPECT_TRUE(eventually([&] { return done == 1; }, 2000)) << "a quick job waited for a long one";
  // A burst of quick jobs does not start a thread each.
  for (int i = 0; i < 500; ++i) pool.submit([&] { ++done; });
  EXPECT_TRUE(eventually([&] { return done == 501; }));
  EXPECT_LT(pool.threads(), 8);
  release = true;
  EXPECT_TRUE(eventually([&] { return pool.threads() == 0; }, 3000));
  // At its cap the pool queues instead of failing.
  WorkerPool one(1);
  std::vector<int> order;
  for (int i = 0; i < 50; ++i) one.submit([&order, i] { order.push_back(i); });
  EXPECT_TRUE(eventually([&] { return one.threads() >= 0 && order.size() == 50; }));
  for (int i = 0; i < 50; ++i) EXPECT_EQ(order[static_cast<std::size_t>(i)], i);
}

ServerOptions quick_limits() {
  ServerOptions options;
  options.limits.receive_timeout_millis = 300;
  options.limits.request_deadline_millis = 800;
  options.limits.send_timeout_millis = 300;
  options.limits.linger_millis = 300;
  return options;
}

// A request cut at every byte is served exactly as a whole one.
TEST(ConnectionLoop, RequestsInPiecesAreServedWholeAndSlowOnesAreCut) {
  RunningServer server{quick_limits()};
  const std::string whole = raw_exchange(server.port(), kHealth);
  for (std::size_t cut = 1; cut < kHealth.size(); cut += 7) {
    platform::Socket socket = connect_to(server.port());
    platform::send_all(socket, kHealth.substr(0, cut));
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    platform::send_all(socket, kHealth.substr(cut));
    EXPECT_EQ(read_all(socket), whole) << "cut at " << cut;
  }
  // Silence past the receive time-out, and a trickle past the request deadline,
  // end the connection without an answer.
  platform::Socket silent = connect_to(server.port());
  platform::send_all(silent, "GET /health HTTP/1.1\r\n");
  auto started = Clock::now();
  EXPECT_EQ(read_all(silent), "");
  EXPECT_LT(Clock::now() - started, std::chrono::seconds(2));
  platform::Socket trickler = connect_to(server.port());
  started = Clock::now();
  for (char c : std::string("GET /health HTTP/1.1\r\nX-Slow: ") + std::string(100, 'a')) {
    if (!platform::send_all(trickler, std::string(1, c))) break;
    if (Clock::now() - started > std::chrono::seconds(3)) break;
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
  }
  EXPECT_LT(Clock::now() - started, std::chrono::seconds(2)) << "each byte came in time";
  platform::set_receive_timeout(trickler, 1000);
  EXPECT_EQ(read_all(trickler), "");
  // A POST whose body stops coming is served with what came, as before.
  platform::Socket short_body = connect_to(server.port());
  platform::send_all(
      short_body,
      testing::with_token("POST /console/exec?bot=cli HTTP/1.1\r\nContent-Length: 9\r\n\r\npwd"));
  EXPECT_EQ(status_of(read_all(short_body)), "HTTP/1.1 503 Service Unavailable");
  EXPECT_TRUE(eventually([&] { return server.server().active_connections() == 0; }));
}

// Hundreds of idle connections cost no thread and keep nobody out; one peer's
// half-sent requests beyond its cap close its oldest, never the newest.
TEST(ConnectionLoop, IdleConnectionsKeepNobodyOutAndThePerPeerCapClosesTheOldest) {
  ServerOptions options;
  options.limits.idle_per_peer = 300;
  RunningServer server{std::move(options)};
  std::vector<platform::Socket> idle;
  for (int i = 0; i < 400; ++i) {
    idle.push_back(connect_to(server.port()));
    platform::send_all(idle.back(), "GET /health HTTP/1.1\r\n");
  }
  EXPECT_TRUE(eventually([&] { return server.server().active_connections() == 300; }));
  auto started = Clock::now();
  EXPECT_EQ(status_of(raw_exchange(server.port(), kHealth)), "HTTP/1.1 200 OK");
  EXPECT_LT(Clock::now() - started, std::chrono::seconds(1));
  // The oldest were closed; the newest still completes its request.
  platform::set_receive_timeout(idle.front(), 1000);
  EXPECT_EQ(read_all(idle.front()), "");
  platform::send_all(idle.back(), "\r\n");
  EXPECT_EQ(status_of(read_all(idle.back())), "HTTP/1.1 200 OK");
  idle.clear();
  EXPECT_TRUE(eventually([&] { return server.server().active_connections() == 0; }));
}

std::string masked(int opcode, const std::string& payload) {
  return encode_client_frame(opcode, payload, 0x01020304);
}

platform::Socket open_chat(std::uint16_t port, const std::string& name) {
  platform::Socket socket = connect_to(port);
  platform::send_all(socket, "GET / HTTP/1.1\r\nHost: 127.0.0.1\r\n" + testing::kTokenHeader +
                                 "Upgrade: websocket\r\nConnection: Upgrade\r\n"
                                 "Sec-WebSocket-Key: dGhlIHNhbXBsZSBub25jZQ==\r\n\r\n" +
                                 masked(kTextFrame, "join\ngeneral\n" + name));
  return socket;
}

// Reads frames until `count` text messages containing `marker` came; returns them.
// `handshake`: the 101 answer comes first.
std::vector<std::string> read_messages(const platform::Socket& socket, const std::string& marker,
                                       std::size_t count, bool handshake = true) {
  std::string buffer;
  std::vector<std::string> found;
  char chunk[4096];
  std::size_t head = handshake ? std::string::npos : 0;
  while (found.size() < count) {
    long n = platform::receive_some(socket, chunk, sizeof chunk);
    if (n <= 0) break;
    buffer.append(chunk, static_cast<std::size_t>(n));
    if (head == std::string::npos) {
      head = buffer.find("\r\n\r\n");
      if (head == std::string::npos) continue;
      buffer.erase(0, head + 4);
    }
    Frame frame;
    std::size_t used = 0;
    while (parse_frame(buffer, frame, used) == FrameStatus::kFrame) {
      buffer.erase(0, used);
      if (frame.payload.find(marker) != std::string::npos) found.push_back(frame.payload);
    }
  }
  return found;
}

// Messages reach the endpoint in the order sent, and its answers come back in
// that order, even when they arrive in one burst.
TEST(ConnectionLoop, WebSocketMessagesAreHandledInOrder) {
  testing::TempDir dir;
  ServerOptions options;
  options.chat.chatlogs = dir.path() / "chatlogs";
  RunningServer server{std::move(options)};
  platform::Socket socket = open_chat(server.port(), "me");
  std::string burst;
  for (int i = 0; i < 200; ++i) burst += masked(kTextFrame, "msg\nn" + std::to_string(i) + "#");
  platform::send_all(socket, burst);
  std::vector<std::string> got = read_messages(socket, "#\"", 200);
  ASSERT_EQ(got.size(), 200u);
  for (int i = 0; i < 200; ++i)
    EXPECT_NE(got[static_cast<std::size_t>(i)].find("\"n" + std::to_string(i) + "#\""),
              std::string::npos)
        << got[static_cast<std::size_t>(i)];
}

// A peer that never reads is cut off after the send time-out; the sender and
// everyone else go on.
TEST(ConnectionLoop, AWebSocketThatNeverReadsIsClosedNotBufferedForever) {
  testing::TempDir dir;
  ServerOptions options = quick_limits();
  options.chat.chatlogs = dir.path() / "chatlogs";
  options.limits.websocket_queue_bytes = 64 * 1024;
  RunningServer server{std::move(options)};
  platform::Socket deaf = open_chat(server.port(), "deaf");
  platform::Socket talker = open_chat(server.port(), "talker");
  ASSERT_EQ(read_messages(talker, "\"joined\"", 1).size(), 1u);
  // The talker reads its own copies as they come; the deaf peer reads nothing.
  std::size_t heard = 0;
  std::thread listener([&] { heard = read_messages(talker, "still here!", 1, false).size(); });
  const std::string big(60000, 'x');
  auto started = Clock::now();
  for (int i = 0; i < 400 && server.server().active_connections() == 2 &&
                  Clock::now() - started < std::chrono::seconds(8);
       ++i)
    platform::send_all(talker, masked(kTextFrame, "msg\n" + big));
  EXPECT_TRUE(eventually([&] { return server.server().active_connections() == 1; }, 5000));
  platform::send_all(talker, masked(kTextFrame, "msg\nstill here!"));
  listener.join();
  EXPECT_EQ(heard, 1u) << "the talker is still served";
}

}  // namespace
}  // namespace kx::server

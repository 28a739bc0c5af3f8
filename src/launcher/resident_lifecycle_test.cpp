#include "launcher/resident_lifecycle.hpp"

#include <gtest/gtest.h>

#include <atomic>
#include <thread>

#include "platform/home.hpp"
#include "platform/owner_only_file.hpp"
#include "server/home_token.hpp"
#include "server/test_client.hpp"

namespace kx::launcher {
namespace {

// Something on a port that is not us: answers every connection with `reply`.
class ForeignListener {
 public:
  explicit ForeignListener(std::string reply) : reply_(std::move(reply)) {
    auto listening = platform::listen_tcp("127.0.0.1", 0);
    listener_ = std::move(*listening.socket);
    port_ = platform::local_port(listener_);
    thread_ = std::thread([this] {
      while (auto accepted = platform::accept_connection(listener_)) {
        if (stop_) break;
        char buffer[1024];
        platform::set_receive_timeout(accepted->socket, 500);
        platform::receive_some(accepted->socket, buffer, sizeof buffer);
        platform::send_all(accepted->socket, reply_);
      }
    });
  }
  ~ForeignListener() {
    stop_ = true;
    platform::shutdown_both(listener_);
    if (auto poke = platform::connect_loopback(port_, 500)) poke->close();  // wakes accept
    thread_.join();
  }
  std::uint16_t port() const { return port_; }

 private:
  std::string reply_;
  platform::Socket listener_;
  std::uint16_t port_ = 0;
  std::atomic<bool> stop_{false};
  std::thread thread_;
};

}  // namespace

TEST(HealthProbe, ClassifiesRepliesByAppAndVersion) {
  EXPECT_EQ(classify_health_reply("").health, Health::kNothing);
  EXPECT_EQ(classify_health_reply("HTTP/1.0 200 OK\r\n\r\n<html>").health, Health::kForeign);
  EXPECT_EQ(classify_health_reply("garbage without head").health, Health::kForeign);
  EXPECT_EQ(classify_health_reply(
                "HTTP/1.1 200 OK\r\n\r\n{\"ok\":true,\"app\":\"Kestrune\",\"version\":\"1.0.11\"}")
                .health,
            Health::kCompatible);
  ProbeResult older = classify_health_reply(
      "HTTP/1.1 200 OK\r\n\r\n{\"ok\":true,\"app\":\"Kestrune\",\"version\":\"1.0.9\"}");
  EXPECT_EQ(older.health, Health::kOtherVersion);
  EXPECT_EQ(older.version, "1.0.9");
  EXPECT_EQ(classify_health_reply("HTTP/1.1 200 OK\r\n\r\n{\"app\":\"Kestrune\"}").version, "");
}

TEST(HealthProbe, ComparesVersionsComponentByComponentAsNumbers) {
  EXPECT_LT(compare_versions("1.0.9", "1.0.11"), 0);
  EXPECT_GT(compare_versions("1.1", "1.0.11"), 0);
  EXPECT_EQ(compare_versions("1.0.11", "1.0.11"), 0);
  EXPECT_EQ(compare_versions("1.0", "1.0.0"), 0);
  EXPECT_LT(compare_versions("0.9.99", "1"), 0);
  EXPECT_GT(compare_versions("2.0.0-beta", "1.9"), 0);
}

TEST(HealthProbe, TellsOurResidentFromAForeignProcessAndAnEmptyPort) {
  server::testing::RunningServer resident{server::ServerOptions{}};
  EXPECT_EQ(probe(resident.port()).health, Health::kCompatible);
  EXPECT_EQ(probe(resident.port()).home, server::token_fingerprint(server::testing::kTestToken));
  ForeignListener foreign("HTTP/1.1 200 OK\r\nContent-Length: 2\r\n\r\nhi");
  EXPECT_EQ(probe(foreign.port()).health, Health::kForeign);
  ForeignListener silent("");
  EXPECT_EQ(probe(silent.port()).health, Health::kNothing);
}

TEST(BringUp, NeverDisplacesAForeignHolder) {
  ForeignListener foreign("HTTP/1.1 200 OK\r\n\r\nnot us");
  EXPECT_FALSE(bring_up(foreign.port()));
}

TEST(ShutDown, StopsOurResidentAndFailsOnAForeignOne) {
  // Shutting down takes the token of our own home.
  server::testing::TempDir home;
  platform::set_home_override(home.path());
  std::string reason;
  ASSERT_TRUE(platform::write_owner_only_file(server::token_file(home.path()),
                                              server::testing::kTestToken, reason));
  std::uint16_t port = 0;
  std::atomic<bool> asked{false};
  {
    server::ServerOptions options;
    options.on_shutdown = [&asked] { asked = true; };
    server::testing::RunningServer resident(std::move(options));
    port = resident.port();
    // The resident's process would exit when asked; here the test stops it.
    std::thread stopper([&] {
      while (!asked) std::this_thread::sleep_for(std::chrono::milliseconds(5));
      resident.server().stop();
    });
    EXPECT_TRUE(shut_down(port));
    stopper.join();
  }
  EXPECT_TRUE(asked);
  ForeignListener foreign("HTTP/1.1 403 Forbidden\r\n\r\nno");
  EXPECT_FALSE(shut_down(foreign.port()));
  platform::reset_home_for_testing();
}

}  // namespace kx::launcher

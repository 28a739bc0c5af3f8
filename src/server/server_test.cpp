// The server end to end over real sockets: exact answer bytes, the console-exec
// rules, the request limits, and shutdown.
#include "server/server.hpp"

#include <gtest/gtest.h>

#include <atomic>
#include <mutex>

#include "server/home_token.hpp"
#include "server/http_request.hpp"
#include "server/test_client.hpp"

namespace kx::server {
namespace {

using testing::body_of;
using testing::raw_exchange;
using testing::RunningServer;
using testing::status_of;

std::string post(const std::string& target, const std::string& body,
                 const std::string& extra_headers = "") {
  return "POST " + target + " HTTP/1.1\r\nHost: 127.0.0.1\r\n" + testing::kTokenHeader +
         extra_headers + "Content-Length: " + std::to_string(body.size()) + "\r\n\r\n" + body;
}

struct Recorded {
  std::mutex lock;
  ExecRequest last;
};

ServerOptions with_bridge(std::shared_ptr<Recorded> recorded) {
  ServerOptions options;
  options.exec = [recorded](const ExecRequest& request) {
    std::lock_guard guard(recorded->lock);
    recorded->last = request;
    return "OK: ran " + request.line + "\r\n\ttab \"q\"";
  };
  return options;
}

}  // namespace

TEST(Server, HealthAnswersWithTheExactBytes) {
  RunningServer server{ServerOptions{}};
  std::string body = R"({"ok":true,"app":"Kestrune","version":"1.0.11","home":")" +
                     token_fingerprint(testing::kTestToken) + "\"}";
  EXPECT_EQ(raw_exchange(server.port(), "GET /health HTTP/1.1\r\nHost: 127.0.0.1\r\n\r\n"),
            "HTTP/1.1 200 OK\r\nContent-Type: application/json\r\nContent-Length: 69\r\n"
            "Cache-Control: no-store\r\nConnection: close\r\n\r\n" +
                body);
}

// Every way of carrying the token opens a private route; a missing, wrong or
// truncated one gets 401, and the public routes need none.
TEST(Server, PrivateRoutesNeedTheHomesToken) {
  RunningServer server{ServerOptions{}};
  const std::string& token = testing::kTestToken;
  auto status = [&](const std::string& path, const std::string& headers) {
    return status_of(raw_exchange(
        server.port(), "GET " + path + " HTTP/1.1\r\nHost: 127.0.0.1\r\n" + headers + "\r\n"));
  };
  for (const std::string& bad :
       {std::string(), "X-Kst-Token: " + std::string(64, 'd') + "\r\n",
        "X-Kst-Token: " + token.substr(0, 63) + "\r\n", "Authorization: Basic " + token + "\r\n",
        "Cookie: other=" + token + "\r\n"}) {
    EXPECT_EQ(status("/channels", bad), "HTTP/1.1 401 Unauthorized") << bad;
    EXPECT_EQ(status("/nope", bad), "HTTP/1.1 401 Unauthorized") << bad;
  }
  // A token in the query opens nothing but the browser's login.
  EXPECT_EQ(status("/channels?token=" + token, ""), "HTTP/1.1 401 Unauthorized");
  std::string refused = raw_exchange(server.port(), "GET /auth HTTP/1.1\r\n\r\n");
  EXPECT_NE(refused.find("WWW-Authenticate: Bearer"), std::string::npos);
  EXPECT_NE(body_of(refused).find("kx gui"), std::string::npos);
  for (const std::string& good :
       {"X-Kst-Token: " + token + "\r\n", "Authorization: bearer  " + token + "\r\n",
        "Cookie: a=1; kst_token=" + token + "; b=2\r\n"})
    EXPECT_EQ(status("/auth", good), "HTTP/1.1 200 OK") << good;
  for (const char* open : {"/health", "/", "/ui/"})
    EXPECT_NE(status(open, ""), "HTTP/1.1 401 Unauthorized") << open;
}

// The login link is traded for a cookie and always leaves the address bar.
TEST(Server, UiLoginSetsTheCookieOnlyForTheRightToken) {
  RunningServer server{ServerOptions{}};
  std::string good =
      raw_exchange(server.port(), "GET /ui/?token=" + testing::kTestToken + " HTTP/1.1\r\n\r\n");
  EXPECT_EQ(status_of(good), "HTTP/1.1 303 See Other");
  EXPECT_NE(good.find("\r\nLocation: /ui/\r\n"), std::string::npos);
  EXPECT_NE(good.find("\r\nSet-Cookie: kst_token=" + testing::kTestToken +
                      "; HttpOnly; SameSite=Strict; Path=/\r\n"),
            std::string::npos);
  std::string bad =
      raw_exchange(server.port(), "GET /ui/?token=" + std::string(64, 'e') + " HTTP/1.1\r\n\r\n");
  EXPECT_EQ(status_of(bad), "HTTP/1.1 303 See Other");
  EXPECT_EQ(bad.find("Set-Cookie"), std::string::npos);
  std::string page = raw_exchange(
      server.port(), "GET /ui/term.html?token=" + testing::kTestToken + " HTTP/1.1\r\n\r\n");
  EXPECT_NE(page.find("\r\nLocation: /ui/term.html\r\n"), std::string::npos);
}

TEST(Server, UnknownPathsAndSubsystemsNotInThisBuildAnswerNotFound) {
  RunningServer server{ServerOptions{}};
  for (const char* path : {"/nope", "/HEALTH", "/task/list"}) {
    std::string reply = raw_exchange(
        server.port(), testing::with_token(std::string("GET ") + path + " HTTP/1.1\r\n\r\n"));
    EXPECT_EQ(status_of(reply), "HTTP/1.1 404 Not Found") << path;
    EXPECT_EQ(body_of(reply), "not found") << path;
  }
}

TEST(Server, ConsoleExecRunsTheBodyAndEscapesTheResult) {
  auto recorded = std::make_shared<Recorded>();
  RunningServer server{with_bridge(recorded)};
  std::string reply = raw_exchange(
      server.port(),
      post("/console/exec?bot=cli", "fs:ls .", "X-Kst-Cwd: /tmp/work dir\r\nX-Kst-Tty: 1\r\n"));
  EXPECT_EQ(status_of(reply), "HTTP/1.1 200 OK");
  EXPECT_EQ(body_of(reply),
            "{\"ok\":true,\"bot\":\"cli\",\"out\":\"OK: ran fs:ls .\\n\\u0009tab \\\"q\\\"\","
            "\"err\":\"\",\"status\":0}");
  std::lock_guard guard(recorded->lock);
  EXPECT_EQ(recorded->last.bot, "cli");
  EXPECT_EQ(recorded->last.line, "fs:ls .");
  EXPECT_EQ(recorded->last.cwd, "/tmp/work dir");
  EXPECT_TRUE(recorded->last.tty);
  EXPECT_TRUE(recorded->last.arguments);  // one posted line is one command line
}

TEST(Server, ConsoleExecChecksBotAndCommandBeforeSizeAndSizeBeforeTheBridge) {
  auto recorded = std::make_shared<Recorded>();
  RunningServer wired{with_bridge(recorded)};
  RunningServer unwired{ServerOptions{}};
  std::string limit(kMaxCommandBytes, 'x');

  std::string no_bot = raw_exchange(wired.port(), post("/console/exec", std::string(limit + "x")));
  EXPECT_EQ(status_of(no_bot), "HTTP/1.1 400 Bad Request");
  EXPECT_EQ(body_of(no_bot), R"({"ok":false,"error":"bot and command required"})");
  std::string no_length = raw_exchange(
      wired.port(), testing::with_token("POST /console/exec?bot=cli HTTP/1.1\r\n\r\nignored"));
  EXPECT_EQ(status_of(no_length), "HTTP/1.1 400 Bad Request");

  std::string too_big = raw_exchange(wired.port(), post("/console/exec?bot=cli", limit + "x"));
  EXPECT_EQ(status_of(too_big), "HTTP/1.1 413 Payload Too Large");
  EXPECT_EQ(body_of(too_big), R"x({"ok":false,"error":"command too large (limit 1 MiB)"})x");
  EXPECT_EQ(status_of(raw_exchange(wired.port(), post("/console/exec?bot=cli", limit))),
            "HTTP/1.1 200 OK");

  std::string unwired_reply = raw_exchange(unwired.port(), post("/console/exec?bot=cli", "x"));
  EXPECT_EQ(status_of(unwired_reply), "HTTP/1.1 503 Service Unavailable");
  EXPECT_EQ(body_of(unwired_reply), R"({"ok":false,"error":"interpreter bridge not wired"})");
}

TEST(Server, InterpTakesTheQueryOrTheBodyAndAnswersPlainText) {
  auto recorded = std::make_shared<Recorded>();
  RunningServer server{with_bridge(recorded)};
  std::string from_query = raw_exchange(server.port(), post("/interp?cmd=fs%3Als+x", ""));
  EXPECT_NE(from_query.find("Content-Type: text/plain; charset=utf-8\r\n"), std::string::npos);
  EXPECT_EQ(body_of(from_query), "OK: ran fs:ls x\r\n\ttab \"q\"");
  EXPECT_EQ(body_of(raw_exchange(server.port(), post("/interp", "help"))).substr(0, 11),
            "OK: ran hel");
  std::string empty = raw_exchange(server.port(), post("/interp", ""));
  EXPECT_EQ(status_of(empty), "HTTP/1.1 400 Bad Request");
  EXPECT_EQ(body_of(empty), "cmd required (query ?cmd= or POST body)");
}

TEST(Server, OversizedHeadsAndBodiesAreDroppedWithoutAnAnswer) {
  RunningServer server{ServerOptions{}};
  std::string huge_head = "GET /health HTTP/1.1\r\nX-Pad: " + std::string(70000, 'a') + "\r\n\r\n";
  EXPECT_EQ(raw_exchange(server.port(), huge_head), "");
  std::string huge_body =
      "POST /console/exec?bot=cli HTTP/1.1\r\nContent-Length: 33554433\r\n\r\nx";
  EXPECT_EQ(raw_exchange(server.port(), huge_body), "");
  // A head just under the limit is still served.
  std::string big_head = "GET /health HTTP/1.1\r\nX-Pad: " + std::string(60000, 'a') + "\r\n\r\n";
  EXPECT_EQ(status_of(raw_exchange(server.port(), big_head)), "HTTP/1.1 200 OK");
}

TEST(Server, ShutdownNeedsPostAndTheControlHeaderThenStopsAfterAnswering) {
  std::atomic<int> stops{0};
  ServerOptions options;
  options.on_shutdown = [&stops] { ++stops; };
  RunningServer server{std::move(options)};
  EXPECT_EQ(
      status_of(raw_exchange(server.port(), testing::with_token("GET /shutdown HTTP/1.1\r\n\r\n"))),
      "HTTP/1.1 404 Not Found");
  std::string refused = raw_exchange(server.port(), post("/shutdown", ""));
  EXPECT_EQ(status_of(refused), "HTTP/1.1 403 Forbidden");
  EXPECT_EQ(body_of(refused), R"({"ok":false,"error":"missing X-Kst-Control: shutdown"})");
  EXPECT_EQ(stops.load(), 0);
  std::string accepted = raw_exchange(
      server.port(), testing::with_token(
                         "POST /shutdown HTTP/1.1\r\nHost: 127.0.0.1\r\nX-Kst-Control: shutdown\r\n"
                         "Content-Length: 0\r\nConnection: close\r\n\r\n"));
  EXPECT_EQ(body_of(accepted), R"({"ok":true,"app":"Kestrune","version":"1.0.11","home":")" +
                                   token_fingerprint(testing::kTestToken) +
                                   R"(","shutting_down":true})");
  for (int i = 0; i < 100 && stops.load() == 0; ++i)
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  EXPECT_EQ(stops.load(), 1);
}

TEST(Server, ASecondServerCannotBindAPortThatIsServed) {
  RunningServer first{ServerOptions{}};
  ServerOptions options;
  options.port = first.port();
  options.bind_retry_millis = 0;
  Server second(std::move(options));
  EXPECT_EQ(second.serve(), 1);
  EXPECT_EQ(second.phase(), Server::Phase::kFailed);
}

TEST(Server, ConnectionsEndAfterAbuseAndNoThreadIsLeftBehind) {
  RunningServer server{ServerOptions{}};
  // Half-closed and garbage connections, then a normal request still works.
  for (int i = 0; i < 20; ++i) {
    auto socket = platform::connect_loopback(server.port(), 1000);
    ASSERT_TRUE(socket);
    platform::send_all(*socket, i % 2 ? "\x16\x03\x01garbage" : "GET /he");
    platform::shutdown_send(*socket);
  }
  EXPECT_EQ(status_of(raw_exchange(server.port(), "GET /health HTTP/1.1\r\n\r\n")),
            "HTTP/1.1 200 OK");
  // Generous: a loaded machine (or Wine) may take seconds to wind the threads down.
  for (int i = 0; i < 2000 && server.server().active_connections() > 0; ++i)
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  EXPECT_EQ(server.server().active_connections(), 0);
}

}  // namespace kx::server

// The loopback rule: which routes refuse which requests, and with which body.
#include "server/router.hpp"

#include <gtest/gtest.h>

#include "server/server_state.hpp"

namespace kx::server {
namespace {

Request request(const std::string& method, const std::string& path, bool loopback) {
  Request r;
  r.method = method;
  r.path = path;
  r.loopback = loopback;
  r.headers["host"] = "127.0.0.1:9999";
  r.headers["x-kst-token"] = std::string(64, 'f');
  return r;
}

Response answer(const Request& r) {
  ServerOptions options;
  options.token = std::string(64, 'f');
  options.exec = [](const ExecRequest&) { return std::string("OK"); };
  ServerState state(std::move(options));
  RouteEffects effects;
  return route_request(state, r, effects);
}

}  // namespace

TEST(LoopbackRule, RemotePeersGetEachRoutesOwnRefusal) {
  struct Case {
    const char* method;
    const char* path;
    const char* body;
  };
  const Case cases[] = {
      {"POST", "/console/exec", R"({"ok":false,"error":"/console/exec is loopback-only"})"},
      {"GET", "/console/tail", R"({"ok":false,"error":"/console/tail is loopback-only"})"},
      {"POST", "/shutdown", R"({"ok":false,"error":"loopback only"})"},
      {"GET", "/term/open", R"({"ok":false,"error":"loopback only"})"},
      {"GET", "/debug/stream", R"({"ok":false,"error":"debug stream is loopback-only"})"},
      {"POST", "/interp", "interp is loopback-only"},
      {"POST", "/mcp",
       R"({"jsonrpc":"2.0","id":null,"error":{"code":-32600,"message":"mcp is loopback-only"}})"},
      {"GET", "/bots/file", R"({"error":"bot file read is loopback-only"})"},
      {"POST", "/bots/file", R"({"ok":false,"error":"bot file writes are loopback-only"})"},
      {"POST", "/team/rename", R"({"ok":false,"error":"team rename is loopback-only"})"},
      {"POST", "/vc/emit", R"({"ok":false,"error":"/vc/emit is loopback-only"})"},
      {"POST", "/vc/approve", R"({"ok":false,"error":"/vc/approve is loopback-only"})"},
      {"POST", "/vc/unenroll", R"({"ok":false,"error":"/vc/unenroll is loopback-only"})"},
  };
  for (const Case& c : cases) {
    Response r = answer(request(c.method, c.path, false));
    EXPECT_EQ(r.status, "403 Forbidden") << c.path;
    EXPECT_EQ(r.body, c.body) << c.path;
  }
  EXPECT_EQ(answer(request("POST", "/interp", false)).content_type, std::string(kText));
}

TEST(LoopbackRule, OpenRoutesAnswerAnyPeer) {
  Response health = answer(request("GET", "/health", false));
  EXPECT_EQ(health.status, "200 OK");
  EXPECT_EQ(answer(request("GET", "/mcp", false)).status, "200 OK");
  // The GET side of a route whose POST is guarded stays open.
  EXPECT_EQ(answer(request("GET", "/work", false)).body, "not found");
}

TEST(LoopbackRule, ForeignOriginsAndRebindingHostsAreRefusedOnPrivateRoutesOnly) {
  Request cross_site = request("POST", "/console/exec", true);
  cross_site.query = "bot=cli";
  cross_site.body = "help";
  cross_site.headers["origin"] = "http://evil.example";
  EXPECT_EQ(answer(cross_site).status, "403 Forbidden");

  Request own_origin = cross_site;
  own_origin.headers["origin"] = "http://localhost:9999";
  EXPECT_EQ(answer(own_origin).status, "200 OK");
  own_origin.headers["origin"] = "http://127.0.0.1:9998";
  EXPECT_EQ(answer(own_origin).status, "403 Forbidden");

  Request rebinding = request("POST", "/console/exec", true);
  rebinding.query = "bot=cli";
  rebinding.body = "help";
  rebinding.headers["host"] = "attacker.example:9999";
  EXPECT_EQ(answer(rebinding).status, "403 Forbidden");
  for (const char* host :
       {"localhost:9999", "127.0.0.1", "127.1.2.3:9999", "[::1]:9999", "LOCALHOST"}) {
    rebinding.headers["host"] = host;
    EXPECT_EQ(answer(rebinding).status, "200 OK") << host;
  }
  for (const char* host : {"127.0.0.1.evil.example", "localhost.evil", "[::2]", "0x7f000001"}) {
    rebinding.headers["host"] = host;
    EXPECT_EQ(answer(rebinding).status, "403 Forbidden") << host;
  }

  Request health = request("GET", "/health", true);
  health.headers["origin"] = "http://evil.example";
  health.headers["host"] = "evil.example";
  EXPECT_EQ(answer(health).status, "200 OK");

  // Routes open to the network still refuse another site's page.
  Request roster = request("GET", "/roster", false);
  EXPECT_EQ(answer(roster).status, "200 OK");
  roster.headers["origin"] = "http://127.0.0.1:9998";
  EXPECT_EQ(answer(roster).status, "403 Forbidden");
}

TEST(Router, PathsMatchExactlyUnlessThePrefixRuleSaysOtherwise) {
  EXPECT_EQ(answer(request("GET", "/health/", true)).body, "not found");
  EXPECT_EQ(answer(request("GET", "/uix", true)).body, "not found");
  Response kestnode = answer(request("GET", "/kestnode/anything", false));
  EXPECT_EQ(kestnode.status, "503 Service Unavailable");
  EXPECT_EQ(kestnode.body, R"({"ok":false,"error":"Kestnode is disabled in this build"})");
}

}  // namespace kx::server

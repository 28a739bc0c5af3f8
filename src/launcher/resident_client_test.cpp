#include "launcher/resident_client.hpp"

#include <gtest/gtest.h>

#include <atomic>

#include "launcher/unit_source.hpp"
#include "server/json_escape.hpp"
#include "server/test_client.hpp"

namespace kx::launcher {
namespace {

lang::InputReader reader_of(std::string text) {
  return [text, at = std::size_t{0}](char* buffer, std::size_t max) mutable {
    std::size_t n = std::min(max, text.size() - at);
    text.copy(buffer, n, at);
    at += n;
    return n;
  };
}

const std::string& kToken = server::testing::kTestToken;

}  // namespace

TEST(ResidentClient, RequestNamesItsConsoleFormAndOptionalHeaders) {
  EXPECT_EQ(build_exec_request("fs:ls .", lang::UnitForm::kArguments, "s1", std::string("/home/me"),
                               true, "t0k"),
            "POST /console/exec?bot=cli HTTP/1.1\r\nHost: 127.0.0.1\r\n"
            "Authorization: Bearer t0k\r\nX-Kst-Cwd: /home/me\r\nX-Kst-Tty: 1\r\n"
            "X-Kst-Session: s1\r\nX-Kst-Form: arguments\r\nContent-Type: text/plain\r\n"
            "Content-Length: 7\r\nConnection: close\r\n\r\nfs:ls .");
  EXPECT_EQ(build_exec_request("x", lang::UnitForm::kLines, "", std::nullopt, false, ""),
            "POST /console/exec?bot=cli HTTP/1.1\r\nHost: 127.0.0.1\r\nX-Kst-Form: lines\r\n"
            "Content-Type: text/plain\r\nContent-Length: 1\r\nConnection: close\r\n\r\nx");
}

TEST(ResidentClient, JsonStringsDecodeToUtf8) {
  EXPECT_EQ(decode_json_string(R"(a\"b\\c\/d\ne\tf\rg\u00e9h\u0009)"),
            "a\"b\\c/d\ne\tf\rg\xC3\xA9h\t");
  EXPECT_EQ(decode_json_string(R"(\u20ac \ud83d\ude00 \u0041)"), "\xE2\x82\xAC \xF0\x9F\x98\x80 A");
  // A lone surrogate half, a short escape and a trailing backslash do no harm.
  EXPECT_EQ(decode_json_string(R"(\ud800x)"), "\xEF\xBF\xBDx");
  EXPECT_EQ(decode_json_string(R"(\u12 \)"), "\\u12 \\");
}

TEST(ResidentClient, RepliesSayWhetherTheUnitRan) {
  std::string head = "HTTP/1.1 200 OK\r\nContent-Type: application/json\r\n\r\n";
  PostOutcome ran = parse_reply(
      head +
      R"({"ok":true,"bot":"cli","out":"OK: \"out\":\"x\"\n","err":"fs parse error\n","status":1})");
  EXPECT_EQ(ran.kind, PostOutcome::Kind::kAnswered);
  EXPECT_EQ(ran.out, "OK: \"out\":\"x\"\n");
  EXPECT_EQ(ran.err, "fs parse error\n");
  EXPECT_EQ(ran.status, 1);

  EXPECT_EQ(parse_reply("HTTP/1.1 401 Unauthorized\r\n\r\n{\"ok\":false}").kind,
            PostOutcome::Kind::kRefused);
  EXPECT_EQ(parse_reply(head + R"({"ok":false,"error":"x"})").kind, PostOutcome::Kind::kNotSent);
  EXPECT_EQ(parse_reply("").kind, PostOutcome::Kind::kLost);
  EXPECT_EQ(parse_reply("HTTP/1.1 200 OK\r\nContent-Le").kind, PostOutcome::Kind::kLost);
}

TEST(ResidentClient, LargeAnswersWithEscapesEverywhereArriveByteForByte) {
  // Escapes at the ends of runs, next to quotes and in long plain stretches, in
  // an answer larger than any one read: what a whole-file diff sends back.
  std::string text;
  const char* pieces[] = {
      "[ ] line \"quoted\" ", "back\\slash\\", "\ttab\x01", "é ✓ ", "\\\"", "\n"};
  for (int i = 0; text.size() < 600000; ++i) text += pieces[(i * 7) % 6];
  text += "\\";
  std::string body = "{\"ok\":true,\"out\":";
  server::append_json_string(body, text);
  body += ",\"err\":\"\",\"status\":0}";
  PostOutcome parsed = parse_reply("HTTP/1.1 200 OK\r\n\r\n" + body);
  EXPECT_TRUE(parsed.out == text);
  EXPECT_EQ(json_string_end(R"(a\"b\\"c)", 0), 6u);
  EXPECT_EQ(json_string_end(R"(ab\)", 0), 3u);  // unterminated: the end
  const std::string head = "HTTP/1.1 200 OK\r\nContent-Length: 12\r\n\r\n";
  EXPECT_EQ(reply_length(head + "{\"ok\""), head.size() + 12);
  EXPECT_EQ(reply_length("HTTP/1.1 200 OK\r\nContent-Length: 12\r\n"), 0u);  // head not whole
  EXPECT_EQ(reply_length("HTTP/1.1 200 OK\r\nContent-Length: 99999999999999\r\n\r\n"), 0u);

  server::ServerOptions options;
  options.exec = [&](const server::ExecRequest&) { return server::ExecResult(text, "", 0); };
  server::testing::RunningServer resident(std::move(options));
  UnitSource none(reader_of(""));
  testing::internal::CaptureStdout();
  forward_units(resident.port(), "fs:cat big", none, kToken);
  EXPECT_TRUE(testing::internal::GetCapturedStdout() == text);
}

TEST(ResidentClient, UnitsArePostedInOrderWithOneConsole) {
  std::mutex lock;
  std::vector<server::ExecRequest> seen;
  server::ServerOptions options;
  options.exec = [&](const server::ExecRequest& r) {
    std::lock_guard guard(lock);
    seen.push_back(r);
    return server::ExecResult("ran " + std::to_string(seen.size()) + "\n", "", 0);
  };
  server::testing::RunningServer resident(std::move(options));

  UnitSource source(reader_of("fs:ls a\nfsmk:file b <![CDATA[x\n\ny]]>\n\nfs:ls c"));
  testing::internal::CaptureStdout();
  ForwardResult result = forward_units(resident.port(), "", source, kToken);
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "ran 1\nran 2\nran 3\n");
  EXPECT_FALSE(result.rest_runs_here);
  ASSERT_EQ(seen.size(), 3u);
  EXPECT_EQ(seen[1].line, "fsmk:file b <![CDATA[x\n\ny]]>\n");
  EXPECT_FALSE(seen[1].arguments);
  EXPECT_FALSE(seen[0].session.empty());
  EXPECT_EQ(seen[0].session, seen[2].session);
}

// Another home's resident answers 401: nothing ran there, and every unit is left
// to run here.
TEST(ResidentClient, RefusedTokenLeavesEveryUnitToRunHere) {
  server::ServerOptions options;
  std::atomic<int> ran = 0;
  options.exec = [&ran](const server::ExecRequest&) {
    ++ran;
    return server::ExecResult("ran\n", "", 0);
  };
  server::testing::RunningServer resident(std::move(options));
  UnitSource source(reader_of("first\nsecond\n"));
  testing::internal::CaptureStdout();
  ForwardResult result = forward_units(resident.port(), "", source, std::string(64, 'b'));
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
  EXPECT_TRUE(result.refused);
  EXPECT_TRUE(result.rest_runs_here);
  EXPECT_EQ(ran, 0);
  EXPECT_EQ(source.next(), "first\n");
  EXPECT_EQ(source.next(), "second\n");
}

TEST(ResidentClient, NothingListeningLeavesEveryUnitToRunHere) {
  std::uint16_t port;
  {
    server::testing::RunningServer gone{server::ServerOptions{}};
    port = gone.port();
  }
  UnitSource source(reader_of("a\nb\n"));
  ForwardResult result = forward_units(port, "", source, kToken);
  EXPECT_TRUE(result.rest_runs_here);
  EXPECT_FALSE(result.any_sent);
  EXPECT_EQ(source.next(), "a\n");  // the unsent unit is put back, not dropped
  EXPECT_EQ(source.next(), "b\n");
  EXPECT_EQ(source.next(), std::nullopt);
}

}  // namespace kx::launcher

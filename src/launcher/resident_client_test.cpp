#include "launcher/resident_client.hpp"

#include <gtest/gtest.h>

#include <sstream>

#include "server/test_client.hpp"

namespace kx::launcher {

const std::string kToken(64, 'a');

TEST(ResidentClient, RequestCarriesTokenCwdAndTtyOnlyWhenKnown) {
  EXPECT_EQ(build_exec_request("fs:ls .", std::string("/home/me"), true, "t0k"),
            "POST /console/exec?bot=cli HTTP/1.1\r\nHost: 127.0.0.1\r\n"
            "Authorization: Bearer t0k\r\nX-Kst-Cwd: /home/me\r\n"
            "X-Kst-Tty: 1\r\nContent-Type: text/plain\r\nContent-Length: 7\r\n"
            "Connection: close\r\n\r\nfs:ls .");
  EXPECT_EQ(build_exec_request("x", std::nullopt, false, ""),
            "POST /console/exec?bot=cli HTTP/1.1\r\nHost: 127.0.0.1\r\nContent-Type: "
            "text/plain\r\nContent-Length: 1\r\nConnection: close\r\n\r\nx");
}

TEST(ResidentClient, OutFieldIsDecodedLossilyAndOtherBodiesPrintWhole) {
  std::string head = "HTTP/1.1 200 OK\r\nContent-Type: application/json\r\n\r\n";
  EXPECT_EQ(reply_output(head + R"({"ok":true,"bot":"cli","out":"a\"b\\c\/d\ne\tf\rg\u00e9h"})"),
            "a\"b\\c/d\ne\tf\rg?h");
  EXPECT_EQ(reply_output(head + R"({"ok":false,"error":"bot and command required"})"),
            R"({"ok":false,"error":"bot and command required"})");
  EXPECT_EQ(reply_output(head + R"({"out":"ends with backslash \\"})"), "ends with backslash \\");
  EXPECT_EQ(reply_output(head + "{\"out\":\"unterminated"), "unterminated");
  EXPECT_EQ(reply_output("HTTP/1.1 200 OK\r\nno end of head"), std::nullopt);
  EXPECT_EQ(decode_lossy("\\u12\\q\\"), "\\u12\\q\\");
}

TEST(ResidentClient, ForwardPrintsEachResultWithOneLineFeed) {
  server::ServerOptions options;
  options.token = kToken;
  options.exec = [](const server::ExecRequest& r) {
    return r.line == "bare" ? std::string("no newline") : "line " + r.line + "\n";
  };
  server::testing::RunningServer resident(std::move(options));

  std::istringstream no_input;
  std::ostringstream out;
  std::string unsent;
  EXPECT_EQ(forward_lines(resident.port(), "bare", kToken, no_input, out, unsent),
            ExecOutcome::kAnswered);
  EXPECT_EQ(forward_lines(resident.port(), "one", kToken, no_input, out, unsent),
            ExecOutcome::kAnswered);
  EXPECT_EQ(out.str(), "no newline\nline one\n");

  std::istringstream piped("a\r\n\nb\n");
  std::ostringstream piped_out;
  EXPECT_EQ(forward_lines(resident.port(), "", kToken, piped, piped_out, unsent),
            ExecOutcome::kAnswered);
  EXPECT_EQ(piped_out.str(), "line a\nline b\n");
  EXPECT_EQ(unsent, "");
}

// Another home's resident answers 401: nothing is printed, and every line read so
// far is handed back for the local run.
TEST(ResidentClient, RefusedTokenHandsTheWholeInputBack) {
  server::ServerOptions options;
  options.token = kToken;
  int ran = 0;
  options.exec = [&ran](const server::ExecRequest&) { return std::to_string(++ran); };
  server::testing::RunningServer resident(std::move(options));
  std::istringstream piped("first\nsecond\n");
  std::ostringstream out;
  std::string unsent;
  EXPECT_EQ(forward_lines(resident.port(), "", std::string(64, 'b'), piped, out, unsent),
            ExecOutcome::kRefused);
  EXPECT_EQ(unsent, "first\nsecond\n");
  EXPECT_EQ(out.str(), "");
  EXPECT_EQ(ran, 0);
}

TEST(ResidentClient, ForwardFailsWhenNothingListens) {
  std::uint16_t port;
  {
    server::testing::RunningServer gone{server::ServerOptions{}};
    port = gone.port();
  }
  std::istringstream piped("a\nb\n");
  std::ostringstream out;
  std::string unsent;
  EXPECT_EQ(forward_lines(port, "x", kToken, piped, out, unsent), ExecOutcome::kFailed);
  EXPECT_EQ(forward_lines(port, "", kToken, piped, out, unsent), ExecOutcome::kFailed);
  EXPECT_EQ(out.str(), "");
  EXPECT_EQ(unsent, "a\nb\n");
  std::istringstream nothing;
  EXPECT_EQ(forward_lines(port, "", kToken, nothing, out, unsent),
            ExecOutcome::kAnswered);  // no lines: nothing failed
}

}  // namespace kx::launcher

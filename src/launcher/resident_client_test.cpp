#include "launcher/resident_client.hpp"

#include <gtest/gtest.h>

#include <sstream>

#include "server/test_client.hpp"

namespace kx::launcher {

TEST(ResidentClient, RequestCarriesCwdAndTtyOnlyWhenKnown) {
  EXPECT_EQ(build_exec_request("fs:ls .", std::string("/home/me"), true),
            "POST /console/exec?bot=cli HTTP/1.1\r\nHost: 127.0.0.1\r\nX-Kst-Cwd: /home/me\r\n"
            "X-Kst-Tty: 1\r\nContent-Type: text/plain\r\nContent-Length: 7\r\n"
            "Connection: close\r\n\r\nfs:ls .");
  EXPECT_EQ(build_exec_request("x", std::nullopt, false),
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
  options.exec = [](const server::ExecRequest& r) {
    return r.line == "bare" ? std::string("no newline") : "line " + r.line + "\n";
  };
  server::testing::RunningServer resident(std::move(options));

  std::istringstream no_input;
  std::ostringstream out;
  EXPECT_TRUE(forward_lines(resident.port(), "bare", no_input, out));
  EXPECT_TRUE(forward_lines(resident.port(), "one", no_input, out));
  EXPECT_EQ(out.str(), "no newline\nline one\n");

  std::istringstream piped("a\r\n\nb\n");
  std::ostringstream piped_out;
  EXPECT_TRUE(forward_lines(resident.port(), "", piped, piped_out));
  EXPECT_EQ(piped_out.str(), "line a\nline b\n");
}

TEST(ResidentClient, ForwardFailsWhenNothingListens) {
  std::uint16_t port;
  {
    server::testing::RunningServer gone{server::ServerOptions{}};
    port = gone.port();
  }
  std::istringstream piped("a\nb\n");
  std::ostringstream out;
  EXPECT_FALSE(forward_lines(port, "x", piped, out));
  EXPECT_FALSE(forward_lines(port, "", piped, out));
  EXPECT_EQ(out.str(), "");
  std::istringstream nothing;
  EXPECT_TRUE(forward_lines(port, "", nothing, out));  // no lines: nothing failed
}

}  // namespace kx::launcher

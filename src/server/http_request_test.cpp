#include "server/http_request.hpp"

#include <gtest/gtest.h>

namespace kx::server {

TEST(HttpRequest, HeadSplitsTargetAtFirstQuestionMarkAndLowerCasesHeaderNames) {
  Request request;
  parse_head(
      "POST /console/exec?bot=cli&x=a?b HTTP/1.1\r\nHost: 127.0.0.1\r\nX-Kst-Cwd:  /home/me \r\n"
      "X-KST-TTY: 1\r\nContent-Length: 12",
      request);
  EXPECT_EQ(request.method, "POST");
  EXPECT_EQ(request.path, "/console/exec");
  EXPECT_EQ(request.query, "bot=cli&x=a?b");
  EXPECT_EQ(request.header("x-kst-cwd"), "/home/me");
  EXPECT_EQ(request.header("x-kst-tty"), "1");
  EXPECT_EQ(content_length(request), 12u);
  EXPECT_EQ(request.header("absent"), "");
}

TEST(HttpRequest, MalformedHeadsGiveEmptyFieldsNotErrors) {
  for (const char* head : {"", "GET", "\r\n\r\n", ": no name\r\nvalue only", "GET  HTTP/1.1"}) {
    Request request;
    parse_head(head, request);
    EXPECT_TRUE(request.query.empty()) << head;
  }
  Request no_query;
  parse_head("GET /health HTTP/1.1", no_query);
  EXPECT_EQ(no_query.path, "/health");
  EXPECT_EQ(no_query.query, "");
}

TEST(HttpRequest, ContentLengthIsItsDecimalPrefixAndSaturates) {
  auto length = [](const char* value) {
    Request request;
    request.headers["content-length"] = value;
    return content_length(request);
  };
  EXPECT_EQ(length("abc"), 0u);
  EXPECT_EQ(length("42xyz"), 42u);
  EXPECT_GT(length("99999999999999999999999999999999"), kMaxBodyBytes);
  EXPECT_EQ(content_length(Request{}), 0u);
}

TEST(HttpRequest, FormParametersArePercentAndPlusDecoded) {
  EXPECT_EQ(form_param("cmd=fs%3Acat+a.txt&bot=x", "cmd"), "fs:cat a.txt");
  EXPECT_EQ(form_param("a=1&b=2", "b"), "2");
  EXPECT_EQ(form_param("a=1", "b"), "");
  EXPECT_EQ(form_param("broken=%zz%4", "broken"), "%zz%4");
  EXPECT_TRUE(has_form_param("flag&x=1", "flag"));
  EXPECT_FALSE(has_form_param("x=1", "flag"));
}

TEST(HttpRequest, HeadEndIsFoundWhenTheBufferGrows) {
  std::string buffer = "GET / HTTP/1.1\r\n\r";
  EXPECT_EQ(find_head_end(buffer), std::string::npos);
  buffer += "\nbody";
  EXPECT_EQ(find_head_end(buffer, buffer.size() - 8), 14u);
}

}  // namespace kx::server

#pragma once
// The one HTTP answer writer. Every answer closes the connection and forbids caching.
#include <string>
#include <string_view>

#include "platform/socket.hpp"

namespace kx::server {

inline constexpr const char* kJson = "application/json";
inline constexpr const char* kJsonUtf8 = "application/json; charset=utf-8";
inline constexpr const char* kText = "text/plain";
inline constexpr const char* kTextUtf8 = "text/plain; charset=utf-8";
inline constexpr const char* kHtml = "text/html; charset=utf-8";
inline constexpr const char* kMarkdown = "text/markdown; charset=utf-8";
inline constexpr const char* kJavascript = "application/javascript; charset=utf-8";
inline constexpr const char* kCss = "text/css; charset=utf-8";
inline constexpr const char* kNdjson = "application/x-ndjson";

// What a route answers: a literal status text ("200 OK", "404 Not Found", ...),
// a content type and the body.
struct Response {
  std::string status;
  std::string content_type;
  std::string body;
  std::string extra_headers = {};  // whole "Name: value\r\n" lines (cookies, redirects)
};

Response ok_json(std::string body);
Response text_response(std::string status, std::string body);  // "text/plain"
Response json_response(std::string status, std::string body);  // "application/json"

// The bytes of an answer: status line, Content-Type, Content-Length,
// Cache-Control: no-store, the extra headers, Connection: close, blank line, body.
std::string format_response(const Response& response);

bool send_response(const platform::Socket& socket, const Response& response);

}  // namespace kx::server

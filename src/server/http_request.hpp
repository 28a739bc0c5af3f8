#pragma once
// One HTTP request as the server sees it, and the pure parts of reading one: the
// head parser and the parameter readers. Everything here works on bytes already
// received, so the fuzzer can drive it without a socket.
#include <cstddef>
#include <map>
#include <string>
#include <string_view>

namespace kx::server {

inline constexpr std::size_t kMaxHeadBytes = 65536;       // beyond: dropped silently
inline constexpr std::size_t kMaxBodyBytes = 33554432;    // 32 MiB; beyond: dropped silently
inline constexpr std::size_t kMaxCommandBytes = 1048576;  // /console/exec: 413 beyond

struct Request {
  std::string method;
  std::string path;                            // target before the first '?'
  std::string query;                           // target after it, without the '?'
  std::map<std::string, std::string> headers;  // names lower-cased
  std::string body;       // POST: exactly content-length bytes; else whatever followed the head
  bool loopback = false;  // the peer's address lies in 127.0.0.0/8

  // The header's value, or "" when absent. `name` must be lower-case.
  const std::string& header(const std::string& name) const;
};

// Where the head ends: the offset of the first "\r\n\r\n", or npos. `from` lets a
// reader resume the search in a growing buffer.
std::size_t find_head_end(std::string_view buffer, std::size_t from = 0);

// Parses the request line and header lines of `head` (the bytes before the blank
// line) into `request`. Lenient: a malformed line yields empty fields, never an error.
void parse_head(std::string_view head, Request& request);

// The decimal prefix of "content-length"; 0 when absent or unparsable, and
// saturated far above every limit when it is absurdly long.
std::size_t content_length(const Request& request);

// A parameter of a query string or form body ("a=1&b=x%20y"), percent- and
// plus-decoded; "" when absent.
std::string form_param(std::string_view form, std::string_view name);
bool has_form_param(std::string_view form, std::string_view name);

std::string url_decode(std::string_view text);

}  // namespace kx::server

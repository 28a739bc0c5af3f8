#pragma once
// A tiny blocking HTTP/1.1 client for local services (one POST, connection closed
// after the answer). Only "http://host[:port]/path" URLs; no TLS, no redirects.
#include <string>
#include <string_view>

namespace kx::platform {

struct HttpResponse {
  bool ok = false;    // a complete HTTP answer arrived (any status)
  int status = 0;     // e.g. 200
  std::string body;   // de-chunked
  std::string error;  // why not ok: "connection refused", "timed out", ...
};

// `extra_headers` are whole header lines, each ending in CR LF.
HttpResponse http_post(std::string_view url, std::string_view content_type, std::string_view body,
                       int timeout_ms, std::string_view extra_headers = {});

}  // namespace kx::platform

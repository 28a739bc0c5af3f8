// One POST over the platform's sockets; everything above the socket is plain text
// handling and the same on every platform.
#include "platform/http_client.hpp"

#include <chrono>
#include <cstdlib>

#include "platform/socket.hpp"

namespace kx::platform {
namespace {

using Clock = std::chrono::steady_clock;

struct Url {
  std::string host;
  std::uint16_t port = 80;
  std::string path = "/";
};

bool parse_url(std::string_view url, Url& out) {
  constexpr std::string_view scheme = "http://";
  if (!url.starts_with(scheme)) return false;
  url.remove_prefix(scheme.size());
  const auto slash = url.find('/');
  std::string_view authority = url.substr(0, slash);
  if (slash != std::string_view::npos) out.path = std::string(url.substr(slash));
  if (const auto colon = authority.rfind(':'); colon != std::string_view::npos) {
    const std::string port(authority.substr(colon + 1));
    const unsigned long value = std::strtoul(port.c_str(), nullptr, 10);
    if (port.empty() || value == 0 || value > 65535) return false;
    out.port = static_cast<std::uint16_t>(value);
    authority = authority.substr(0, colon);
  }
  out.host = std::string(authority);
  return !out.host.empty();
}

int remaining_ms(Clock::time_point deadline) {
  const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now());
  return left.count() > 0 ? static_cast<int>(left.count()) : 0;
}

bool decode_chunked(std::string_view in, std::string& out) {
  out.clear();
  while (true) {
    const auto eol = in.find("\r\n");
    if (eol == std::string_view::npos) return false;
    const std::size_t size = std::strtoul(std::string(in.substr(0, eol)).c_str(), nullptr, 16);
    in.remove_prefix(eol + 2);
    if (size == 0) return true;
    if (in.size() < size) return false;
    out.append(in.substr(0, size));
    in.remove_prefix(std::min(in.size(), size + 2));
  }
}

std::string lower(std::string_view s) {
  std::string out(s);
  for (char& c : out)
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c + 32);
  return out;
}

// Fills `response` from a complete raw answer.
void parse_answer(const std::string& raw, HttpResponse& response) {
  const auto header_end = raw.find("\r\n\r\n");
  if (!raw.starts_with("HTTP/1.") || header_end == std::string::npos || raw.size() < 12) {
    response.error = "malformed HTTP answer";
    return;
  }
  response.status = std::atoi(raw.c_str() + 9);
  const std::string headers = lower(std::string_view(raw).substr(0, header_end));
  std::string_view payload = std::string_view(raw).substr(header_end + 4);
  if (headers.find("transfer-encoding: chunked") != std::string::npos) {
    if (!decode_chunked(payload, response.body)) {
      response.error = "truncated chunked body";
      return;
    }
  } else if (auto at = headers.find("content-length:"); at != std::string::npos) {
    const std::size_t length = std::strtoul(headers.c_str() + at + 15, nullptr, 10);
    if (payload.size() < length) {
      response.error = "truncated body";
      return;
    }
    response.body = std::string(payload.substr(0, length));
  } else {
    response.body = std::string(payload);
  }
  response.ok = true;
}

}  // namespace

HttpResponse http_post(std::string_view url_text, std::string_view content_type,
                       std::string_view body, int timeout_ms, std::string_view extra_headers) {
  HttpResponse response;
  Url url;
  if (!parse_url(url_text, url)) {
    response.error = "unsupported URL " + std::string(url_text);
    return response;
  }
  const auto deadline = Clock::now() + std::chrono::milliseconds(timeout_ms);
  std::optional<Socket> socket = connect_tcp(url.host, url.port, timeout_ms, response.error);
  if (!socket) return response;

  std::string request = "POST " + url.path + " HTTP/1.1\r\nHost: " + url.host + ":" +
                        std::to_string(url.port) +
                        "\r\nContent-Type: " + std::string(content_type) +
                        "\r\nContent-Length: " + std::to_string(body.size()) +
                        "\r\nConnection: close\r\n" + std::string(extra_headers) + "\r\n";
  request.append(body);
  set_send_timeout(*socket, std::max(1, remaining_ms(deadline)));
  if (!send_all(*socket, request)) {
    response.error = remaining_ms(deadline) == 0 ? "timed out" : "send failed";
    return response;
  }

  std::string raw;
  char buffer[4096];
  for (;;) {
    const int left = remaining_ms(deadline);
    if (left == 0) {
      response.error = "timed out";
      return response;
    }
    set_receive_timeout(*socket, left);
    const long n = receive_some(*socket, buffer, sizeof buffer);
    if (n > 0) {
      raw.append(buffer, static_cast<std::size_t>(n));
      continue;
    }
    if (n < 0 && remaining_ms(deadline) == 0) {
      response.error = "timed out";
      return response;
    }
    break;  // the peer closed (Connection: close), or the connection failed
  }
  parse_answer(raw, response);
  return response;
}

}  // namespace kx::platform

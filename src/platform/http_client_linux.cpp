#include <netdb.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <fcntl.h>
#include <cerrno>
#include <chrono>
#include <cstring>

#include "platform/http_client.hpp"

namespace kx::platform {
namespace {

using Clock = std::chrono::steady_clock;

struct Url {
  std::string host;
  std::string port = "80";
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
    out.port = std::string(authority.substr(colon + 1));
    authority = authority.substr(0, colon);
  }
  out.host = std::string(authority);
  return !out.host.empty() && !out.port.empty();
}

int remaining_ms(Clock::time_point deadline) {
  const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now());
  return left.count() > 0 ? static_cast<int>(left.count()) : 0;
}

bool wait_for(int fd, short events, Clock::time_point deadline) {
  pollfd p{fd, events, 0};
  while (true) {
    const int n = ::poll(&p, 1, remaining_ms(deadline));
    if (n > 0) return true;
    if (n == 0 || errno != EINTR) return false;
  }
}

int connect_to(const Url& url, Clock::time_point deadline, std::string& error) {
  addrinfo hints{};
  hints.ai_family = AF_UNSPEC;
  hints.ai_socktype = SOCK_STREAM;
  addrinfo* found = nullptr;
  if (::getaddrinfo(url.host.c_str(), url.port.c_str(), &hints, &found) != 0) {
    error = "cannot resolve " + url.host;
    return -1;
  }
  int fd = -1;
  error = "connection refused";
  for (addrinfo* ai = found; ai != nullptr && fd < 0; ai = ai->ai_next) {
    fd = ::socket(ai->ai_family, ai->ai_socktype | SOCK_CLOEXEC | SOCK_NONBLOCK, ai->ai_protocol);
    if (fd < 0) continue;
    if (::connect(fd, ai->ai_addr, ai->ai_addrlen) == 0) break;
    int so_error = errno;
    if (so_error == EINPROGRESS && wait_for(fd, POLLOUT, deadline)) {
      socklen_t len = sizeof so_error;
      ::getsockopt(fd, SOL_SOCKET, SO_ERROR, &so_error, &len);
      if (so_error == 0) break;
    } else if (so_error == EINPROGRESS) {
      error = "timed out";
    }
    ::close(fd);
    fd = -1;
  }
  ::freeaddrinfo(found);
  return fd;
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

}  // namespace

HttpResponse http_post(std::string_view url_text, std::string_view content_type,
                       std::string_view body, int timeout_ms) {
  HttpResponse response;
  Url url;
  if (!parse_url(url_text, url)) {
    response.error = "unsupported URL " + std::string(url_text);
    return response;
  }
  const auto deadline = Clock::now() + std::chrono::milliseconds(timeout_ms);
  const int fd = connect_to(url, deadline, response.error);
  if (fd < 0) return response;

  std::string request = "POST " + url.path + " HTTP/1.1\r\nHost: " + url.host + ":" + url.port +
                        "\r\nContent-Type: " + std::string(content_type) +
                        "\r\nContent-Length: " + std::to_string(body.size()) +
                        "\r\nConnection: close\r\n\r\n";
  request.append(body);
  std::size_t sent = 0;
  while (sent < request.size()) {
    if (!wait_for(fd, POLLOUT, deadline)) {
      response.error = "timed out";
      ::close(fd);
      return response;
    }
    const ssize_t n = ::send(fd, request.data() + sent, request.size() - sent, MSG_NOSIGNAL);
    if (n < 0 && errno != EAGAIN && errno != EINTR) {
      response.error = "send failed";
      ::close(fd);
      return response;
    }
    if (n > 0) sent += static_cast<std::size_t>(n);
  }

  std::string raw;
  char buffer[4096];
  while (true) {
    if (!wait_for(fd, POLLIN, deadline)) {
      response.error = "timed out";
      ::close(fd);
      return response;
    }
    const ssize_t n = ::recv(fd, buffer, sizeof buffer, 0);
    if (n > 0) {
      raw.append(buffer, static_cast<std::size_t>(n));
      continue;
    }
    if (n < 0 && (errno == EAGAIN || errno == EINTR)) continue;
    break;  // peer closed (Connection: close) or failed
  }
  ::close(fd);

  const auto header_end = raw.find("\r\n\r\n");
  if (!raw.starts_with("HTTP/1.") || header_end == std::string::npos || raw.size() < 12) {
    response.error = "malformed HTTP answer";
    return response;
  }
  response.status = std::atoi(raw.c_str() + 9);
  const std::string headers = lower(std::string_view(raw).substr(0, header_end));
  std::string_view payload = std::string_view(raw).substr(header_end + 4);
  if (headers.find("transfer-encoding: chunked") != std::string::npos) {
    if (!decode_chunked(payload, response.body)) {
      response.error = "truncated chunked body";
      return response;
    }
  } else if (auto at = headers.find("content-length:"); at != std::string::npos) {
    const std::size_t length = std::strtoul(headers.c_str() + at + 15, nullptr, 10);
    if (payload.size() < length) {
      response.error = "truncated body";
      return response;
    }
    response.body = std::string(payload.substr(0, length));
  } else {
    response.body = std::string(payload);
  }
  response.ok = true;
  return response;
}

}  // namespace kx::platform

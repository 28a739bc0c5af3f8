#include <arpa/inet.h>
#include <fcntl.h>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <string>

#include "platform/socket.hpp"

namespace kx::platform {
namespace {

int fd_of(const Socket& socket) {
  return static_cast<int>(socket.handle());
}

bool set_timeout(const Socket& socket, int option, int millis) {
  timeval tv{};
  tv.tv_sec = millis / 1000;
  tv.tv_usec = (millis % 1000) * 1000;
  return setsockopt(fd_of(socket), SOL_SOCKET, option, &tv, sizeof tv) == 0;
}

}  // namespace

void Socket::close() {
  if (handle_ >= 0) ::close(static_cast<int>(handle_));
  handle_ = -1;
}

bool set_receive_timeout(const Socket& socket, int millis) {
  return set_timeout(socket, SO_RCVTIMEO, millis);
}

bool set_send_timeout(const Socket& socket, int millis) {
  return set_timeout(socket, SO_SNDTIMEO, millis);
}

bool set_no_delay(const Socket& socket) {
  int one = 1;
  return setsockopt(fd_of(socket), IPPROTO_TCP, TCP_NODELAY, &one, sizeof one) == 0;
}

long receive_some(const Socket& socket, char* buffer, std::size_t capacity) {
  for (;;) {
    ssize_t n = ::recv(fd_of(socket), buffer, capacity, 0);
    if (n >= 0) return static_cast<long>(n);
    if (errno != EINTR) return -1;
  }
}

bool send_all(const Socket& socket, std::string_view bytes) {
  while (!bytes.empty()) {
    ssize_t n = ::send(fd_of(socket), bytes.data(), bytes.size(), MSG_NOSIGNAL);
    if (n < 0) {
      if (errno == EINTR) continue;
      return false;
    }
    bytes.remove_prefix(static_cast<std::size_t>(n));
  }
  return true;
}

void shutdown_send(const Socket& socket) {
  ::shutdown(fd_of(socket), SHUT_WR);
}

void shutdown_both(const Socket& socket) {
  ::shutdown(fd_of(socket), SHUT_RDWR);
}

namespace {

// Connects a fresh non-blocking socket to `addr`; blocking again once connected.
std::optional<Socket> connect_address(const sockaddr* addr, socklen_t length, int family,
                                      int timeout_millis, bool& timed_out) {
  Socket socket(::socket(family, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  if (!socket.valid()) return std::nullopt;
  int fd = fd_of(socket);
  if (::connect(fd, addr, length) != 0) {
    if (errno != EINPROGRESS) return std::nullopt;
    pollfd pfd{fd, POLLOUT, 0};
    int ready;
    do {
      ready = ::poll(&pfd, 1, timeout_millis);
    } while (ready < 0 && errno == EINTR);
    if (ready == 0) timed_out = true;
    if (ready <= 0) return std::nullopt;
    int error = 0;
    socklen_t len = sizeof error;
    if (getsockopt(fd, SOL_SOCKET, SO_ERROR, &error, &len) != 0 || error != 0) return std::nullopt;
  }
  int flags = fcntl(fd, F_GETFL, 0);
  fcntl(fd, F_SETFL, flags & ~O_NONBLOCK);
  return socket;
}

}  // namespace

std::optional<Socket> connect_loopback(std::uint16_t port, int timeout_millis) {
  sockaddr_in addr{};
  addr.sin_family = AF_INET;
  addr.sin_port = htons(port);
  addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  bool timed_out = false;
  return connect_address(reinterpret_cast<sockaddr*>(&addr), sizeof addr, AF_INET, timeout_millis,
                         timed_out);
}

std::optional<Socket> connect_tcp(const std::string& host, std::uint16_t port, int timeout_millis,
                                  std::string& error) {
  addrinfo hints{};
  hints.ai_family = AF_UNSPEC;
  hints.ai_socktype = SOCK_STREAM;
  addrinfo* found = nullptr;
  if (::getaddrinfo(host.c_str(), std::to_string(port).c_str(), &hints, &found) != 0) {
    error = "cannot resolve " + host;
    return std::nullopt;
  }
  bool timed_out = false;
  std::optional<Socket> socket;
  for (addrinfo* ai = found; ai != nullptr && !socket; ai = ai->ai_next)
    socket = connect_address(ai->ai_addr, ai->ai_addrlen, ai->ai_family, timeout_millis, timed_out);
  ::freeaddrinfo(found);
  if (!socket) error = timed_out ? "timed out" : "connection refused";
  return socket;
}

bool is_ipv4_address(const std::string& address) {
  in_addr parsed{};
  return inet_pton(AF_INET, address.c_str(), &parsed) == 1;
}

ListenResult listen_tcp(const std::string& address, std::uint16_t port) {
  ListenResult result;
  Socket socket(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
  if (!socket.valid()) {
    result.error = errno;
    result.failed = ListenResult::Stage::kSocket;
    return result;
  }
  sockaddr_in addr{};
  addr.sin_family = AF_INET;
  addr.sin_port = htons(port);
  if (inet_pton(AF_INET, address.c_str(), &addr.sin_addr) != 1) {
    result.error = EINVAL;
    result.failed = ListenResult::Stage::kBind;
    return result;
  }
  // On Linux SO_REUSEADDR only lets us bind over connections of a previous
  // instance still in TIME_WAIT; a second live listener on the port still fails.
  int one = 1;
  setsockopt(fd_of(socket), SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
  if (::bind(fd_of(socket), reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0) {
    result.error = errno;
    result.failed = ListenResult::Stage::kBind;
    return result;
  }
  if (::listen(fd_of(socket), SOMAXCONN) != 0) {
    result.error = errno;
    result.failed = ListenResult::Stage::kListen;
    return result;
  }
  result.socket = std::move(socket);
  return result;
}

std::optional<Accepted> accept_connection(const Socket& listener) {
  sockaddr_in peer{};
  socklen_t len = sizeof peer;
  int fd = ::accept4(fd_of(listener), reinterpret_cast<sockaddr*>(&peer), &len, SOCK_CLOEXEC);
  if (fd < 0) return std::nullopt;
  Accepted accepted;
  accepted.socket = Socket(fd);
  accepted.peer_ipv4 = peer.sin_family == AF_INET ? ntohl(peer.sin_addr.s_addr) : 0;
  return accepted;
}

std::uint16_t local_port(const Socket& socket) {
  sockaddr_in addr{};
  socklen_t len = sizeof addr;
  if (getsockname(fd_of(socket), reinterpret_cast<sockaddr*>(&addr), &len) != 0) return 0;
  return ntohs(addr.sin_port);
}

bool set_nonblocking(const Socket& socket) {
  int flags = fcntl(fd_of(socket), F_GETFL, 0);
  return flags >= 0 && fcntl(fd_of(socket), F_SETFL, flags | O_NONBLOCK) == 0;
}

long receive_now(const Socket& socket, char* buffer, std::size_t capacity) {
  for (;;) {
    ssize_t n = ::recv(fd_of(socket), buffer, capacity, 0);
    if (n >= 0) return static_cast<long>(n);
    if (errno == EINTR) continue;
    return errno == EAGAIN || errno == EWOULDBLOCK ? kWouldBlock : -1;
  }
}

long send_now(const Socket& socket, std::string_view bytes) {
  for (;;) {
    ssize_t n = ::send(fd_of(socket), bytes.data(), bytes.size(), MSG_NOSIGNAL);
    if (n >= 0) return static_cast<long>(n);
    if (errno == EINTR) continue;
    return errno == EAGAIN || errno == EWOULDBLOCK ? kWouldBlock : -1;
  }
}

AcceptStatus accept_now(const Socket& listener, Accepted& accepted) {
  for (;;) {
    sockaddr_in peer{};
    socklen_t len = sizeof peer;
    int fd = ::accept4(fd_of(listener), reinterpret_cast<sockaddr*>(&peer), &len,
                       SOCK_CLOEXEC | SOCK_NONBLOCK);
    if (fd >= 0) {
      accepted.socket = Socket(fd);
      accepted.peer_ipv4 = peer.sin_family == AF_INET ? ntohl(peer.sin_addr.s_addr) : 0;
      return AcceptStatus::kAccepted;
    }
    // A connection reset while it waited is simply gone; look for the next one.
    if (errno == EINTR || errno == ECONNABORTED) continue;
    return errno == EAGAIN || errno == EWOULDBLOCK ? AcceptStatus::kNone : AcceptStatus::kFailed;
  }
}

void raise_socket_limit() {
  rlimit limit{};
  if (getrlimit(RLIMIT_NOFILE, &limit) != 0 || limit.rlim_cur >= limit.rlim_max) return;
  limit.rlim_cur = limit.rlim_max;
  setrlimit(RLIMIT_NOFILE, &limit);
}

}  // namespace kx::platform

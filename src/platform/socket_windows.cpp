// Winsock 2.2, started once per process before the first socket.
#ifndef _WIN32_WINNT
#define _WIN32_WINNT 0x0601
#endif
#include <winsock2.h>
#include <ws2tcpip.h>

#include <algorithm>
#include <mutex>
#include <string>

#include "platform/socket.hpp"

namespace kx::platform {
namespace {

bool winsock_ready() {
  static std::once_flag once;
  static bool ready = false;
  std::call_once(once, [] {
    WSADATA data;
    ready = ::WSAStartup(MAKEWORD(2, 2), &data) == 0;
  });
  return ready;
}

SOCKET sock_of(const Socket& socket) {
  return static_cast<SOCKET>(socket.handle());
}

std::intptr_t handle_of(SOCKET s) {
  return s == INVALID_SOCKET ? -1 : static_cast<std::intptr_t>(s);
}

bool set_timeout(const Socket& socket, int option, int millis) {
  DWORD value = static_cast<DWORD>(millis);
  return ::setsockopt(sock_of(socket), SOL_SOCKET, option, reinterpret_cast<const char*>(&value),
                      sizeof value) == 0;
}

}  // namespace

void Socket::close() {
  if (handle_ >= 0) ::closesocket(static_cast<SOCKET>(handle_));
  handle_ = -1;
}

bool set_receive_timeout(const Socket& socket, int millis) {
  return set_timeout(socket, SO_RCVTIMEO, millis);
}

bool set_send_timeout(const Socket& socket, int millis) {
  return set_timeout(socket, SO_SNDTIMEO, millis);
}

bool set_no_delay(const Socket& socket) {
  BOOL one = TRUE;
  return ::setsockopt(sock_of(socket), IPPROTO_TCP, TCP_NODELAY,
                      reinterpret_cast<const char*>(&one), sizeof one) == 0;
}

long receive_some(const Socket& socket, char* buffer, std::size_t capacity) {
  int n =
      ::recv(sock_of(socket), buffer, static_cast<int>(capacity > 1 << 30 ? 1 << 30 : capacity), 0);
  return n == SOCKET_ERROR ? -1 : n;
}

bool send_all(const Socket& socket, std::string_view bytes) {
  while (!bytes.empty()) {
    int piece = static_cast<int>(bytes.size() > (1u << 30) ? (1u << 30) : bytes.size());
    int n = ::send(sock_of(socket), bytes.data(), piece, 0);
    if (n == SOCKET_ERROR) return false;
    bytes.remove_prefix(static_cast<std::size_t>(n));
  }
  return true;
}

void shutdown_send(const Socket& socket) {
  ::shutdown(sock_of(socket), SD_SEND);
}

void shutdown_both(const Socket& socket) {
  ::shutdown(sock_of(socket), SD_BOTH);
}

namespace {

// Connects a fresh non-blocking socket to `addr`; blocking again once connected.
std::optional<Socket> connect_address(const sockaddr* addr, int length, int family,
                                      int timeout_millis, bool& timed_out) {
  if (!winsock_ready()) return std::nullopt;
  Socket socket(handle_of(::socket(family, SOCK_STREAM, IPPROTO_TCP)));
  if (!socket.valid()) return std::nullopt;
  SOCKET s = sock_of(socket);
  u_long non_blocking = 1;
  ::ioctlsocket(s, FIONBIO, &non_blocking);
  if (::connect(s, addr, length) == SOCKET_ERROR) {
    if (::WSAGetLastError() != WSAEWOULDBLOCK) return std::nullopt;
    fd_set writable, failed;
    FD_ZERO(&writable);
    FD_ZERO(&failed);
    FD_SET(s, &writable);
    FD_SET(s, &failed);
    timeval tv{timeout_millis / 1000, (timeout_millis % 1000) * 1000};
    int ready = ::select(0, nullptr, &writable, &failed, &tv);
    if (ready == 0) timed_out = true;
    if (ready <= 0 || FD_ISSET(s, &failed)) return std::nullopt;
    int error = 0;
    int len = sizeof error;
    if (::getsockopt(s, SOL_SOCKET, SO_ERROR, reinterpret_cast<char*>(&error), &len) != 0 ||
        error != 0)
      return std::nullopt;
  }
  u_long blocking = 0;
  ::ioctlsocket(s, FIONBIO, &blocking);
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
  if (!winsock_ready()) {
    error = "sockets unavailable";
    return std::nullopt;
  }
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
    socket = connect_address(ai->ai_addr, static_cast<int>(ai->ai_addrlen), ai->ai_family,
                             timeout_millis, timed_out);
  ::freeaddrinfo(found);
  if (!socket) error = timed_out ? "timed out" : "connection refused";
  return socket;
}

bool is_ipv4_address(const std::string& address) {
  in_addr parsed{};
  return ::inet_pton(AF_INET, address.c_str(), &parsed) == 1;
}

ListenResult listen_tcp(const std::string& address, std::uint16_t port) {
  ListenResult result;
  if (!winsock_ready()) {
    result.failed = ListenResult::Stage::kSocket;
    return result;
  }
  Socket socket(handle_of(::socket(AF_INET, SOCK_STREAM, IPPROTO_TCP)));
  if (!socket.valid()) {
    result.error = ::WSAGetLastError();
    result.failed = ListenResult::Stage::kSocket;
    return result;
  }
  ::SetHandleInformation(reinterpret_cast<HANDLE>(sock_of(socket)), HANDLE_FLAG_INHERIT, 0);
  // No other process may bind the port while we hold it.
  BOOL exclusive = TRUE;
  ::setsockopt(sock_of(socket), SOL_SOCKET, SO_EXCLUSIVEADDRUSE,
               reinterpret_cast<const char*>(&exclusive), sizeof exclusive);
  sockaddr_in addr{};
  addr.sin_family = AF_INET;
  addr.sin_port = htons(port);
  if (::inet_pton(AF_INET, address.c_str(), &addr.sin_addr) != 1) {
    result.error = WSAEINVAL;
    result.failed = ListenResult::Stage::kBind;
    return result;
  }
  if (::bind(sock_of(socket), reinterpret_cast<sockaddr*>(&addr), sizeof addr) == SOCKET_ERROR) {
    result.error = ::WSAGetLastError();
    result.failed = ListenResult::Stage::kBind;
    return result;
  }
  if (::listen(sock_of(socket), SOMAXCONN) == SOCKET_ERROR) {
    result.error = ::WSAGetLastError();
    result.failed = ListenResult::Stage::kListen;
    return result;
  }
  result.socket = std::move(socket);
  return result;
}

std::optional<Accepted> accept_connection(const Socket& listener) {
  sockaddr_in peer{};
  int len = sizeof peer;
  SOCKET s = ::accept(sock_of(listener), reinterpret_cast<sockaddr*>(&peer), &len);
  if (s == INVALID_SOCKET) return std::nullopt;
  Accepted accepted;
  accepted.socket = Socket(handle_of(s));
  accepted.peer_ipv4 = peer.sin_family == AF_INET ? ntohl(peer.sin_addr.s_addr) : 0;
  return accepted;
}

std::uint16_t local_port(const Socket& socket) {
  sockaddr_in addr{};
  int len = sizeof addr;
  if (::getsockname(sock_of(socket), reinterpret_cast<sockaddr*>(&addr), &len) != 0) return 0;
  return ntohs(addr.sin_port);
}

bool set_nonblocking(const Socket& socket) {
  u_long non_blocking = 1;
  return ::ioctlsocket(sock_of(socket), FIONBIO, &non_blocking) == 0;
}

long receive_now(const Socket& socket, char* buffer, std::size_t capacity) {
  int n = ::recv(sock_of(socket), buffer,
                 static_cast<int>(std::min<std::size_t>(capacity, 1 << 30)), 0);
  if (n >= 0) return n;
  return ::WSAGetLastError() == WSAEWOULDBLOCK ? kWouldBlock : -1;
}

long send_now(const Socket& socket, std::string_view bytes) {
  int n = ::send(sock_of(socket), bytes.data(),
                 static_cast<int>(std::min<std::size_t>(bytes.size(), 1 << 30)), 0);
  if (n >= 0) return n;
  return ::WSAGetLastError() == WSAEWOULDBLOCK ? kWouldBlock : -1;
}

AcceptStatus accept_now(const Socket& listener, Accepted& accepted) {
  for (;;) {
    sockaddr_in peer{};
    int len = sizeof peer;
    SOCKET s = ::accept(sock_of(listener), reinterpret_cast<sockaddr*>(&peer), &len);
    if (s != INVALID_SOCKET) {
      accepted.socket = Socket(handle_of(s));
      accepted.peer_ipv4 = peer.sin_family == AF_INET ? ntohl(peer.sin_addr.s_addr) : 0;
      set_nonblocking(accepted.socket);
      return AcceptStatus::kAccepted;
    }
    int error = ::WSAGetLastError();
    if (error == WSAECONNRESET || error == WSAEINTR) continue;
    return error == WSAEWOULDBLOCK ? AcceptStatus::kNone : AcceptStatus::kFailed;
  }
}

// Windows limits sockets by memory, not by a per-process count.
void raise_socket_limit() {}

}  // namespace kx::platform

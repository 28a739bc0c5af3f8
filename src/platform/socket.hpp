#pragma once
// TCP sockets for the resident's server and its local clients. IPv4 only; every
// call reports failure by its result and none raises a signal (a peer that goes
// away mid-send is a failed send, not a SIGPIPE).
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace kx::platform {

// An owned, connected or listening socket. Move-only; closes on destruction.
class Socket {
 public:
  Socket() = default;
  explicit Socket(std::intptr_t handle) : handle_(handle) {}
  Socket(Socket&& other) noexcept : handle_(other.release()) {}
  Socket& operator=(Socket&& other) noexcept {
    if (this != &other) {
      close();
      handle_ = other.release();
    }
    return *this;
  }
  Socket(const Socket&) = delete;
  Socket& operator=(const Socket&) = delete;
  ~Socket() { close(); }

  bool valid() const { return handle_ >= 0; }
  std::intptr_t handle() const { return handle_; }
  std::intptr_t release() {
    std::intptr_t handle = handle_;
    handle_ = -1;
    return handle;
  }
  void close();

 private:
  std::intptr_t handle_ = -1;
};

// Time-outs in milliseconds; 0 means none (block until data or close).
bool set_receive_timeout(const Socket& socket, int millis);
bool set_send_timeout(const Socket& socket, int millis);
bool set_no_delay(const Socket& socket);

// Receives up to `capacity` bytes: >0 bytes read, 0 the peer closed, -1 an error
// or a time-out.
long receive_some(const Socket& socket, char* buffer, std::size_t capacity);

// Sends every byte; false on an error or a send time-out.
bool send_all(const Socket& socket, std::string_view bytes);

// Ends the sending side (the peer sees end of stream); the socket stays open.
void shutdown_send(const Socket& socket);

// Ends both sides, waking a thread blocked in receive on this socket.
void shutdown_both(const Socket& socket);

// Connects to 127.0.0.1:port, giving up after `timeout_millis`.
std::optional<Socket> connect_loopback(std::uint16_t port, int timeout_millis);

// Resolves `host` and connects to the first address that answers within
// `timeout_millis`. On failure `error` says why ("cannot resolve ...",
// "connection refused", "timed out").
std::optional<Socket> connect_tcp(const std::string& host, std::uint16_t port, int timeout_millis,
                                  std::string& error);

struct ListenResult {
  std::optional<Socket> socket;
  int error = 0;  // the system's error number when binding or listening failed
  enum class Stage { kNone, kSocket, kBind, kListen } failed = Stage::kNone;
};

// Binds an IPv4 listener to `address` (dotted quad, "0.0.0.0" for every
// interface) and the port, exclusively: a second listener on the same port fails
// to bind. Listens with the largest backlog.
ListenResult listen_tcp(const std::string& address, std::uint16_t port);

// Whether the dotted quad parses as an IPv4 address.
bool is_ipv4_address(const std::string& address);

struct Accepted {
  Socket socket;
  std::uint32_t peer_ipv4 = 0;  // host byte order
};

// Waits for the next connection; nothing when accept failed (retry) or the
// listener was closed.
std::optional<Accepted> accept_connection(const Socket& listener);

// The local port a socket is bound to (0 when unknown).
std::uint16_t local_port(const Socket& socket);

// Calls for one thread serving many sockets: none of them ever waits.
bool set_nonblocking(const Socket& socket);

// What a non-blocking call returns when the socket is not ready.
inline constexpr long kWouldBlock = -2;

// Receives what is there: >0 bytes read, 0 the peer closed, kWouldBlock, -1 an error.
long receive_now(const Socket& socket, char* buffer, std::size_t capacity);

// Sends what fits: bytes sent (>0), kWouldBlock, or -1 on an error.
long send_now(const Socket& socket, std::string_view bytes);

enum class AcceptStatus { kAccepted, kNone, kFailed };

// Takes one waiting connection from a non-blocking listener, made non-blocking
// itself. kNone: nobody is waiting; kFailed: the system refused (e.g. out of
// descriptors), try again later.
AcceptStatus accept_now(const Socket& listener, Accepted& accepted);

// Lets this process hold as many sockets as the system allows it (raises the
// soft limit on open descriptors to the hard one where there is such a limit).
void raise_socket_limit();

}  // namespace kx::platform

// A readiness loop over WSAPoll, which takes any number of sockets. The waiting
// thread is woken by a datagram it sends itself on a loopback UDP socket.
#ifndef _WIN32_WINNT
#define _WIN32_WINNT 0x0601
#endif
#include <winsock2.h>
#include <ws2tcpip.h>

#include <unordered_map>

#include "platform/poller.hpp"

namespace kx::platform {

struct Poller::Impl {
  SOCKET wake = INVALID_SOCKET;
  std::vector<WSAPOLLFD> fds;  // [0] is the wake socket
  std::vector<std::uint64_t> keys;
  std::unordered_map<SOCKET, std::size_t> index;
};

namespace {

SHORT poll_mask(unsigned interest) {
  SHORT mask = 0;
  if (interest & Poller::kRead) mask |= POLLRDNORM;
  if (interest & Poller::kWrite) mask |= POLLWRNORM;
  return mask;
}

SOCKET make_wake_socket() {
  // A socket made here starts Winsock as a side effect of the socket module, so
  // make sure it is up before the first call.
  WSADATA data;
  if (::WSAStartup(MAKEWORD(2, 2), &data) != 0) return INVALID_SOCKET;
  SOCKET s = ::socket(AF_INET, SOCK_DGRAM, IPPROTO_UDP);
  if (s == INVALID_SOCKET) return s;
  sockaddr_in addr{};
  addr.sin_family = AF_INET;
  addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  int len = sizeof addr;
  u_long non_blocking = 1;
  if (::bind(s, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0 ||
      ::getsockname(s, reinterpret_cast<sockaddr*>(&addr), &len) != 0 ||
      ::connect(s, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0 ||
      ::ioctlsocket(s, FIONBIO, &non_blocking) != 0) {
    ::closesocket(s);
    return INVALID_SOCKET;
  }
  return s;
}

}  // namespace

Poller::Poller() : impl_(std::make_unique<Impl>()) {
  impl_->wake = make_wake_socket();
  WSAPOLLFD wake{};
  wake.fd = impl_->wake;
  wake.events = POLLRDNORM;
  impl_->fds.push_back(wake);
  impl_->keys.push_back(0);
}

Poller::~Poller() {
  if (impl_->wake != INVALID_SOCKET) {
    ::closesocket(impl_->wake);
    ::WSACleanup();
  }
}

bool Poller::valid() const {
  return impl_->wake != INVALID_SOCKET;
}

bool Poller::add(const Socket& socket, std::uint64_t key, unsigned interest) {
  SOCKET s = static_cast<SOCKET>(socket.handle());
  if (impl_->index.count(s) != 0) return false;
  WSAPOLLFD entry{};
  entry.fd = s;
  entry.events = poll_mask(interest);
  impl_->index[s] = impl_->fds.size();
  impl_->fds.push_back(entry);
  impl_->keys.push_back(key);
  return true;
}

bool Poller::modify(const Socket& socket, std::uint64_t key, unsigned interest) {
  auto found = impl_->index.find(static_cast<SOCKET>(socket.handle()));
  if (found == impl_->index.end()) return false;
  impl_->fds[found->second].events = poll_mask(interest);
  impl_->keys[found->second] = key;
  return true;
}

void Poller::remove(const Socket& socket) {
  auto found = impl_->index.find(static_cast<SOCKET>(socket.handle()));
  if (found == impl_->index.end()) return;
  std::size_t at = found->second;
  std::size_t last = impl_->fds.size() - 1;
  impl_->index.erase(found);
  if (at != last) {
    impl_->fds[at] = impl_->fds[last];
    impl_->keys[at] = impl_->keys[last];
    impl_->index[impl_->fds[at].fd] = at;
  }
  impl_->fds.pop_back();
  impl_->keys.pop_back();
}

void Poller::wait(std::vector<Event>& events, int timeout_millis) {
  events.clear();
  for (WSAPOLLFD& entry : impl_->fds) entry.revents = 0;
  int n = ::WSAPoll(impl_->fds.data(), static_cast<ULONG>(impl_->fds.size()), timeout_millis);
  if (n <= 0) return;
  if (impl_->fds[0].revents != 0) {
    char sink[64];
    while (::recv(impl_->wake, sink, sizeof sink, 0) > 0) {
    }
  }
  for (std::size_t i = 1; i < impl_->fds.size(); ++i) {
    SHORT got = impl_->fds[i].revents;
    if (got == 0) continue;
    Event event;
    event.key = impl_->keys[i];
    event.readable = (got & POLLRDNORM) != 0;
    event.writable = (got & POLLWRNORM) != 0;
    event.failed = (got & (POLLERR | POLLHUP | POLLNVAL)) != 0;
    events.push_back(event);
  }
}

void Poller::wake() {
  char one = 1;
  ::send(impl_->wake, &one, 1, 0);
}

}  // namespace kx::platform

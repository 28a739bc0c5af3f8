// epoll for readiness, an eventfd to wake the waiting thread.
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>

#include "platform/poller.hpp"

namespace kx::platform {
namespace {

constexpr std::uint64_t kWakeKey = UINT64_MAX;

std::uint32_t epoll_mask(unsigned interest) {
  std::uint32_t mask = 0;
  if (interest & Poller::kRead) mask |= EPOLLIN;
  if (interest & Poller::kWrite) mask |= EPOLLOUT;
  return mask;
}

}  // namespace

struct Poller::Impl {
  int epoll = -1;
  int wake = -1;
  std::vector<epoll_event> ready = std::vector<epoll_event>(256);
};

Poller::Poller() : impl_(std::make_unique<Impl>()) {
  impl_->epoll = ::epoll_create1(EPOLL_CLOEXEC);
  impl_->wake = ::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
  if (impl_->epoll >= 0 && impl_->wake >= 0) {
    epoll_event event{};
    event.events = EPOLLIN;
    event.data.u64 = kWakeKey;
    ::epoll_ctl(impl_->epoll, EPOLL_CTL_ADD, impl_->wake, &event);
  }
}

Poller::~Poller() {
  if (impl_->epoll >= 0) ::close(impl_->epoll);
  if (impl_->wake >= 0) ::close(impl_->wake);
}

bool Poller::valid() const {
  return impl_->epoll >= 0 && impl_->wake >= 0;
}

bool Poller::add(const Socket& socket, std::uint64_t key, unsigned interest) {
  epoll_event event{};
  event.events = epoll_mask(interest);
  event.data.u64 = key;
  return ::epoll_ctl(impl_->epoll, EPOLL_CTL_ADD, static_cast<int>(socket.handle()), &event) == 0;
}

bool Poller::modify(const Socket& socket, std::uint64_t key, unsigned interest) {
  epoll_event event{};
  event.events = epoll_mask(interest);
  event.data.u64 = key;
  return ::epoll_ctl(impl_->epoll, EPOLL_CTL_MOD, static_cast<int>(socket.handle()), &event) == 0;
}

void Poller::remove(const Socket& socket) {
  epoll_event unused{};
  ::epoll_ctl(impl_->epoll, EPOLL_CTL_DEL, static_cast<int>(socket.handle()), &unused);
}

void Poller::wait(std::vector<Event>& events, int timeout_millis) {
  events.clear();
  int n = ::epoll_wait(impl_->epoll, impl_->ready.data(), static_cast<int>(impl_->ready.size()),
                       timeout_millis);
  for (int i = 0; i < n; ++i) {
    const epoll_event& got = impl_->ready[static_cast<std::size_t>(i)];
    if (got.data.u64 == kWakeKey) {
      std::uint64_t count;
      while (::read(impl_->wake, &count, sizeof count) > 0) {
      }
      continue;
    }
    Event event;
    event.key = got.data.u64;
    event.readable = (got.events & EPOLLIN) != 0;
    event.writable = (got.events & EPOLLOUT) != 0;
    event.failed = (got.events & (EPOLLERR | EPOLLHUP)) != 0;
    events.push_back(event);
  }
  if (n == static_cast<int>(impl_->ready.size())) impl_->ready.resize(impl_->ready.size() * 2);
}

void Poller::wake() {
  std::uint64_t one = 1;
  while (::write(impl_->wake, &one, sizeof one) < 0 && errno == EINTR) {
  }
}

}  // namespace kx::platform

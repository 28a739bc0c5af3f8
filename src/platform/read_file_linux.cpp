#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

#include "platform/read_file.hpp"

namespace kx::platform {

bool read_whole_file(const std::filesystem::path& path, std::string& out, std::uint64_t size_hint) {
  int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return false;
  // One byte more than expected: a read that comes back short is the end of the file.
  out.resize(size_hint > 0 ? static_cast<std::size_t>(size_hint) + 1 : 65536);
  std::size_t total = 0;
  constexpr std::size_t kChunk = std::size_t{1} << 30;  // below the kernel's per-call cap
  for (;;) {
    std::size_t want = std::min(out.size() - total, kChunk);
    ssize_t n = ::read(fd, out.data() + total, want);
    if (n < 0) {
      if (errno == EINTR) continue;
      ::close(fd);
      return false;
    }
    total += static_cast<std::size_t>(n);
    if (static_cast<std::size_t>(n) < want) break;
    if (total == out.size()) out.resize(out.size() * 2);
  }
  ::close(fd);
  out.resize(total);
  return true;
}

}  // namespace kx::platform

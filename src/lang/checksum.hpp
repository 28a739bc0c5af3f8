#pragma once
// A fast 64-bit non-cryptographic hash over bytes, taken a machine word at a time:
// the memory index's integrity sums and the diff's line interning both use it.
#include <cstddef>
#include <cstdint>
#include <string_view>

namespace kx::lang {

// The same value however the bytes are split into update()s.
class Checksum {
 public:
  void update(std::string_view bytes);
  std::uint64_t value() const;

 private:
  void block(const char* bytes);
  std::uint64_t lanes_[4] = {0x243f6a8885a308d3, 0x13198a2e03707344, 0xa4093822299f31d0,
                             0x082efa98ec4e6c89};
  char pending_[32] = {};
  std::size_t pending_size_ = 0;
  std::uint64_t total_ = 0;
};

std::uint64_t checksum(std::string_view bytes);

}  // namespace kx::lang

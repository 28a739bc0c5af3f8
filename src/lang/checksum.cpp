#include "lang/checksum.hpp"

#include <bit>
#include <cstring>

namespace kx::lang {
namespace {

constexpr std::uint64_t kPrime = 0x9e3779b97f4a7c15;

std::uint64_t load64(const char* at) {
  std::uint64_t v;
  std::memcpy(&v, at, 8);
  return v;
}

std::uint64_t mix(std::uint64_t h) {
  h ^= h >> 33;
  h *= 0xff51afd7ed558ccd;
  h ^= h >> 33;
  h *= 0xc4ceb9fe1a85ec53;
  return h ^ (h >> 33);
}

}  // namespace

void Checksum::block(const char* bytes) {
  for (int lane = 0; lane < 4; ++lane) {
    const std::uint64_t h = (lanes_[lane] ^ load64(bytes + lane * 8)) * kPrime;
    lanes_[lane] = std::rotl(h, 31);
  }
}

void Checksum::update(std::string_view bytes) {
  if (bytes.empty()) return;
  total_ += bytes.size();
  if (pending_size_ > 0) {
    const std::size_t take = std::min(bytes.size(), 32 - pending_size_);
    std::memcpy(pending_ + pending_size_, bytes.data(), take);
    pending_size_ += take;
    bytes.remove_prefix(take);
    if (pending_size_ < 32) return;
    block(pending_);
    pending_size_ = 0;
  }
  while (bytes.size() >= 32) {
    block(bytes.data());
    bytes.remove_prefix(32);
  }
  std::memcpy(pending_, bytes.data(), bytes.size());
  pending_size_ = bytes.size();
}

std::uint64_t Checksum::value() const {
  std::uint64_t h = total_ * kPrime;
  for (std::uint64_t lane : lanes_) h = mix(h ^ lane);
  char tail[32] = {};
  std::memcpy(tail, pending_, pending_size_);
  for (int i = 0; i < 4; ++i) h = mix(h ^ load64(tail + i * 8));
  return h;
}

std::uint64_t checksum(std::string_view bytes) {
  Checksum sum;
  sum.update(bytes);
  return sum.value();
}

}  // namespace kx::lang

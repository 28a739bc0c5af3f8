#include "term/output_buffer.hpp"

#include <algorithm>

namespace kx::term {

void OutputBuffer::append(std::string_view bytes) {
  bytes_.append(bytes);
  if (bytes_.size() <= kTrimAbove) return;
  std::size_t cut = bytes_.size() - kKeepAfterTrim;
  bytes_.erase(0, cut);
  trimmed_ += cut;
}

std::string_view OutputBuffer::since(std::size_t since) const {
  if (since >= bytes_.size()) return {};
  return std::string_view(bytes_).substr(since);
}

std::string_view OutputBuffer::from_absolute(std::uint64_t& from) const {
  from = std::clamp(from, start(), end());
  return std::string_view(bytes_).substr(static_cast<std::size_t>(from - trimmed_));
}

}  // namespace kx::term

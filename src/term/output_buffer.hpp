#pragma once
// Everything a terminal session has printed, bounded: past kTrimAbove bytes the
// front is cut so that the last kKeepAfterTrim remain. Two ways to count: offsets
// within the buffer as it stands (what "/term/read" speaks, so they fall back
// after a trim) and absolute offsets counted from the session's start (what
// streaming clients resume from, so a reconnect neither repeats nor misses bytes).
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace kx::term {

inline constexpr std::size_t kTrimAbove = 262144;
inline constexpr std::size_t kKeepAfterTrim = 200000;

class OutputBuffer {
 public:
  void append(std::string_view bytes);

  std::size_t size() const { return bytes_.size(); }
  // Absolute offset of the first byte held (bytes trimmed so far).
  std::uint64_t start() const { return trimmed_; }
  std::uint64_t end() const { return trimmed_ + bytes_.size(); }

  // Bytes from the buffer offset `since` on; empty at or beyond the end.
  std::string_view since(std::size_t since) const;
  // Bytes from the absolute offset `from` on; an offset already trimmed away is
  // moved up to start(), one beyond the end down to end().
  std::string_view from_absolute(std::uint64_t& from) const;

 private:
  std::string bytes_;
  std::uint64_t trimmed_ = 0;
};

}  // namespace kx::term

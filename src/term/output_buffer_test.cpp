#include "term/output_buffer.hpp"

#include <gtest/gtest.h>

namespace kx::term {
namespace {

std::string numbered(std::size_t size, std::size_t first = 0) {
  std::string text;
  for (std::size_t i = 0; i < size; ++i) text += static_cast<char>('a' + (first + i) % 26);
  return text;
}

TEST(OutputBufferTest, GrowingPastTheLimitKeepsExactlyTheLastBytes) {
  OutputBuffer buffer;
  buffer.append(numbered(kTrimAbove));
  EXPECT_EQ(buffer.size(), kTrimAbove);  // at the limit nothing is cut yet
  buffer.append(numbered(10, kTrimAbove));
  ASSERT_EQ(buffer.size(), kKeepAfterTrim);
  EXPECT_EQ(buffer.start(), kTrimAbove + 10 - kKeepAfterTrim);
  EXPECT_EQ(buffer.end(), kTrimAbove + 10);
  EXPECT_EQ(buffer.since(0), numbered(kKeepAfterTrim, kTrimAbove + 10 - kKeepAfterTrim));
}

TEST(OutputBufferTest, BufferOffsetsFallBackAfterATrimWhileAbsoluteOnesDoNot) {
  OutputBuffer buffer;
  buffer.append(numbered(kTrimAbove - 5));
  std::uint64_t reached = buffer.end();
  buffer.append("0123456789");  // trims
  // A poller at the old length now lies beyond the buffer: empty until it grows.
  EXPECT_TRUE(buffer.since(kTrimAbove - 5).empty());
  EXPECT_TRUE(buffer.since(buffer.size()).empty());
  // A streaming client resumes exactly after what it had.
  EXPECT_EQ(buffer.from_absolute(reached), "0123456789");
  std::uint64_t trimmed_away = 3;
  EXPECT_EQ(buffer.from_absolute(trimmed_away).size(), kKeepAfterTrim);
  EXPECT_EQ(trimmed_away, buffer.start());
  std::uint64_t beyond = buffer.end() + 100;
  EXPECT_TRUE(buffer.from_absolute(beyond).empty());
  EXPECT_EQ(beyond, buffer.end());
}

}  // namespace
}  // namespace kx::term

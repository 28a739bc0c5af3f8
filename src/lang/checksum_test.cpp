#include "lang/checksum.hpp"

#include <gtest/gtest.h>

#include <string>

namespace kx::lang {
namespace {

TEST(Checksum, DoesNotDependOnHowTheBytesAreSplit) {
  std::string bytes;
  for (int i = 0; i < 300; ++i) bytes += static_cast<char>(i * 37);
  const std::uint64_t whole = checksum(bytes);
  for (std::size_t split : {1, 5, 31, 32, 33, 64, 299}) {
    Checksum parts;
    parts.update(std::string_view(bytes).substr(0, split));
    parts.update(std::string_view(bytes).substr(split));
    EXPECT_EQ(parts.value(), whole) << split;
  }
  EXPECT_NE(checksum(bytes.substr(1)), whole);
  EXPECT_NE(checksum(std::string(32, '\0')), checksum(std::string(33, '\0')));
}

}  // namespace
}  // namespace kx::lang

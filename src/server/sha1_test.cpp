#include "server/sha1.hpp"

#include <gtest/gtest.h>

namespace kx::server {
namespace {

std::string hex(const std::array<std::uint8_t, 20>& digest) {
  static const char* kHex = "0123456789abcdef";
  std::string out;
  for (auto b : digest) {
    out += kHex[b >> 4];
    out += kHex[b & 15];
  }
  return out;
}

}  // namespace

// The test vectors of RFC 3174 (and the empty message).
TEST(Sha1, MatchesTheStandardTestVectors) {
  EXPECT_EQ(hex(sha1("abc")), "a9993e364706816aba3e25717850c26c9cd0d89d");
  EXPECT_EQ(hex(sha1("abcdbcdecdefdefgefghfghighijhijkijkljklmklmnlmnomnopnopq")),
            "84983e441c3bd26ebaae4aa1f95129e5e54670f1");
  EXPECT_EQ(hex(sha1("")), "da39a3ee5e6b4b0d3255bfef95601890afd80709");
  std::string million(1000000, 'a');
  EXPECT_EQ(hex(sha1(million)), "34aa973cd4c4daa4f61eeb2bdbad27316534016f");
  std::string repeated;
  for (int i = 0; i < 10; ++i)
    repeated += "0123456701234567012345670123456701234567012345670123456701234567";
  EXPECT_EQ(hex(sha1(repeated)), "dea356a2cddd90c7a7ecedc5ebb563934f460452");
}

// RFC 4648 section 10.
TEST(Base64, MatchesTheStandardTestVectors) {
  EXPECT_EQ(base64_encode(""), "");
  EXPECT_EQ(base64_encode("f"), "Zg==");
  EXPECT_EQ(base64_encode("fo"), "Zm8=");
  EXPECT_EQ(base64_encode("foo"), "Zm9v");
  EXPECT_EQ(base64_encode("foob"), "Zm9vYg==");
  EXPECT_EQ(base64_encode("fooba"), "Zm9vYmE=");
  EXPECT_EQ(base64_encode("foobar"), "Zm9vYmFy");
  EXPECT_EQ(base64_encode(std::string("\xff\xfe\x00", 3)), "//4A");
}

// The handshake example of RFC 6455 section 1.3.
TEST(WebSocketAcceptKey, MatchesTheHandshakeExample) {
  EXPECT_EQ(websocket_accept_key("dGhlIHNhbXBsZSBub25jZQ=="), "s3pPLMBiTxaQ9kYGzzhZRbK+xOo=");
}

}  // namespace kx::server

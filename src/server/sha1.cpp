#include "server/sha1.hpp"

namespace kx::server {
namespace {

std::uint32_t rotl(std::uint32_t value, int bits) {
  return (value << bits) | (value >> (32 - bits));
}

void process_block(std::array<std::uint32_t, 5>& h, const std::uint8_t* block) {
  std::uint32_t w[80];
  for (int i = 0; i < 16; ++i)
    w[i] = (std::uint32_t{block[i * 4]} << 24) | (std::uint32_t{block[i * 4 + 1]} << 16) |
           (std::uint32_t{block[i * 4 + 2]} << 8) | std::uint32_t{block[i * 4 + 3]};
  for (int i = 16; i < 80; ++i) w[i] = rotl(w[i - 3] ^ w[i - 8] ^ w[i - 14] ^ w[i - 16], 1);
  std::uint32_t a = h[0], b = h[1], c = h[2], d = h[3], e = h[4];
  for (int i = 0; i < 80; ++i) {
    std::uint32_t f, k;
    if (i < 20) {
      f = (b & c) | (~b & d);
      k = 0x5A827999;
    } else if (i < 40) {
      f = b ^ c ^ d;
      k = 0x6ED9EBA1;
    } else if (i < 60) {
      f = (b & c) | (b & d) | (c & d);
      k = 0x8F1BBCDC;
    } else {
      f = b ^ c ^ d;
      k = 0xCA62C1D6;
    }
    std::uint32_t temp = rotl(a, 5) + f + e + k + w[i];
    e = d;
    d = c;
    c = rotl(b, 30);
    b = a;
    a = temp;
  }
  h[0] += a;
  h[1] += b;
  h[2] += c;
  h[3] += d;
  h[4] += e;
}

}  // namespace

std::array<std::uint8_t, 20> sha1(std::string_view data) {
  std::array<std::uint32_t, 5> h = {0x67452301, 0xEFCDAB89, 0x98BADCFE, 0x10325476, 0xC3D2E1F0};
  std::string padded(data);
  std::uint64_t bit_length = static_cast<std::uint64_t>(data.size()) * 8;
  padded += static_cast<char>(0x80);
  while (padded.size() % 64 != 56) padded += '\0';
  for (int i = 7; i >= 0; --i) padded += static_cast<char>((bit_length >> (i * 8)) & 0xff);
  for (std::size_t offset = 0; offset < padded.size(); offset += 64)
    process_block(h, reinterpret_cast<const std::uint8_t*>(padded.data() + offset));
  std::array<std::uint8_t, 20> digest{};
  for (int i = 0; i < 5; ++i)
    for (int j = 0; j < 4; ++j) digest[i * 4 + j] = static_cast<std::uint8_t>(h[i] >> (24 - j * 8));
  return digest;
}

std::string base64_encode(std::string_view bytes) {
  static constexpr char kAlphabet[] =
      "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  std::string out;
  out.reserve((bytes.size() + 2) / 3 * 4);
  std::size_t i = 0;
  for (; i + 3 <= bytes.size(); i += 3) {
    std::uint32_t n = (std::uint32_t{static_cast<std::uint8_t>(bytes[i])} << 16) |
                      (std::uint32_t{static_cast<std::uint8_t>(bytes[i + 1])} << 8) |
                      std::uint32_t{static_cast<std::uint8_t>(bytes[i + 2])};
    out += kAlphabet[(n >> 18) & 63];
    out += kAlphabet[(n >> 12) & 63];
    out += kAlphabet[(n >> 6) & 63];
    out += kAlphabet[n & 63];
  }
  std::size_t rest = bytes.size() - i;
  if (rest > 0) {
    std::uint32_t n = std::uint32_t{static_cast<std::uint8_t>(bytes[i])} << 16;
    if (rest == 2) n |= std::uint32_t{static_cast<std::uint8_t>(bytes[i + 1])} << 8;
    out += kAlphabet[(n >> 18) & 63];
    out += kAlphabet[(n >> 12) & 63];
    out += rest == 2 ? kAlphabet[(n >> 6) & 63] : '=';
    out += '=';
  }
  return out;
}

std::string websocket_accept_key(std::string_view client_key) {
  auto digest = sha1(std::string(client_key) + "258EAFA5-E914-47DA-95CA-C5AB0DC85B11");
  return base64_encode(
      std::string_view(reinterpret_cast<const char*>(digest.data()), digest.size()));
}

}  // namespace kx::server

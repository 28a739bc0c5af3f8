#include "launcher/term_link.hpp"

#include <cstdlib>
#include <random>

#include "launcher/resident_client.hpp"
#include "launcher/resident_lifecycle.hpp"
#include "server/sha1.hpp"

namespace kx::launcher {
namespace {

constexpr int kConnectMillis = 3000;
constexpr int kAnswerMillis = 15000;

std::optional<std::size_t> value_start(std::string_view json, std::string_view key) {
  std::string quoted = "\"" + std::string(key) + "\":";
  std::size_t at = json.find(quoted);
  if (at == std::string_view::npos) return std::nullopt;
  return at + quoted.size();
}

}  // namespace

TermLink::TermLink(std::uint16_t port) : port_(port), token_(own_home_token()) {}

std::string TermLink::auth_header() const {
  return token_.empty() ? std::string() : "Authorization: Bearer " + token_ + "\r\n";
}

std::optional<HttpAnswer> TermLink::request(std::string_view method, const std::string& target,
                                            std::string_view body) {
  auto socket = platform::connect_loopback(port_, kConnectMillis);
  if (!socket) return std::nullopt;
  platform::set_send_timeout(*socket, kAnswerMillis);
  platform::set_receive_timeout(*socket, kAnswerMillis);
  std::string head = std::string(method) + " " + target +
                     " HTTP/1.1\r\nHost: 127.0.0.1:" + std::to_string(port_) + "\r\n" +
                     auth_header() + "Content-Length: " + std::to_string(body.size()) +
                     "\r\nConnection: close\r\n\r\n";
  if (!platform::send_all(*socket, head + std::string(body))) return std::nullopt;
  std::string reply;
  char chunk[4096];
  for (long n; (n = platform::receive_some(*socket, chunk, sizeof chunk)) > 0;)
    reply.append(chunk, static_cast<std::size_t>(n));
  std::size_t head_end = reply.find("\r\n\r\n");
  if (head_end == std::string::npos || !reply.starts_with("HTTP/1.1 ")) return std::nullopt;
  HttpAnswer answer;
  answer.status = std::atoi(reply.c_str() + 9);
  answer.body = reply.substr(head_end + 4);
  return answer;
}

std::optional<platform::Socket> TermLink::open_socket(const std::string& target,
                                                      std::string& leftover) {
  auto socket = platform::connect_loopback(port_, kConnectMillis);
  if (!socket) return std::nullopt;
  platform::set_receive_timeout(*socket, kAnswerMillis);
  unsigned char nonce[16];
  std::random_device random;
  for (auto& byte : nonce) byte = static_cast<unsigned char>(random());
  std::string head =
      "GET " + target + " HTTP/1.1\r\nHost: 127.0.0.1:" + std::to_string(port_) + "\r\n" +
      auth_header() + "Upgrade: websocket\r\nConnection: Upgrade\r\nSec-WebSocket-Key: " +
      server::base64_encode(std::string_view(reinterpret_cast<const char*>(nonce), sizeof nonce)) +
      "\r\nSec-WebSocket-Version: 13\r\n\r\n";
  if (!platform::send_all(*socket, head)) return std::nullopt;
  std::string reply;
  char chunk[4096];
  std::size_t head_end;
  while ((head_end = reply.find("\r\n\r\n")) == std::string::npos) {
    long n = platform::receive_some(*socket, chunk, sizeof chunk);
    if (n <= 0) return std::nullopt;
    reply.append(chunk, static_cast<std::size_t>(n));
  }
  if (!reply.starts_with("HTTP/1.1 101")) return std::nullopt;
  leftover = reply.substr(head_end + 4);
  platform::set_receive_timeout(*socket, 0);
  platform::set_no_delay(*socket);
  return socket;
}

std::optional<std::string> json_string_field(std::string_view json, std::string_view key) {
  auto start = value_start(json, key);
  if (!start || *start >= json.size() || json[*start] != '"') return std::nullopt;
  const std::size_t end = json_string_end(json, *start + 1);
  if (end >= json.size()) return std::nullopt;
  return decode_json_string(json.substr(*start + 1, end - *start - 1));
}

std::optional<std::uint64_t> json_number_field(std::string_view json, std::string_view key) {
  auto start = value_start(json, key);
  if (!start || *start >= json.size() || json[*start] < '0' || json[*start] > '9')
    return std::nullopt;
  std::uint64_t value = 0;
  for (std::size_t i = *start; i < json.size() && json[i] >= '0' && json[i] <= '9'; ++i)
    value = value * 10 + static_cast<std::uint64_t>(json[i] - '0');
  return value;
}

std::string url_encode(std::string_view text) {
  static const char kHex[] = "0123456789ABCDEF";
  std::string out;
  for (unsigned char c : text) {
    if ((c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '-' ||
        c == '_' || c == '.' || c == '~') {
      out += static_cast<char>(c);
    } else {
      out += '%';
      out += kHex[c >> 4];
      out += kHex[c & 15];
    }
  }
  return out;
}

}  // namespace kx::launcher

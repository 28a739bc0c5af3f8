#pragma once
// kxterm's line to the resident: plain HTTP requests and one WebSocket, both
// carrying the home's token when there is one.
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "platform/socket.hpp"

namespace kx::launcher {

struct HttpAnswer {
  int status = 0;
  std::string body;
};

class TermLink {
 public:
  explicit TermLink(std::uint16_t port);

  // One request; nothing when the resident could not be reached.
  std::optional<HttpAnswer> request(std::string_view method, const std::string& target,
                                    std::string_view body = {});

  // Upgrades a connection on `target`; nothing when the answer was not 101.
  // Bytes that followed the answer's head are left in `leftover`.
  std::optional<platform::Socket> open_socket(const std::string& target, std::string& leftover);

 private:
  std::string auth_header() const;
  std::uint16_t port_;
  std::string token_;
};

// The decoded value of the string field `key` of a flat JSON object (every
// escape, \u00XX included, turned back into its bytes); nothing when absent.
std::optional<std::string> json_string_field(std::string_view json, std::string_view key);
// The value of a numeric field; nothing when absent.
std::optional<std::uint64_t> json_number_field(std::string_view json, std::string_view key);

std::string url_encode(std::string_view text);

}  // namespace kx::launcher

#include "server/http_response.hpp"

namespace kx::server {

Response ok_json(std::string body) {
  return {"200 OK", kJson, std::move(body)};
}

Response text_response(std::string status, std::string body) {
  return {std::move(status), kText, std::move(body)};
}

Response json_response(std::string status, std::string body) {
  return {std::move(status), kJson, std::move(body)};
}

std::string format_response(const Response& response) {
  std::string out;
  out.reserve(response.body.size() + 128);
  out += "HTTP/1.1 ";
  out += response.status;
  out += "\r\nContent-Type: ";
  out += response.content_type;
  out += "\r\nContent-Length: ";
  out += std::to_string(response.body.size());
  out += "\r\nCache-Control: no-store\r\n";
  out += response.extra_headers;
  out += "Connection: close\r\n\r\n";
  out += response.body;
  return out;
}

bool send_response(const platform::Socket& socket, const Response& response) {
  return platform::send_all(socket, format_response(response));
}

}  // namespace kx::server

#pragma once
// Assembles one request from received chunks within the limits: the head must
// end within 65,536 bytes, a POST body is read up to its content-length (over
// 32 MiB: dropped), other methods' bodies are whatever came with the head.
// Pure: the connection feeds it what the socket gave.
#include <string>
#include <string_view>

#include "server/http_request.hpp"

namespace kx::server {

class RequestReader {
 public:
  enum class State {
    kNeedMore,  // receive another chunk
    kDone,      // request() is complete
    kDrop,      // close without an answer
  };

  State feed(std::string_view chunk);
  // The peer stopped sending (closed, failed or timed out).
  State end_of_input();

  State state() const { return state_; }
  Request& request() { return request_; }

 private:
  State after_head();

  State state_ = State::kNeedMore;
  bool have_head_ = false;
  std::size_t scanned_ = 0;
  std::size_t wanted_ = 0;
  std::string buffer_;
  Request request_;
};

}  // namespace kx::server

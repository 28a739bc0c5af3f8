#include "server/request_reader.hpp"

namespace kx::server {

RequestReader::State RequestReader::feed(std::string_view chunk) {
  if (state_ != State::kNeedMore) return state_;
  if (have_head_) {
    request_.body.append(chunk);
    if (request_.body.size() >= wanted_) {
      request_.body.resize(wanted_);
      state_ = State::kDone;
    }
    return state_;
  }
  // The limit is checked before each further chunk is taken, as a receive loop would.
  if (buffer_.size() > kMaxHeadBytes) return state_ = State::kDrop;
  buffer_.append(chunk);
  std::size_t end = find_head_end(buffer_, scanned_);
  if (end == std::string::npos) {
    scanned_ = buffer_.size() >= 3 ? buffer_.size() - 3 : 0;
    if (buffer_.size() > kMaxHeadBytes) state_ = State::kDrop;
    return state_;
  }
  parse_head(std::string_view(buffer_).substr(0, end), request_);
  request_.body = buffer_.substr(end + 4);
  buffer_.clear();
  buffer_.shrink_to_fit();
  have_head_ = true;
  return state_ = after_head();
}

RequestReader::State RequestReader::after_head() {
  if (request_.method != "POST") return State::kDone;
  wanted_ = content_length(request_);
  if (wanted_ > kMaxBodyBytes) return State::kDrop;  // silent on purpose: no 413 here
  if (request_.body.size() >= wanted_) {
    request_.body.resize(wanted_);
    return State::kDone;
  }
  return State::kNeedMore;
}

RequestReader::State RequestReader::end_of_input() {
  if (state_ != State::kNeedMore) return state_;
  // A body cut short is served as it came; a head cut short is not a request.
  return state_ = have_head_ ? State::kDone : State::kDrop;
}

}  // namespace kx::server

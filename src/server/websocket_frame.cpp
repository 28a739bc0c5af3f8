#include "server/websocket_frame.hpp"

#include <utility>

namespace kx::server {

FrameStatus parse_frame(std::string_view buffer, Frame& frame, std::size_t& consumed) {
  if (buffer.size() < 2) return FrameStatus::kNeedMore;
  auto byte = [&](std::size_t i) { return static_cast<std::uint8_t>(buffer[i]); };
  std::uint64_t length = byte(1) & 0x7f;
  std::size_t header = 2;
  if (length == 126) {
    if (buffer.size() < 4) return FrameStatus::kNeedMore;
    length = (std::uint64_t{byte(2)} << 8) | byte(3);
    header = 4;
  } else if (length == 127) {
    if (buffer.size() < 10) return FrameStatus::kNeedMore;
    length = 0;
    for (std::size_t i = 2; i < 10; ++i) length = (length << 8) | byte(i);
    header = 10;
  }
  if (length > kMaxFramePayload) return FrameStatus::kTooLarge;
  bool masked = (byte(1) & 0x80) != 0;
  std::size_t mask_at = header;
  if (masked) header += 4;
  if (buffer.size() < header + length) return FrameStatus::kNeedMore;

  frame.fin = (byte(0) & 0x80) != 0;
  frame.opcode = byte(0) & 0x0f;
  frame.payload.assign(buffer.substr(header, static_cast<std::size_t>(length)));
  if (masked) {
    for (std::size_t i = 0; i < frame.payload.size(); ++i)
      frame.payload[i] = static_cast<char>(frame.payload[i] ^ buffer[mask_at + i % 4]);
  }
  consumed = header + static_cast<std::size_t>(length);
  return FrameStatus::kFrame;
}

std::string encode_frame(int opcode, std::string_view payload) {
  std::string out;
  out.reserve(payload.size() + 10);
  out += static_cast<char>(0x80 | (opcode & 0x0f));
  std::uint64_t length = payload.size();
  if (length < 126) {
    out += static_cast<char>(length);
  } else if (length <= 0xffff) {
    out += static_cast<char>(126);
    out += static_cast<char>((length >> 8) & 0xff);
    out += static_cast<char>(length & 0xff);
  } else {
    out += static_cast<char>(127);
    for (int i = 7; i >= 0; --i) out += static_cast<char>((length >> (i * 8)) & 0xff);
  }
  out += payload;
  return out;
}

FrameAction MessageAssembler::feed(Frame frame) {
  switch (frame.opcode) {
    case kClose:
      return {FrameAction::kClose, {}};
    case kPing:
      return {FrameAction::kPong, std::move(frame.payload)};
    case kTextFrame:
    case kBinaryFrame:
      if (frame.fin)
        return {FrameAction::kMessage, std::move(frame.payload), frame.opcode == kBinaryFrame};
      fragments_ = std::move(frame.payload);
      fragments_binary_ = frame.opcode == kBinaryFrame;
      return {};
    case kContinuation:
      if (fragments_.size() + frame.payload.size() > kMaxMessageBytes)
        return {FrameAction::kTooLarge, {}};
      fragments_ += frame.payload;
      if (!frame.fin) return {};
      return {FrameAction::kMessage, std::exchange(fragments_, std::string()), fragments_binary_};
    default:
      return {};  // pong and reserved opcodes carry nothing for us
  }
}

}  // namespace kx::server

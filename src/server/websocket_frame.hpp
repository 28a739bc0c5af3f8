#pragma once
// WebSocket framing (RFC 6455) without I/O: parsing frames out of a receive
// buffer, assembling fragmented messages, and encoding the server's frames.
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace kx::server {

inline constexpr std::size_t kMaxFramePayload = 1048576;   // 1 MiB: larger ends the connection
inline constexpr std::size_t kMaxMessageBytes = 16777216;  // 16 MiB of fragments

enum Opcode : int {
  kContinuation = 0,
  kTextFrame = 1,
  kBinaryFrame = 2,
  kClose = 8,
  kPing = 9,
  kPong = 10
};

struct Frame {
  bool fin = false;
  int opcode = 0;
  std::string payload;  // unmasked
};

enum class FrameStatus { kNeedMore, kFrame, kTooLarge };

// Parses the first frame of `buffer`. kFrame fills `frame` and sets `consumed` to
// the frame's size; kNeedMore means the frame is not yet complete.
FrameStatus parse_frame(std::string_view buffer, Frame& frame, std::size_t& consumed);

// One unmasked frame with FIN set, using the shortest length form.
std::string encode_frame(int opcode, std::string_view payload);

// Turns frames into whole messages: what the connection should do next.
struct FrameAction {
  enum Kind { kNone, kMessage, kPong, kClose, kTooLarge } kind = kNone;
  std::string data;     // the message, or the ping payload to echo
  bool binary = false;  // a message that came as binary frames
};

class MessageAssembler {
 public:
  FrameAction feed(Frame frame);

 private:
  std::string fragments_;
  bool fragments_binary_ = false;
};

}  // namespace kx::server

// Runs arbitrary bytes through the frame parser and the message assembler the
// way the connection does, and checks the limits hold.
#include <cstddef>
#include <cstdint>
#include <string>

#include "server/websocket_frame.hpp"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  std::string buffer(reinterpret_cast<const char*>(data), size);
  kx::server::MessageAssembler assembler;
  for (;;) {
    kx::server::Frame frame;
    std::size_t consumed = 0;
    auto status = kx::server::parse_frame(buffer, frame, consumed);
    if (status != kx::server::FrameStatus::kFrame) break;
    if (consumed == 0 || consumed > buffer.size() ||
        frame.payload.size() > kx::server::kMaxFramePayload)
      __builtin_trap();
    buffer.erase(0, consumed);
    // What we would send back must parse as what we meant.
    std::string echoed = kx::server::encode_frame(frame.opcode, frame.payload);
    kx::server::Frame back;
    std::size_t back_consumed = 0;
    if (kx::server::parse_frame(echoed, back, back_consumed) != kx::server::FrameStatus::kFrame ||
        back.payload != frame.payload || back_consumed != echoed.size())
      __builtin_trap();
    auto action = assembler.feed(std::move(frame));
    if (action.kind == kx::server::FrameAction::kClose ||
        action.kind == kx::server::FrameAction::kTooLarge)
      break;
    if (action.data.size() > kx::server::kMaxMessageBytes) __builtin_trap();
  }
  return 0;
}

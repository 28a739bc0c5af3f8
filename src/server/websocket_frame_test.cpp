#include "server/websocket_frame.hpp"

#include <gtest/gtest.h>

namespace kx::server {
namespace {

// A client frame: masked, as browsers send them.
std::string client_frame(int opcode, bool fin, const std::string& payload) {
  std::string frame;
  frame += static_cast<char>((fin ? 0x80 : 0) | opcode);
  const char mask[4] = {0x11, 0x22, 0x33, 0x44};
  if (payload.size() < 126) {
    frame += static_cast<char>(0x80 | payload.size());
  } else if (payload.size() <= 0xffff) {
    frame += static_cast<char>(0x80 | 126);
    frame += static_cast<char>(payload.size() >> 8);
    frame += static_cast<char>(payload.size() & 0xff);
  } else {
    frame += static_cast<char>(0x80 | 127);
    for (int i = 7; i >= 0; --i) frame += static_cast<char>((payload.size() >> (i * 8)) & 0xff);
  }
  frame.append(mask, 4);
  for (std::size_t i = 0; i < payload.size(); ++i)
    frame += static_cast<char>(payload[i] ^ mask[i % 4]);
  return frame;
}

}  // namespace

TEST(WebSocketFrame, MaskedFramesOfEachLengthFormAreUnmasked) {
  for (std::size_t size : {0u, 5u, 125u, 126u, 70000u}) {
    std::string payload(size, 'x');
    for (std::size_t i = 0; i < size; ++i) payload[i] = static_cast<char>('a' + i % 26);
    std::string bytes = client_frame(kTextFrame, true, payload) + "trailing";
    Frame frame;
    std::size_t consumed = 0;
    ASSERT_EQ(parse_frame(bytes, frame, consumed), FrameStatus::kFrame) << size;
    EXPECT_EQ(frame.payload, payload);
    EXPECT_TRUE(frame.fin);
    EXPECT_EQ(frame.opcode, kTextFrame);
    EXPECT_EQ(bytes.substr(consumed), "trailing");
  }
}

TEST(WebSocketFrame, IncompleteFramesAskForMoreAtEveryCut) {
  std::string bytes = client_frame(kTextFrame, true, std::string(300, 'q'));
  for (std::size_t cut = 0; cut < bytes.size(); ++cut) {
    Frame frame;
    std::size_t consumed = 0;
    EXPECT_EQ(parse_frame(bytes.substr(0, cut), frame, consumed), FrameStatus::kNeedMore) << cut;
  }
}

TEST(WebSocketFrame, PayloadsAboveOneMebibyteAreRefusedFromTheHeaderAlone) {
  std::string header = "\x81\xff";
  for (int i = 0; i < 8; ++i) header += static_cast<char>(i == 7 ? 1 : (i == 5 ? 0x10 : 0));
  Frame frame;
  std::size_t consumed = 0;
  EXPECT_EQ(parse_frame(header, frame, consumed), FrameStatus::kTooLarge);
  std::string huge = "\x81\x7f\xff\xff\xff\xff\xff\xff\xff\xff";
  EXPECT_EQ(parse_frame(huge, frame, consumed), FrameStatus::kTooLarge);
  std::string exactly = client_frame(kBinaryFrame, true, std::string(kMaxFramePayload, 'z'));
  EXPECT_EQ(parse_frame(exactly, frame, consumed), FrameStatus::kFrame);
}

TEST(WebSocketFrame, ServerFramesAreUnmaskedWithTheShortestLengthForm) {
  EXPECT_EQ(encode_frame(kTextFrame, "hi"), std::string("\x81\x02hi"));
  std::string mid = encode_frame(kTextFrame, std::string(126, 'a'));
  EXPECT_EQ(mid.substr(0, 4), std::string("\x81\x7e\x00\x7e", 4));
  std::string big = encode_frame(kBinaryFrame, std::string(65536, 'a'));
  EXPECT_EQ(big.substr(0, 10), std::string("\x82\x7f\x00\x00\x00\x00\x00\x01\x00\x00", 10));
  EXPECT_EQ(encode_frame(kClose, std::string("\x03\xe8", 2)), std::string("\x88\x02\x03\xe8", 4));
}

TEST(MessageAssembler, FragmentsJoinAndControlFramesPassBetweenThem) {
  MessageAssembler assembler;
  EXPECT_EQ(assembler.feed({false, kTextFrame, "hel"}).kind, FrameAction::kNone);
  FrameAction ping = assembler.feed({true, kPing, "p1"});
  EXPECT_EQ(ping.kind, FrameAction::kPong);
  EXPECT_EQ(ping.data, "p1");
  EXPECT_EQ(assembler.feed({false, kContinuation, "lo "}).kind, FrameAction::kNone);
  FrameAction message = assembler.feed({true, kContinuation, "world"});
  EXPECT_EQ(message.kind, FrameAction::kMessage);
  EXPECT_EQ(message.data, "hello world");
  EXPECT_EQ(assembler.feed({true, kPong, "x"}).kind, FrameAction::kNone);
  EXPECT_EQ(assembler.feed({true, kClose, ""}).kind, FrameAction::kClose);
}

TEST(MessageAssembler, FragmentsBeyondSixteenMebibytesEndTheConnection) {
  MessageAssembler assembler;
  std::string piece(kMaxFramePayload, 'x');
  assembler.feed({false, kBinaryFrame, piece});
  FrameAction last;
  for (int i = 0; i < 16; ++i) last = assembler.feed({false, kContinuation, piece});
  EXPECT_EQ(last.kind, FrameAction::kTooLarge);
}

}  // namespace kx::server

#include "server/request_reader.hpp"

#include <gtest/gtest.h>

namespace kx::server {

using State = RequestReader::State;

TEST(RequestReader, AssemblesAPostFromAnySplitOfItsBytes) {
  const std::string bytes =
      "POST /console/exec?bot=cli HTTP/1.1\r\nContent-Length: 5\r\n\r\nhello+ignored";
  for (std::size_t cut = 1; cut < bytes.size(); ++cut) {
    RequestReader reader;
    reader.feed(std::string_view(bytes).substr(0, cut));
    reader.feed(std::string_view(bytes).substr(cut));
    ASSERT_EQ(reader.state(), State::kDone) << cut;
    EXPECT_EQ(reader.request().body, "hello") << cut;
    EXPECT_EQ(reader.request().query, "bot=cli");
  }
}

TEST(RequestReader, OtherMethodsAreDoneAtTheEndOfTheHeadAndKeepWhatFollowed) {
  RequestReader reader;
  const std::string bytes =
      std::string("GET / HTTP/1.1\r\nUpgrade: websocket\r\n\r\n") + '\x81' + '\0';
  EXPECT_EQ(reader.feed(bytes), State::kDone);
  EXPECT_EQ(reader.request().body, std::string("\x81\x00", 2));
}

TEST(RequestReader, ABodyCutShortIsServedAndAHeadCutShortIsDropped) {
  RequestReader short_body;
  short_body.feed("POST /x HTTP/1.1\r\nContent-Length: 100\r\n\r\nabc");
  EXPECT_EQ(short_body.end_of_input(), State::kDone);
  EXPECT_EQ(short_body.request().body, "abc");
  RequestReader short_head;
  short_head.feed("GET /health HTTP/1.1\r\n");
  EXPECT_EQ(short_head.end_of_input(), State::kDrop);
}

TEST(RequestReader, HeadsOverTheLimitAndHugeBodiesAreDropped) {
  RequestReader long_head;
  std::string line = "X-Pad: " + std::string(4000, 'a') + "\r\n";
  State state = long_head.feed("GET / HTTP/1.1\r\n");
  for (int i = 0; i < 20 && state == State::kNeedMore; ++i) state = long_head.feed(line);
  EXPECT_EQ(state, State::kDrop);

  RequestReader huge;
  EXPECT_EQ(huge.feed("POST / HTTP/1.1\r\nContent-Length: 33554433\r\n\r\n"), State::kDrop);
  RequestReader at_limit;
  EXPECT_EQ(at_limit.feed("POST / HTTP/1.1\r\nContent-Length: 33554432\r\n\r\n"), State::kNeedMore);
}

}  // namespace kx::server

#include "server/chat_hub.hpp"

#include <gtest/gtest.h>

#include <fstream>
#include <map>
#include <mutex>
#include <nlohmann/json.hpp>

#include "server/chat_log.hpp"
#include "server/test_client.hpp"

namespace kx::server {
namespace {

// Collects what the hub sends to each client.
struct Inboxes {
  std::mutex lock;
  std::map<int, std::vector<std::string>> messages;

  ChatSend sender(int slot) {
    return [this, slot](const std::string& m) {
      std::lock_guard guard(lock);
      messages[slot].push_back(m);
    };
  }
  std::string all(int slot) {
    std::lock_guard guard(lock);
    std::string joined;
    for (auto& m : messages[slot]) joined += m + "\n";
    return joined;
  }
  void clear() {
    std::lock_guard guard(lock);
    messages.clear();
  }
};

class ChatHubTest : public ::testing::Test {
 protected:
  ChatPaths paths() {
    return {dir.path() / "chatlogs", {dir.path() / "chat.pw"}, dir.path() / "bot.cfg"};
  }
  void write(const std::filesystem::path& file, const std::string& text) {
    std::ofstream(file) << text;
  }
  testing::TempDir dir;
  Inboxes inbox;
};

}  // namespace

TEST_F(ChatHubTest, ClientIdsCountFromOne) {
  ChatHub hub(paths());
  EXPECT_EQ(hub.connect(inbox.sender(0)), 1);
  EXPECT_EQ(hub.connect(inbox.sender(0)), 2);
}

TEST_F(ChatHubTest, JoinConfirmsWithHistoryAndMessagesReachTheChannelAndItsLog) {
  ChatHub hub(paths());
  int alice = hub.connect(inbox.sender(1));
  int bob = hub.connect(inbox.sender(2));
  hub.handle(alice, "join\ngeneral\nalice");
  hub.handle(alice, "msg\nhello\nsecond line");
  inbox.clear();
  hub.handle(bob, "join\n\nbob");
  std::string bob_sees = inbox.all(2);
  EXPECT_NE(bob_sees.find(R"({"type":"joined","channel":"general","name":"bob","history":[)"),
            std::string::npos);
  EXPECT_NE(bob_sees.find(R"("kind":"chat","from":"alice","text":"hello\nsecond line"})"),
            std::string::npos);
  EXPECT_NE(bob_sees.find(R"({"type":"roster","channel":"general","users":["alice","bob"])"),
            std::string::npos);
  EXPECT_NE(inbox.all(1).find(R"("kind":"sys","from":"server","text":"bob joined general")"),
            std::string::npos);

  auto log = read_chat_tail(dir.path() / "chatlogs" / "general.log", 100);
  ASSERT_GE(log.size(), 3u);
  EXPECT_EQ(record_seq(log.front()), 1u);
  EXPECT_EQ(record_seq(log.back()), log.size());
}

TEST_F(ChatHubTest, SequenceNumbersAndHistorySurviveARestart) {
  {
    ChatHub hub(paths());
    int a = hub.connect(inbox.sender(1));
    hub.handle(a, "join\nteam\nann");
    hub.handle(a, "msg\nbefore restart");
  }
  ChatHub hub(paths());
  int b = hub.connect(inbox.sender(2));
  hub.handle(b, "join\nteam\nben");
  hub.handle(b, "msg\nafter");
  std::string seen = inbox.all(2);
  EXPECT_NE(seen.find("before restart"), std::string::npos);
  auto log = read_chat_tail(dir.path() / "chatlogs" / "team.log", 100);
  EXPECT_EQ(record_seq(log.back()), log.size());
}

TEST_F(ChatHubTest, BrokenUtf8IsRepairedInNewMessagesAndInOldLogRecords) {
  std::filesystem::create_directories(dir.path() / "chatlogs");
  // A record an older build stored with the raw bytes.
  write(dir.path() / "chatlogs" / "team.log",
        "{\"seq\":7,\"ts\":1,\"kind\":\"chat\",\"from\":\"old\",\"text\":\"was \xff\xfe\"}\n");
  ChatHub hub(paths());
  int a = hub.connect(inbox.sender(1));
  hub.handle(a, "join\nteam\nann");
  hub.handle(a, "msg\nnow \xff\xfe ok");
  std::string seen = inbox.all(1);
  EXPECT_EQ(seen.find('\xff'), std::string::npos);
  EXPECT_NE(seen.find("\"text\":\"was \xEF\xBF\xBD\xEF\xBF\xBD\""), std::string::npos);
  EXPECT_NE(seen.find("\"seq\":8"), std::string::npos);  // the repaired record still counts
  EXPECT_NE(seen.find("now \xEF\xBF\xBD\xEF\xBF\xBD ok"), std::string::npos);
  auto log = read_chat_tail(dir.path() / "chatlogs" / "team.log", 100);
  for (const std::string& line : log) EXPECT_TRUE(nlohmann::json::accept(line)) << line;
}

TEST_F(ChatHubTest, DirectMessagesGoToTheAddresseeAndUnknownNamesGetANotice) {
  ChatHub hub(paths());
  int a = hub.connect(inbox.sender(1));
  int b = hub.connect(inbox.sender(2));
  int c = hub.connect(inbox.sender(3));
  hub.handle(a, "join\ngeneral\nann");
  hub.handle(b, "join\nother\nben");
  hub.handle(c, "join\ngeneral\ncid");
  inbox.clear();
  hub.handle(a, "dm\nben\npsst");
  EXPECT_NE(inbox.all(2).find(R"("kind":"dm","from":"ann","to":"ben","text":"psst")"),
            std::string::npos);
  EXPECT_EQ(inbox.all(3).find("psst"), std::string::npos);
  EXPECT_EQ(read_chat_tail(dir.path() / "chatlogs" / "_dm.log", 10).size(), 1u);
  hub.handle(a, "dm\nnobody\nhello?");
  EXPECT_NE(inbox.all(1).find(R"("kind":"sys","from":"server","text":"no such user: nobody")"),
            std::string::npos);
}

TEST_F(ChatHubTest, APasswordGuardsJoiningAndRegistering) {
  write(dir.path() / "chat.pw", "sesame\n");
  ChatHub hub(paths());
  int a = hub.connect(inbox.sender(1));
  hub.handle(a, "join\ngeneral\nann\nwrong");
  hub.handle(a, "register-bot\nrobo");
  hub.handle(a, "msg\nnot joined");
  std::string seen = inbox.all(1);
  EXPECT_NE(seen.find(R"({"type":"error","error":"password required to join this chat server"})"),
            std::string::npos);
  EXPECT_NE(
      seen.find(R"({"type":"error","error":"password required to register on this chat server"})"),
      std::string::npos);
  EXPECT_NE(seen.find("join a channel first"), std::string::npos);
  inbox.clear();
  hub.handle(a, "register-bot\nrobo\nsesame");
  EXPECT_NE(inbox.all(1).find(R"("text":"remote botnode 'robo' registered")"), std::string::npos);
}

TEST_F(ChatHubTest, NamelessClientsGetAFreeCallsignUntilNoneIsLeft) {
  write(dir.path() / "bot.cfg", "[callsigns]\n# comment\nalpha\nbravo=1\n");
  ChatHub hub(paths());
  int one = hub.connect(inbox.sender(1));
  int two = hub.connect(inbox.sender(2));
  int three = hub.connect(inbox.sender(3));
  hub.handle(one, "join\ngeneral");
  hub.handle(two, "join\ngeneral");
  hub.handle(three, "join\ngeneral");
  EXPECT_NE(inbox.all(1).find("your callsign is now alpha"), std::string::npos);
  EXPECT_NE(inbox.all(2).find("your callsign is now bravo"), std::string::npos);
  EXPECT_NE(inbox.all(3).find("no free callsign for a nameless client — bot.cfg "
                              "missing/empty/exhausted"),
            std::string::npos);
  int bot = hub.connect(inbox.sender(4));
  hub.handle(bot, "register-bot\n");
  EXPECT_NE(inbox.all(4).find("no free callsign for a nameless bot"), std::string::npos);
}

TEST_F(ChatHubTest, LeavingAndDisconnectingAreAnnouncedAndBotsStayInTheRosterAsOffline) {
  ChatHub hub(paths());
  int a = hub.connect(inbox.sender(1));
  int b = hub.connect(inbox.sender(2));
  hub.handle(a, "join\ngeneral\nann");
  hub.handle(b, "register-bot\nrobo");
  inbox.clear();
  hub.disconnect(b);
  EXPECT_NE(inbox.all(1).find("robo left general"), std::string::npos);
  EXPECT_NE(hub.roster_json("general").find(R"({"name":"robo","live":false,"channel":""})"),
            std::string::npos);
  hub.handle(a, "leave\ngeneral");
  EXPECT_NE(hub.roster_json("general").find(R"("users":[])"), std::string::npos);
  hub.handle(a, "bogus");
  EXPECT_NE(inbox.all(1).find(R"({"type":"error","error":"unknown verb: bogus"})"),
            std::string::npos);
  hub.handle(a, "join\n../etc\nann");
  EXPECT_NE(inbox.all(1).find("bad channel name"), std::string::npos);
}

}  // namespace kx::server

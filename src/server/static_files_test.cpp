// Files beside the executable: UI pages with their content types, the manual,
// the chat-log readers; nothing outside the asset folders is reachable.
#include <gtest/gtest.h>

#include <fstream>

#include "server/test_client.hpp"

namespace kx::server {
namespace {

using testing::body_of;
using testing::raw_exchange;

class AssetsTest : public ::testing::Test {
 protected:
  void SetUp() override {
    auto root = dir.path() / "root";
    put(root / "web" / "ui" / "shell.html", "<p>shell</p>");
    put(root / "web" / "ui" / "app.js", "let x;");
    put(root / "web" / "ui" / "style.css", "p{}");
    put(root / "web" / "ui" / "data.json", "{}");
    put(root / "web" / "ui" / "notes.txt", "n");
    put(root / "web" / "index.html", "<p>main</p>");
    put(root / "docs" / "manual" / "start.md", "intro\n# Getting started\nbody");
    put(root / "docs" / "manual" / "zz.md", "no title");
    put(dir.path() / "secret.txt", "secret");
    put(dir.path() / "chat" / "general.log",
        "{\"seq\":1,\"ts\":1,\"kind\":\"chat\",\"from\":\"a\",\"text\":\"one\"}\n"
        "{\"seq\":2,\"ts\":2,\"kind\":\"chat\",\"from\":\"b\",\"text\":\"two\"}\n");
    put(dir.path() / "chat" / "_dm.log",
        "{\"seq\":1,\"ts\":1,\"kind\":\"dm\",\"from\":\"a\",\"to\":\"b\",\"text\":\"x\"}\n"
        "{\"seq\":2,\"ts\":2,\"kind\":\"dm\",\"from\":\"c\",\"to\":\"b\",\"text\":\"y\"}\n"
        "{\"seq\":3,\"ts\":3,\"kind\":\"dm\",\"from\":\"b\",\"to\":\"a\",\"text\":\"z\"}\n"
        "{\"seq\":\"bad\",\"from\":\"b\",\"to\":\"a\"}\n");
    ServerOptions options;
    options.asset_roots = {dir.path() / "missing", root};
    options.chat.chatlogs = dir.path() / "chat";
    server = std::make_unique<testing::RunningServer>(std::move(options));
  }
  void put(const std::filesystem::path& file, const std::string& text) {
    std::filesystem::create_directories(file.parent_path());
    std::ofstream(file, std::ios::binary) << text;
  }
  std::string get(const std::string& target) {
    return raw_exchange(
        server->port(),
        testing::with_token("GET " + target + " HTTP/1.1\r\nHost: 127.0.0.1\r\n\r\n"));
  }

  testing::TempDir dir;
  std::unique_ptr<testing::RunningServer> server;
};

}  // namespace

TEST_F(AssetsTest, UiFilesCarryTheContentTypeOfTheirExtension) {
  EXPECT_EQ(body_of(get("/ui")), "<p>shell</p>");
  EXPECT_EQ(body_of(get("/ui/")), "<p>shell</p>");
  EXPECT_NE(get("/ui/shell.html").find("Content-Type: text/html; charset=utf-8\r\n"),
            std::string::npos);
  EXPECT_NE(get("/ui/app.js").find("Content-Type: application/javascript; charset=utf-8\r\n"),
            std::string::npos);
  EXPECT_NE(get("/ui/style.css").find("Content-Type: text/css; charset=utf-8\r\n"),
            std::string::npos);
  EXPECT_NE(get("/ui/data.json").find("Content-Type: application/json\r\n"), std::string::npos);
  EXPECT_NE(get("/ui/notes.txt").find("Content-Type: text/plain; charset=utf-8\r\n"),
            std::string::npos);
  EXPECT_EQ(body_of(get("/")), "<p>main</p>");
}

TEST_F(AssetsTest, NothingOutsideTheUiFolderCanBeReached) {
  for (const char* target : {"/ui/../../secret.txt", "/ui/..%2F..%2Fsecret.txt", "/ui/missing.html",
                             "/ui//etc/passwd", "/ui/a\\..\\b"}) {
    std::string reply = get(target);
    EXPECT_EQ(body_of(reply), "no such ui file") << target;
    EXPECT_NE(reply.find("404 Not Found"), std::string::npos);
  }
}

TEST_F(AssetsTest, ManualPagesAreListedWithTitlesAndServedAsMarkdown) {
  EXPECT_EQ(body_of(get("/manual/list")),
            R"({"ok":true,"pages":[{"name":"start","title":"Getting started"},)"
            R"({"name":"zz","title":"zz"}]})");
  std::string page = get("/manual/page?name=start");
  EXPECT_NE(page.find("Content-Type: text/markdown; charset=utf-8\r\n"), std::string::npos);
  EXPECT_EQ(body_of(page), "intro\n# Getting started\nbody");
  EXPECT_EQ(body_of(get("/manual/page?name=..%2F..%2Fsecret")),
            "no such manual page: ../../secret");
}

TEST_F(AssetsTest, ChatLogsChannelsAndDirectThreadsAreReadFromTheLogFiles) {
  EXPECT_EQ(body_of(get("/channels")), R"({"ok":true,"channels":["general"]})");
  std::string tail = body_of(get("/chatlog?tail=1"));
  EXPECT_EQ(tail, R"({"ok":true,"channel":"general","records":[)"
                  R"({"seq":2,"ts":2,"kind":"chat","from":"b","text":"two"}]})");
  EXPECT_NE(get("/chatlog?channel=..%2Fsecret").find("400 Bad Request"), std::string::npos);
  std::string thread = body_of(get("/dm/thread?a=a&b=b&since=1"));
  EXPECT_EQ(thread,
            R"({"ok":true,"msgs":[{"seq":3,"ts":3,"kind":"dm","from":"b","to":"a","text":"z"}]})");
}

}  // namespace kx::server

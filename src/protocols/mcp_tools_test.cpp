#include "protocols/mcp_tools.hpp"

#include <gtest/gtest.h>

#include "protocols/mcp_server.hpp"

namespace kx::protocols {
namespace {

TEST(ReplaceOnce, ExactMatchKeepsEverythingElse) {
  EditResult r = replace_once("a\nbb\nc\n", "bb", "B\nB");
  ASSERT_TRUE(r.ok);
  EXPECT_EQ(r.text, "a\nB\nB\nc\n");
  EXPECT_EQ(r.first_line, 2u);
  EXPECT_FALSE(r.normalised);
}

TEST(ReplaceOnce, LooseMatchIgnoresCrLfAndTrailingBlanksAndKeepsCrLf) {
  EditResult r = replace_once("x\r\nold  \r\nline\t\r\nz\r\n", "old\nline\n", "new\nline\n");
  ASSERT_TRUE(r.ok) << r.error;
  EXPECT_TRUE(r.normalised);
  EXPECT_EQ(r.text, "x\r\nnew\r\nline\r\nz\r\n");
}

TEST(ReplaceOnce, AmbiguousAndMissingTextAreRefusedNamingLines) {
  EditResult twice = replace_once("ab\nx\nab ab\n", "ab", "c");
  EXPECT_FALSE(twice.ok);
  EXPECT_NE(twice.error.find("occurs 3 times (lines 1, 3)"), std::string::npos) << twice.error;
  EXPECT_FALSE(replace_once("abc", "zzz", "y").ok);
  // Only blanks differ between two places: the loose match is ambiguous too.
  EXPECT_FALSE(replace_once("k \nk\t\n", "k\n", "j\n").ok);
}

TEST(SliceLines, OffsetLimitAndCapWithNote) {
  EXPECT_EQ(slice_lines("1\n2\n3\n4\n", 2, 2, kReadCap), "2\n3\n");
  EXPECT_EQ(slice_lines("1\n2\n3", 3, 0, kReadCap), "3");
  EXPECT_EQ(slice_lines("1\n2\n", 0, 0, kReadCap), "1\n2\n");
  EXPECT_TRUE(slice_lines("1\n2\n", 9, 0, kReadCap).starts_with("ERROR: offset 9"));
  std::string cut = slice_lines("aaaa\nbbbb\ncccc\n", 1, 0, 10);
  EXPECT_EQ(
      cut, "aaaa\nbbbb\n[cut at 96 KB after line 2 — call fs_read again with offset=3 to read on]");
}

TEST(Tools, PublishedNamesAreSafeAndAliasesResolve) {
  for (const Tool& tool : tools()) {
    EXPECT_LE(tool.name.size(), 64u);
    EXPECT_EQ(tool.name.find_first_not_of(
                  "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789_-"),
              std::string::npos)
        << tool.name;
  }
  EXPECT_EQ(find_tool("vc.open_version"), find_tool("vc_open_version"));
  EXPECT_EQ(find_tool("memory.deletememo")->name, "memory_deletememo");
  EXPECT_EQ(find_tool("fs:read"), nullptr);
}

TEST(Tools, CommandLinesQuoteContentAndNameTheMemoryBot) {
  std::vector<std::string> lines;
  ToolHost host;
  host.run = [&](std::string_view line) {
    lines.emplace_back(line);
    return std::string("OK: no");
  };
  find_tool("fs_write")->call(Json{{"path", "a b.txt"}, {"content", "x</content>y"}}, host);
  ASSERT_EQ(lines.size(), 2u);
  EXPECT_EQ(lines[1], "fsmk:file <path>a b.txt</path><content><![CDATA[x</content>y]]></content>");
  find_tool("memory_add")->call(Json{{"context", "c"}, {"topic", "t"}, {"content", "p, q"}}, host);
  EXPECT_EQ(lines.back(), "memory.add Kestrune, c, t, , p, q");
  find_tool("grep")->call(Json{{"pattern", "say \"hi\""}, {"flags", "-n"}}, host);
  EXPECT_EQ(lines.back(), "grep -n -- \"say \\\"hi\\\"\"");
}

TEST(McpServer, CompletionIsCappedWithTotal) {
  ToolHost host;
  host.run = [](std::string_view) {
    std::string out = "OK: 150 context(s) under /x for bot 'Kestrune'";
    for (int i = 0; i < 150; ++i) out += "\n  c" + std::to_string(i) + "  0 bytes on disk";
    return out;
  };
  McpServer server(host);
  Json reply = Json::parse(server.handle(
      R"({"jsonrpc":"2.0","id":1,"method":"completion/complete","params":{"ref":{"type":"ref/resource","uri":"kst:///ctx/{context}"},"argument":{"name":"context","value":"c"}}})"));
  const Json& c = reply["result"]["completion"];
  EXPECT_EQ(c["values"].size(), 100u);
  EXPECT_EQ(c["total"], 150);
  EXPECT_EQ(c["hasMore"], true);
  Json page = Json::parse(server.handle(R"({"jsonrpc":"2.0","id":2,"method":"resources/list"})"));
  EXPECT_EQ(page["result"]["nextCursor"], "100");
  Json rest = Json::parse(server.handle(
      R"({"jsonrpc":"2.0","id":3,"method":"resources/list","params":{"cursor":"100"}})"));
  EXPECT_EQ(rest["result"]["resources"].size(), 50u);
  EXPECT_FALSE(rest["result"].contains("nextCursor"));
}

TEST(McpServer, BatchesAnswerOnlyRequestsAndToolsListStaysSmall) {
  McpServer server{ToolHost{}};
  std::string reply = server.handle(
      R"([{"jsonrpc":"2.0","method":"notifications/initialized"},{"jsonrpc":"2.0","id":1,"method":"ping"}])");
  EXPECT_EQ(reply, R"([{"jsonrpc":"2.0","id":1,"result":{}}])");
  EXPECT_LT(mcp_instructions().size(), 2048u);
}

}  // namespace
}  // namespace kx::protocols

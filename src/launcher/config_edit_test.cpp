#include "launcher/config_edit.hpp"

#include <gtest/gtest.h>

namespace kx::launcher {
namespace {

const nlohmann::json kEntry = {{"command", "/k"}};

std::string with_kx(const std::string& text) {
  std::string error;
  auto out = jsonc_with_entry(text, "mcpServers", "kx", kEntry, error);
  return out ? *out : "refused: " + error;
}

TEST(JsoncEdit, InsertsIntoEveryLayoutAndLeavesTheRest) {
  EXPECT_EQ(with_kx(""),
            "{\n  \"mcpServers\": {\n    \"kx\": {\n      \"command\": \"/k\"\n    }\n  }\n}\n");
  EXPECT_EQ(with_kx("{}"), "{\n  \"mcpServers\": {\"kx\":{\"command\":\"/k\"}}\n}");
  EXPECT_EQ(with_kx(R"({"a": 1, "mcpServers": {"b": {}}})"),
            R"({"a": 1, "mcpServers": {"kx": {"command":"/k"}, "b": {}}})");
  EXPECT_EQ(
      with_kx("{\n  // c\n  \"mcpServers\": {\n    \"b\": 2,\n  },\n}"),
      "{\n  // c\n  \"mcpServers\": {\n    \"kx\": {\"command\":\"/k\"},\n    \"b\": 2,\n  },\n}");
  // An entry that differs is replaced in place; one that matches leaves the text as it was.
  EXPECT_EQ(with_kx(R"({"mcpServers": {"kx": {"command": "/old"}}})"),
            R"({"mcpServers": {"kx": {"command":"/k"}}})");
  std::string same = "{ \"mcpServers\" : { \"kx\" : { \"command\" : \"/k\" } } } ";
  EXPECT_EQ(with_kx(same), same);
}

TEST(JsoncEdit, RefusesWhatDoesNotParseOrIsNotAnObject) {
  EXPECT_TRUE(with_kx("{\"mcpServers\": {").starts_with("refused"));
  EXPECT_TRUE(with_kx("[1]").starts_with("refused"));
  EXPECT_TRUE(with_kx(R"({"mcpServers": []})").starts_with("refused"));
  EXPECT_EQ(with_kx(R"({"s": "// not a comment", "mcpServers": {}})"),
            "{\"s\": \"// not a comment\", \"mcpServers\": {\n  \"kx\": {\"command\":\"/k\"}\n}}");
}

TEST(TomlEdit, AppendsReplacesAndRefusesInlineOrBrokenFiles) {
  std::string error;
  const std::string body = "command = \"/k\"\n";
  auto appended = toml_with_table("a = 1 # x\n", "mcp_servers.kx", body, error);
  ASSERT_TRUE(appended) << error;
  EXPECT_EQ(*appended, "a = 1 # x\n\n[mcp_servers.kx]\ncommand = \"/k\"\n");
  EXPECT_EQ(*toml_with_table(*appended, "mcp_servers.kx", body, error), *appended);
  auto replaced = toml_with_table("[mcp_servers.kx]\ncommand = \"/old\"\n\n[x]\ny = 2\n",
                                  "mcp_servers.kx", body, error);
  EXPECT_EQ(*replaced, "[mcp_servers.kx]\ncommand = \"/k\"\n\n[x]\ny = 2\n");
  EXPECT_FALSE(toml_with_table("mcp_servers = { kx = { command = \"a\" } }\n", "mcp_servers.kx",
                               body, error));
  EXPECT_FALSE(toml_with_table("[a]\nx = 1\n[a]\ny = 2\n", "mcp_servers.kx", body, error));
  EXPECT_FALSE(toml_with_table("x = \"open\n", "mcp_servers.kx", body, error));
  EXPECT_TRUE(toml_well_formed(
      "t = 1979-05-27T07:32:00Z\narr = [\n  1, # one\n  2,\n]\ns = '''\nmulti\n'''\n", error))
      << error;
}

}  // namespace
}  // namespace kx::launcher

#include "launcher/options.hpp"

#include <gtest/gtest.h>

namespace kx::launcher {
namespace {

using Words = std::vector<std::string>;

TEST(ParseOptions, PortAndHomeAreTakenAnywhere) {
  EntryOptions o = parse_options({"fs:ls", "--port", "9444", ".", "--conf", "/h"});
  EXPECT_EQ(o.port, 9444);
  EXPECT_EQ(o.home_override, "/h");
  EXPECT_EQ(o.words, (Words{"fs:ls", "."}));
  EXPECT_EQ(parse_options({"--home", "/x", "a"}).home_override, "/x");
}

TEST(ParseOptions, NoColorIsAnOptionExceptInsideAGrepLine) {
  EntryOptions o = parse_options({"--no-color", "fs:cat", "a.txt"});
  EXPECT_TRUE(o.no_color);
  EXPECT_EQ(o.words, (Words{"fs:cat", "a.txt"}));
  EntryOptions g = parse_options({"grep", "--no-color", "x"});
  EXPECT_FALSE(g.no_color);
  EXPECT_EQ(g.words, (Words{"grep", "--no-color", "x"}));
}

TEST(ParseOptions, DashPBelongsToGrepOnlyAfterItsFirstWord) {
  EntryOptions before = parse_options({"-p", "9000", "grep", "foo"});
  EXPECT_EQ(before.port, 9000);
  EXPECT_EQ(before.words, (Words{"grep", "foo"}));

  EntryOptions after = parse_options({"grep", "foo", "-p", "9000"});
  EXPECT_EQ(after.port, kDefaultPort);
  EXPECT_EQ(after.words, (Words{"grep", "foo", "-p", "9000"}));

  EntryOptions other = parse_options({"fs:cat", "-p", "9000"});
  EXPECT_EQ(other.port, 9000);
  // --port is always the port, for grep too.
  EXPECT_EQ(parse_options({"grep", "foo", "--port", "7000"}).port, 7000);
}

TEST(ParseOptions, TrailingOptionWithoutValueStays) {
  EntryOptions o = parse_options({"fs:cat", "a", "--port"});
  EXPECT_EQ(o.port, kDefaultPort);
  EXPECT_EQ(o.words, (Words{"fs:cat", "a", "--port"}));
}

TEST(ParsePort, TakesTheDecimalPrefix) {
  EXPECT_EQ(parse_port("8080abc"), 8080);
  EXPECT_EQ(parse_port("abc"), 0);
  EXPECT_EQ(parse_port(""), 0);
}

TEST(BuildCommandLine, QuotesGrepArgumentsOnly) {
  EXPECT_EQ(build_command_line({"grep", "a b", "say \"hi\"", "plain"}),
            "grep \"a b\" \"say \\\"hi\\\"\" plain");
  EXPECT_EQ(build_command_line({"fs:write", "a b"}), "fs:write a b");
  EXPECT_EQ(build_command_line({}), "");
}

TEST(ServerVerbs, OnlyExactFormsAndStartVerbs) {
  for (const char* verb : {"gui", "up", "serve", "workstation", "mcp", "boot", "boot gui"})
    EXPECT_TRUE(is_server_verb(verb)) << verb;
  EXPECT_TRUE(is_server_verb("Kestrune vc:start now"));
  EXPECT_TRUE(is_server_verb("gui:start"));
  EXPECT_FALSE(is_server_verb("mcp extra"));
  EXPECT_FALSE(is_server_verb("boot now"));
  EXPECT_FALSE(is_server_verb("fs:cat gui"));
}

}  // namespace
}  // namespace kx::launcher

#include "vfs/policy.hpp"

#include <gtest/gtest.h>

namespace kst {
namespace {

std::string policy_error(std::string_view flags) {
  std::string error;
  EXPECT_FALSE(parse_policy(flags, error)) << flags;
  return error;
}

TEST(Policy, BadValuesAnswerTheirExactSentences) {
  EXPECT_EQ(policy_error("watch=maybe"), "watch must be on|off (got 'maybe')");
  EXPECT_EQ(policy_error("scope=some"), "scope must be all|edited (got 'some')");
  EXPECT_EQ(policy_error("ext=md"), "ext must be none|only:<.e,..>|allbut:<.e,..> (got 'md')");
  EXPECT_EQ(policy_error("max=big"), "max must be a size like 200mb / 1gb / 0 (got 'big')");
  EXPECT_EQ(policy_error("mode=fast"), "mode must be cachewt|vc (got 'fast')");
  EXPECT_EQ(policy_error("colour=red"),
            "unknown policy flag 'colour=red' (scope=|ext=|watch=|mode=)");
}

TEST(Policy, AliasesParseAndCanonicalTextRoundTrips) {
  std::string error;
  auto p = parse_policy(
      "scope=edited-only exts=except:.log,.tmp oob=false maxsize=200mb cache=cachewritethrough",
      error);
  ASSERT_TRUE(p) << error;
  EXPECT_EQ(p->scope, Scope::kEdited);
  EXPECT_EQ(p->ext, ExtRule::kAllBut);
  EXPECT_FALSE(p->watch);
  EXPECT_EQ(p->max_bytes, 200ull * 1024 * 1024);
  EXPECT_EQ(p->mode, StoreMode::kCacheWriteThrough);
  std::string text = policy_text(*p);
  EXPECT_EQ(text, "scope=edited ext=allbut:.log,.tmp watch=off max=200mb mode=cachewt");
  EXPECT_EQ(parse_policy(text, error), p);
  EXPECT_EQ(policy_text(*parse_policy("", error)), "scope=all ext=default watch=on mode=vc");
}

TEST(Policy, ExtRulesAdmitAndNameTheRule) {
  std::string error, rule;
  auto only = *parse_policy("ext=only:.md,.TXT", error);
  EXPECT_TRUE(ext_admits(only, "notes.md", rule));
  EXPECT_TRUE(ext_admits(only, "READ.txt", rule));
  EXPECT_FALSE(ext_admits(only, "main.cpp", rule));
  EXPECT_EQ(rule, "ext=only:.md,.txt");
  auto none = *parse_policy("ext=none", error);
  EXPECT_FALSE(ext_admits(none, "a.md", rule));
  EXPECT_EQ(rule, "ext=none");
  auto allbut = *parse_policy("ext=allbut:.log", error);
  EXPECT_FALSE(ext_admits(allbut, "x.log", rule));
  EXPECT_TRUE(ext_admits(allbut, "Makefile", rule));
}

TEST(Policy, SizesParseAndFormat) {
  EXPECT_EQ(parse_size("0"), 0u);
  EXPECT_EQ(parse_size("1gb"), 1024ull * 1024 * 1024);
  EXPECT_EQ(parse_size("512KB"), 512u * 1024);
  EXPECT_EQ(parse_size("1.5mb"), 1536u * 1024);
  EXPECT_EQ(parse_size("mb"), std::nullopt);
  EXPECT_EQ(parse_size("12parsecs"), std::nullopt);
  EXPECT_EQ(format_size(512), "512 B");
  EXPECT_EQ(format_size(1536), "1.5 KB");
  EXPECT_EQ(format_size(200ull * 1024 * 1024), "200.0 MB");
}

}  // namespace
}  // namespace kst

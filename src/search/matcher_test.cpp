#include "search/matcher.hpp"

#include <gtest/gtest.h>

#include "search/file_search.hpp"
#include "search/grep_cache.hpp"

namespace kx::search {
namespace {

TEST(RequiredLiteral, FindsTheLongestRunEveryMatchNeeds) {
  auto literal = [](std::string_view p) {
    auto l = required_literal(p);
    return l ? l->text + (l->whole_pattern ? " (whole)" : "") : "-";
  };
  EXPECT_EQ(literal("hello"), "hello (whole)");
  EXPECT_EQ(literal(R"(a\.b\(c)"), "a.b(c (whole)");
  EXPECT_EQ(literal("ab?cdef[0-9]+x"), "cdef");  // b is optional
  EXPECT_EQ(literal("fooo*barr"), "barr");
  EXPECT_EQ(literal("x{2}yz{0,3}ww"), "ww");
  EXPECT_EQ(literal("caf\xC3\xA9?s"), "caf");  // a quantifier takes the whole character
  EXPECT_EQ(literal("(a|b)cde|x"), "-");       // top-level alternation: none
  EXPECT_EQ(literal("[|]word(x|y)"), "word");
  EXPECT_EQ(literal(R"(\d+\w)"), "-");
  EXPECT_EQ(literal("a{x}b"), "a{x}b (whole)");  // not a quantifier
}

TEST(LiteralFinder, FindsExactAndAsciiCaselessOccurrences) {
  std::string hay = "xx Needle needle NEEDLE nEeDlE";
  LiteralFinder exact("needle", false);
  EXPECT_EQ(exact.find(hay, 0), 10u);
  EXPECT_EQ(exact.find(hay, 11), std::string::npos);
  LiteralFinder caseless("NEEDLE", true);
  std::vector<std::size_t> hits;
  for (std::size_t at = caseless.find(hay, 0); at != std::string::npos;
       at = caseless.find(hay, at + 1))
    hits.push_back(at);
  EXPECT_EQ(hits, (std::vector<std::size_t>{3, 10, 17, 24}));
  EXPECT_EQ(LiteralFinder("zz", true).find("z", 0), std::string::npos);
}

struct Search {
  std::string run(std::string_view text, GrepOptions options) {
    std::string error;
    GrepOptions unwrapped = options;
    unwrapped.words = unwrapped.whole_lines = false;
    auto matcher =
        Matcher::compile(combined_pattern(options), combined_pattern(unwrapped),
                         options.ignore_case, !options.words && !options.whole_lines, error);
    if (!matcher) return error;
    MatchScratch scratch;
    FileResult result;
    search_file(text, "f", FilePlan{options, *matcher, false, nullptr, nullptr}, scratch, result);
    selected = result.selected;
    return result.output;
  }
  std::size_t selected = 0;
};

GrepOptions with(std::vector<std::string> patterns) {
  GrepOptions o;
  o.patterns = std::move(patterns);
  return o;
}

TEST(SearchFile, MatchesStayInsideTheirLine) {
  Search s;
  // A class that includes the line feed must not join two lines.
  EXPECT_EQ(s.run("ab\ncd\n", with({"b[^x]c"})), "");
  EXPECT_EQ(s.run("ab\ncd\n", with({R"(b\s)"})), "");
  EXPECT_EQ(s.run("ab\ncd\n", with({"^c"})), "cd\n");
  EXPECT_EQ(s.run("ab\ncd", with({"d$"})), "cd\n");
  EXPECT_EQ(s.run("x\n\ny\n", with({"^$"})), "\n");
  EXPECT_EQ(s.run("a\nfoo(?=\nbar\n", with({"o(?=\\n)"})), "");
}

TEST(SearchFile, InvalidUtf8AndCaseAndBinary) {
  Search s;
  EXPECT_EQ(s.run("ok \xff\xfe caf\xC3\xA9\n", with({"caf."})), "ok \xff\xfe caf\xC3\xA9\n");
  GrepOptions i = with({"HELLO"});
  i.ignore_case = true;
  EXPECT_EQ(s.run("say hello\nHeLLo\nhelo\n", i), "say hello\nHeLLo\n");
  EXPECT_EQ(s.run(std::string("bin\0ary hello\n", 14), i), "Binary file f matches\n");
  EXPECT_EQ(Search().run("x", with({"("})).rfind("ERROR: bad pattern '(':", 0), 0u);
}

TEST(SearchFile, InvertMaxCountAndOnlyMatching) {
  Search s;
  GrepOptions v = with({"b"});
  v.invert = true;
  v.max_count = 2;
  EXPECT_EQ(s.run("a\nb\nc\nd\n", v), "a\nc\n");
  GrepOptions o = with({"[0-9]+"});
  o.only_matching = true;
  EXPECT_EQ(s.run("a1b22\nnone\n333\n", o), "1\n22\n333\n");
  EXPECT_EQ(s.selected, 2u);
  GrepOptions empty = with({"x*"});
  empty.only_matching = true;
  EXPECT_EQ(s.run("axx\xC3\xA9x\n", empty), "xx\nx\n");
}

TEST(GrepCache, StaleCopiesAreDroppedAndTheBoundEvictsTheOldest) {
  GrepCache cache(10);
  auto text = [](const char* t) { return std::make_shared<const std::string>(t); };
  cache.put("a", {4, 1}, text("aaaa"));
  cache.put("b", {4, 1}, text("bbbb"));
  EXPECT_TRUE(cache.find("a", {4, 1}));  // a is now the most recent
  cache.put("c", {4, 1}, text("cccc"));  // 12 bytes > 10: b goes
  EXPECT_FALSE(cache.find("b", {4, 1}));
  EXPECT_EQ(cache.bytes(), 8u);
  EXPECT_FALSE(cache.find("a", {4, 2}));  // modified since: dropped
  EXPECT_EQ(cache.files(), 1u);
  cache.put("huge", {11, 1}, text("01234567890"));
  EXPECT_EQ(cache.bytes(), 4u);
}

}  // namespace
}  // namespace kx::search

#include "lang/actions.hpp"

#include <gtest/gtest.h>

#include <map>
#include <sstream>

#include "lang/interpreter.hpp"
#include "lang/parse_driver.hpp"
#include "lang/system_family.hpp"
#include "lang/text.hpp"

namespace kx::lang {
namespace {

// A stand-in for the file families: files in a map, written and read through the
// same command lines the actions module sends.
class ActionsTest : public ::testing::Test {
 protected:
  ActionsTest() {
    register_system_family(registry);
    Family fs{"fs", ':', "files", {}, nullptr};
    fs.verbs.push_back(Verb{"cat", {}, "", "", "", "", "", [this](Session&, std::string_view a) {
                              auto found = files.find(std::string(a));
                              return found == files.end() ? "ERROR: no such file: " + std::string(a)
                                                          : found->second;
                            }});
    fs.verbs.push_back(Verb{"echo", {}, "", "", "", "", "", [this](Session&, std::string_view a) {
                              echoed.emplace_back(a);
                              return std::string(a.starts_with("fail") ? "ERROR: " : "OK: ") +
                                     std::string(a);
                            }});
    registry.add_family(std::move(fs));
    Family stat{"fsstat", ':', "stat", {}, nullptr};
    stat.verbs.push_back(
        Verb{"exists", {}, "", "", "", "", "", [this](Session&, std::string_view a) {
               return std::string(files.count(std::string(a)) ? "OK: yes file" : "OK: no");
             }});
    registry.add_family(std::move(stat));
    Family mk{"fsmk", ':', "mk", {}, nullptr};
    mk.verbs.push_back(Verb{"file", {}, "", "", "", "", "", [this](Session&, std::string_view a) {
                              if (!store_enrolled) return std::string("ERROR: no active store");
                              auto [path, rest] = split_first_word(a);
                              std::string_view open = "<content><![CDATA[";
                              std::string_view close = "]]></content>";
                              EXPECT_TRUE(rest.starts_with(open) && rest.ends_with(close));
                              std::string_view body = rest.substr(
                                  open.size(), rest.size() - open.size() - close.size());
                              // The body must not end its CDATA block early.
                              EXPECT_EQ(body.find("]]>"), std::string_view::npos);
                              files[std::string(path)] = std::string(body);
                              return "OK: created file " + std::string(path);
                            }});
    registry.add_family(std::move(mk));
    session = std::make_unique<Session>(registry);
  }

  std::string run(std::string_view line) { return run_line(*session, "cli", line); }
  std::string parse(std::string_view text) {
    std::ostringstream out, err;
    parse_string(*session, text, out, err);
    return out.str() + err.str();
  }

  Registry registry;
  std::map<std::string, std::string> files;
  std::vector<std::string> echoed;
  bool store_enrolled = true;
  std::unique_ptr<Session> session;
};

TEST_F(ActionsTest, TopLevelLinesAreTurnsAndNestedOnesAreNot) {
  run("fs:echo one");
  run("Kestrune: frobnicate");  // plain language is a turn too
  parse("for (i = 0; i < 3; i++) fs:echo loop\n");
  ASSERT_EQ(session->turns.turns().size(), 2u);
  EXPECT_EQ(session->turns.turns()[0].seq, 1u);
  EXPECT_EQ(session->turns.turns()[0].line, "fs:echo one");
  EXPECT_EQ(session->turns.turns()[0].result_lines, std::vector<std::string>{"OK: one"});
  EXPECT_EQ(session->turns.turns()[1].line, "Kestrune: frobnicate");

  std::string listing = run("fssys:turns");
  EXPECT_TRUE(
      listing.starts_with("OK: 2 turn(s) in the ring, seqs 1..2 (depth 128)\n#1  fs:echo one\n"
                          "    | OK: one\n#2  Kestrune: frobnicate\n"))
      << listing;
  EXPECT_EQ(session->turns.turns().back().line, "fssys:turns");  // listed after it ran
}

TEST_F(ActionsTest, LongResultsAreCutAndTurnsLeavingTheRingGoToTheTurnLog) {
  std::string big;
  for (int i = 0; i < 300; ++i) big += "line " + std::to_string(i) + "\n";
  files["big.txt"] = big;
  run("fs:cat big.txt");
  const Turn& turn = session->turns.turns().back();
  ASSERT_EQ(turn.result_lines.size(), TurnRing::kMaxResultLines);
  EXPECT_EQ(turn.result_lines.back(), "line 255");
  EXPECT_EQ(turn.lines_cut, 44u);

  EXPECT_EQ(run("fssys:turndepth"), "ERROR: usage  fssys:turndepth <n>   (ring size, e.g. 128)");
  EXPECT_EQ(run("fssys:turndepth x2"), "ERROR: usage  fssys:turndepth <n>   (ring size, e.g. 128)");
  EXPECT_TRUE(run("fssys:turndepth 0").starts_with("ERROR: the turn ring holds 1 to"));

  // Without a store the leaving turns wait, are reported, and are written later.
  store_enrolled = false;
  EXPECT_EQ(run("fssys:turndepth 2"), "OK: turn ring depth = 2");
  run("fs:echo a ]]> b");
  EXPECT_NE(run("fssys:turns").find("warning: "), std::string::npos);
  store_enrolled = true;
  session->turns.log().retry_at = 0;  // rather than 64 more turns
  run("fs:echo c");
  ASSERT_EQ(session->turns.turns().size(), 2u);
  EXPECT_TRUE(session->turns.unlogged().empty());
  std::string log_name, log_text;
  for (const auto& [name, text] : files)
    if (name.starts_with("turnlog-cli-")) log_name = name, log_text = text;
  ASSERT_TRUE(log_name.ends_with("-1.md")) << log_name;
  EXPECT_TRUE(
      log_text.starts_with("---\nname: " + log_name + "\nmetadata:\n  type: turnlog\n---\n"))
      << log_text;
  for (std::string_view seq :
       {"#1  fs:cat big.txt", "#2  fssys:turndepth\n", "#6  fs:echo a ]] > b"})
    EXPECT_NE(log_text.find(seq), std::string::npos) << seq;
  EXPECT_NE(log_text.find("    | … 44 more line(s) not kept in the ring"), std::string::npos);
}

TEST_F(ActionsTest, SeqRangesNameTurnsBySeqListOrCountFromTheNewest) {
  TurnRing ring;
  for (int i = 0; i < 6; ++i) ring.record("fs:echo " + std::to_string(i), "OK", std::nullopt);
  std::vector<const Turn*> all;
  for (const Turn& t : ring.turns()) all.push_back(&t);
  auto seqs = [&](std::string_view text) {
    std::vector<std::uint64_t> out;
    for (const Turn* t : SeqRange::parse(text)->select(all)) out.push_back(t->seq);
    return out;
  };
  EXPECT_EQ(seqs("3"), (std::vector<std::uint64_t>{3}));
  EXPECT_EQ(seqs("2..4"), (std::vector<std::uint64_t>{2, 3, 4}));
  EXPECT_EQ(seqs("5.."), (std::vector<std::uint64_t>{5, 6}));
  EXPECT_EQ(seqs("..2, 6"), (std::vector<std::uint64_t>{1, 2, 6}));
  EXPECT_EQ(seqs("-2"), (std::vector<std::uint64_t>{5, 6}));
  EXPECT_EQ(seqs("4,4,3..4"), (std::vector<std::uint64_t>{3, 4}));  // each turn once, in order
  EXPECT_TRUE(seqs("9..12").empty());
  for (std::string_view bad : {"", "x", "4..2", "1,,2", "-0", "-", "1..2..3"})
    EXPECT_FALSE(SeqRange::parse(bad)) << bad;
}

TEST_F(ActionsTest, PromoteRefusesBadNamesEmptyRangesAndExistingActions) {
  EXPECT_EQ(run("fssys:promote"), "ERROR: promote needs a name");
  EXPECT_EQ(run("fssys:promote a/b 1"), "ERROR: action name must be [A-Za-z0-9_-]+ : 'a/b'");
  EXPECT_TRUE(
      run("fssys:promote ok").starts_with("ERROR: usage  fssys:promote <name> <seq range>"));
  EXPECT_EQ(run("fssys:promote ok 40..50"),
            "ERROR: no turns in seq range\n(fssys:turns shows the ring; the log file holds older "
            "seqs)");
  // Turns about the ring itself are never promoted.
  EXPECT_TRUE(run("fssys:promote ok 1..4").starts_with("ERROR: no turns in seq range"));
  run("fs:echo x");
  files["action_taken.md"] = "---\nname: action_taken\n";
  EXPECT_EQ(run("fssys:promote taken -1"),
            "ERROR: action 'taken' already exists — promotion is editorial: pick a new name (the "
            "old action's history stays intact)");
  EXPECT_EQ(files["action_taken.md"], "---\nname: action_taken\n");
  store_enrolled = false;
  EXPECT_EQ(run("fssys:promote fresh -1"), "ERROR: no active store");
}

TEST_F(ActionsTest, PromotedLinesRunAgainUnchangedAndAFailingLineEndsTheAction) {
  std::string cdata = "fs:echo <content><![CDATA[a ]] > b\nsecond | line]]></content>";
  run(cdata);
  run("fs:echo plain");
  run("fssys:turns");
  run("fs:echo fail here");
  EXPECT_EQ(run("fssys:promote two 1..3"),
            "OK: action 'two' promoted from turns 1..3 (2 command(s)) — invoke:  action(two)  or "
            "with rebound registers:  action(two, turn(x).$[..])");
  EXPECT_EQ(files["action_two.md"],
            "---\nname: action_two\nmetadata:\n  type: action\n---\n"
            "fs:echo <content><![CDATA[a ]]  > b\nsecond | line]] ></content>\n"
            "fs:echo plain\n");
  echoed.clear();
  std::size_t turns_before = session->turns.turns().size();
  EXPECT_EQ(parse("action(two)\n"), "OK: " + cdata.substr(8) + "\nOK: plain\n");
  EXPECT_EQ(echoed, (std::vector<std::string>{cdata.substr(8), "plain"}));
  EXPECT_EQ(session->turns.turns().size(), turns_before);  // an action's lines are not turns

  EXPECT_TRUE(run("fssys:promote mixed 2..4").starts_with("OK: action 'mixed'"));
  echoed.clear();
  files["action_mixed.md"] += "fs:echo never\n";
  EXPECT_EQ(run("fssys:actionrun mixed"),
            "ERROR: action 'mixed' stopped at line 2 of 3 (fs:echo fail here) — the lines after "
            "it did not run\nOK: plain\nERROR: fail here");
  EXPECT_EQ(echoed, (std::vector<std::string>{"plain", "fail here"}));

  EXPECT_EQ(run("fssys:actionrun"), "ERROR: usage  fssys:actionrun <name>");
  EXPECT_EQ(run("fssys:actionrun ghost"), "ERROR: no action named 'ghost' (promote one first)");
  files["action_quiet.md"] = "---\nname: action_quiet\nmetadata:\n  type: action\n---\n";
  EXPECT_EQ(run("fssys:actionrun quiet"), "OK: action 'quiet' ran (no output)");
}

TEST_F(ActionsTest, AnActionThatCallsItselfStopsAtDepthEight) {
  files["action_loop.md"] =
      "---\nname: action_loop\nmetadata:\n  type: action\n---\nfs:echo in\nfssys:actionrun loop\n";
  std::string out = run("fssys:actionrun loop");
  EXPECT_EQ(echoed.size(), 8u);
  EXPECT_NE(out.find("ERROR: action nesting too deep (8) — refusing"), std::string::npos);
  EXPECT_TRUE(out.starts_with("ERROR: action 'loop' stopped at line 2 of 2")) << out;
  EXPECT_EQ(session->action_depth, 0);
  EXPECT_EQ(session->line_depth, 0);
}

TEST_F(ActionsTest, RegistersAreReboundFromATurnForTheActionOnly) {
  files["action_show.md"] =
      "---\nname: action_show\nmetadata:\n  type: action\n---\nfs:echo $[0] and $[1]\n";
  session->registers.publish({"kept"});
  // A turn that published values, and one that only printed lines.
  session->registers.publish({"a.txt:3", "b.txt:9", "c.txt:1"});
  session->turns.record("grep -p x", "OK: 3 hit(s)\n...", session->registers.values());
  session->turns.record("fs:cat list", "OK: listing\nfirst\nsecond", std::nullopt);
  session->registers.publish({"kept"});

  session->registers.publish({"x", "y", "z"});  // the selector is the turn's, not these
  EXPECT_EQ(run("fssys:actionrun show turn(1).$[1..2]"), "OK: b.txt:9 and c.txt:1");
  session->registers.publish({"kept"});
  EXPECT_EQ(parse("action(show, turn(2).$[..])\n"), "OK: first and second\n");
  EXPECT_EQ(session->registers.values(), std::vector<std::string>{"kept"});
  EXPECT_EQ(run("fssys:actionrun show"), "OK: kept and $[1]");

  EXPECT_EQ(run("fssys:actionrun show turn(9)"),
            "ERROR: no turn 9 in the ring (fssys:turns shows it)");
  EXPECT_EQ(run("fssys:actionrun show turn(1).$[7]"),
            "ERROR: turn(1).$[7] selects nothing — that turn has 3 value(s)");
  EXPECT_TRUE(run("fssys:actionrun show turn(x)").starts_with("ERROR: usage  fssys:actionrun"));
}

TEST(TurnRing, TurnsWaitingForALogAreCappedAndCounted) {
  TurnRing ring;
  ring.set_depth(1);
  for (std::size_t i = 0; i < TurnRing::kMaxUnlogged + 10; ++i) ring.record("l", "r", std::nullopt);
  EXPECT_EQ(ring.unlogged().size(), TurnRing::kMaxUnlogged);
  EXPECT_EQ(ring.dropped(), 9u);
  EXPECT_EQ(ring.unlogged().front().seq, 10u);
}

TEST(CdataEscape, RoundTripsEveryRunOfBracketsAndSpaces) {
  for (std::string_view text :
       {"]]>", "]] >", "]]  >", "]]]>", "a]>b", "]]", ">", "x ]]> ]] > y"}) {
    std::string escaped = escape_cdata_close(text);
    EXPECT_EQ(escaped.find("]]>"), std::string::npos) << text;
    EXPECT_EQ(unescape_cdata_close(escaped), text);
  }
  EXPECT_EQ(escape_cdata_close("a]]>b"), "a]] >b");
}

}  // namespace
}  // namespace kx::lang

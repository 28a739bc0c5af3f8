#include "lang/interpreter.hpp"

#include <gtest/gtest.h>

#include <filesystem>

#include "lang/test_families.hpp"

namespace kx::lang {
namespace {

using testing::Call;

class InterpreterTest : public ::testing::Test {
 protected:
  InterpreterTest() {
    testing::add_recording_family(registry, "fs", ':', {"cat", "rm", "copy", "move", "restore"},
                                  calls);
    testing::add_recording_family(registry, "fsvctl", ':',
                                  {"checkin", "log", "revert", "diff", "open", "timeline"}, calls);
    testing::add_recording_family(registry, "fsmk", ':', {"file", "dir"}, calls);
    testing::add_recording_family(registry, "memory", '.', {"help", "add"}, calls);
    registry.add_plain_verb(PlainVerb{{"EnrollVersionControl", "enroll"},
                                      "enroll",
                                      "enroll <dir>",
                                      "",
                                      "Files",
                                      [this](Session&, std::string_view args) {
                                        calls.push_back({"plain", "enroll", std::string(args)});
                                        return std::string("OK: enrolled");
                                      }});
    session = std::make_unique<Session>(registry);
  }
  std::string run(std::string_view line) { return run_line(*session, "cli", line); }

  Registry registry;
  std::vector<Call> calls;
  std::unique_ptr<Session> session;
};

TEST_F(InterpreterTest, DispatchAnswersMalformedHeadsWithExactMessages) {
  EXPECT_EQ(dispatch(*session, "   "), "ERROR: empty command");
  EXPECT_EQ(dispatch(*session, "ls -l"),
            "ERROR: no namespace (expected fs:/fsraw:/fsvctl: — or Kestrune:<what you want>)");
  EXPECT_EQ(run("fs:"), "ERROR: no verb after 'fs:'");
  EXPECT_EQ(run("foo:bar x"),
            "ERROR: unknown namespace 'foo' — use Kestrune:<what you want> (or legacy "
            "fs/fsraw/fsvctl/fsmk/fslock/fsstat/fssys · or config/claude/callsigns)");
  EXPECT_EQ(run("fs:frobnicate x"), "ERROR: unknown fs op 'frobnicate'");
  EXPECT_TRUE(calls.empty());
}

TEST_F(InterpreterTest, QueriesAndStatementsAreRefusedByDispatch) {
  EXPECT_TRUE(dispatch(*session, "?(topics()==x*)")
                  .starts_with("ERROR: ?() queries and script statements don't replay here"));
  EXPECT_TRUE(dispatch(*session, "fs:cat a #[x]").starts_with("ERROR: ?() queries"));
}

TEST_F(InterpreterTest, VerbsAndAliasesReachTheirFamilyWithArguments) {
  EXPECT_EQ(run("fs:cat   src/a.txt"), "OK: cat");
  EXPECT_EQ(run("fs:rm-alias\tb.txt"), "OK: rm");
  ASSERT_EQ(calls.size(), 2u);
  EXPECT_EQ(calls[0].args, "src/a.txt");
  EXPECT_EQ(calls[1].verb, "rm");
  EXPECT_EQ(calls[1].args, "b.txt");
  EXPECT_EQ(session->history.back().line, "fs:rm-alias\tb.txt");
  EXPECT_EQ(session->nesting_depth, 0);
}

TEST_F(InterpreterTest, StructuredCommandsTakeRegisterValues) {
  session->registers.publish({"src/a.c:3", "src/b.c:9"});
  EXPECT_EQ(run("fs:cat $[1]"), "OK: cat");
  EXPECT_EQ(run("fs:copy $[0..1] $[5]"), "OK: copy");
  ASSERT_EQ(calls.size(), 2u);
  EXPECT_EQ(calls[0].args, "src/b.c:9");
  EXPECT_EQ(calls[1].args, "src/a.c:3 src/b.c:9 $[5]");
}

TEST_F(InterpreterTest, MemoryReachesItsFamilyWithoutAColon) {
  EXPECT_EQ(run("memory"), "OK: help");
  EXPECT_EQ(run("memory.help"), "OK: help");
  EXPECT_EQ(run("memory.add cli, notes, t, , body"), "OK: add");
  EXPECT_EQ(calls.back().args, "cli, notes, t, , body");
  EXPECT_EQ(run("Kestrune memory.add x"), "OK: add");
  EXPECT_EQ(run("memory.nope"), "ERROR: unknown memory op 'nope'");
  // Bar-separated fields may hold spaces.
  EXPECT_EQ(run("memory.add|cli|notes|my topic|body text"), "OK: add");
  EXPECT_EQ(calls.back().args, "cli|notes|my topic|body text");
}

TEST_F(InterpreterTest, NaturalNamespacesAndDottedFamilies) {
  EXPECT_EQ(run("Kestrune: fsvctl.log a.txt"), "OK: log");
  EXPECT_EQ(run("fsvctl.log a.txt"), "OK: log");
  EXPECT_EQ(run("kst: enroll /tmp/proj scope=all"), "OK: enrolled");
  EXPECT_EQ(calls.back().args, "/tmp/proj scope=all");
  EXPECT_EQ(run("Kestrune EnrollVersionControl /x"), "OK: enrolled");
  EXPECT_EQ(run("Kestrune:   "), "ERROR: empty query (try: Kestrune:help)");
}

TEST_F(InterpreterTest, MetacharactersNeedARealProgramOrACdataBody) {
  std::string refusal = run("Kestrune: hello | x");
  EXPECT_TRUE(refusal.starts_with("ERROR: shell metacharacters aren't natural language"))
      << refusal;
#ifdef _WIN32
  std::string piped = run("Kestrune: cmd /c echo Hi| more");
#else
  std::string piped = run("Kestrune: echo hi | tr a-z A-Z | tr I i");
#endif
  std::erase(piped, '\r');
  EXPECT_EQ(piped, "OK: shell output:\nHi\n");
  // A body with a pipe rides CDATA and reaches the write intact.
  EXPECT_EQ(run("Kestrune: write notes.txt <![CDATA[a | b; c > d]]>"), "OK: checkin");
  EXPECT_EQ(calls.back().args, "<path>notes.txt</path><content><![CDATA[a | b; c > d]]></content>");
  // With a content marker instead, the pipe is refused, whatever the first word.
  EXPECT_TRUE(
      run("Kestrune: write notes.txt content: a | b").starts_with("ERROR: shell metacharacters"));
}

TEST_F(InterpreterTest, IntentsBuildTaggedCommands) {
  run("Kestrune read src/x.cpp");
  EXPECT_EQ(calls.back().verb, "cat");
  EXPECT_EQ(calls.back().args, "<path>src/x.cpp</path>");
  run("Kestrune revert src/x.cpp to 3");
  EXPECT_EQ(calls.back().args, "<path>src/x.cpp</path><version>3</version>");
  run("Kestrune history src/x.cpp");
  EXPECT_EQ(calls.back().verb, "log");
  run("Kestrune diff src/x.cpp 2 5");
  EXPECT_EQ(calls.back().args, "<path>src/x.cpp</path><a>2</a><b>5</b>");
  run("Kestrune force write a.txt content: new text");
  EXPECT_EQ(calls.back().args,
            "<path>a.txt</path><content><![CDATA[new text]]></content><dirty>true</dirty>");
  run("Kestrune create folder docs");
  EXPECT_EQ(calls.back().family + ":" + calls.back().verb, "fsmk:dir");
  run("Kestrune restore a.txt");
  EXPECT_EQ(calls.back().family + ":" + calls.back().verb, "fs:restore");
  EXPECT_EQ(run("Kestrune write content: hi"),
            "ERROR: write which file? e.g. 'write src/x.cpp content: ...'");
  EXPECT_EQ(run("Kestrune create"), "ERROR: create — what path? e.g. 'create file src/x.cpp'");
}

TEST_F(InterpreterTest, UnlockOnlyEverReleases) {
  testing::add_recording_family(registry, "fslock", ':', {"status", "toggle", "unlock"}, calls);
  run("Kestrune unlock a.txt");
  EXPECT_EQ(calls.back().family + ":" + calls.back().verb, "fslock:unlock");
  run("Kestrune lock a.txt");
  EXPECT_EQ(calls.back().verb, "toggle");
  run("Kestrune is a.txt locked");
  EXPECT_EQ(calls.back().verb, "status");
}

TEST_F(InterpreterTest, UnparsedRequestsGuessAFamilyWhenTheyCan) {
  std::string answer = run("Kestrune please remember that the build uses ninja");
  EXPECT_TRUE(
      answer.starts_with("ERROR: couldn't parse that, but it looks like you want to use the memory "
                         "store — here's how:\n"))
      << answer;
  EXPECT_TRUE(run("Kestrune blorp zap").starts_with("ERROR: couldn't parse that"));
}

TEST_F(InterpreterTest, GuidedModeReportsAndSwitchesAndAddsTips) {
  EXPECT_EQ(run("Kestrune guided"),
            "OK: guided mode is OFF — say 'Kestrune guided on' or 'Kestrune guided off'.");
  EXPECT_EQ(run("Kestrune guided on"),
            "OK: guided mode ON — next-step tips will follow each action.");
  EXPECT_EQ(run("Kestrune guided"),
            "OK: guided mode is ON — say 'Kestrune guided on' or 'Kestrune guided off'.");
  EXPECT_EQ(run("Kestrune read a.txt"), "OK: cat\n  next: next after cat");
  // Typed commands get the same tips, in either spelling; their own lines do not.
  EXPECT_EQ(run("fs:cat a.txt"), "OK: cat\n  next: next after cat");
  EXPECT_EQ(run("fs:cat-alias a.txt"), "OK: cat\n  next: next after cat");
  EXPECT_EQ(run("memory.add x"), "OK: add\n  next: next after add");
  EXPECT_EQ(run("fs:nope a.txt"), "ERROR: unknown fs op 'nope'");
  EXPECT_EQ(run("Kestrune guided quiet"), "OK: guided mode OFF — no more next-step tips.");
  EXPECT_EQ(run("Kestrune read a.txt"), "OK: cat");
  EXPECT_EQ(run("fs:cat a.txt"), "OK: cat");
}

TEST_F(InterpreterTest, DirectoryWordsMoveTheSessionDirectoryOnly) {
  auto process_dir = std::filesystem::current_path();
  auto tmp = std::filesystem::temp_directory_path();
  EXPECT_EQ(run("Kestrune cd -"), "ERROR: no previous directory");
  EXPECT_EQ(run("Kestrune popd"), "ERROR: pushd stack is empty");
  EXPECT_EQ(run("cd /no/such/dir/kx"), "ERROR: no such directory: /no/such/dir/kx");
  EXPECT_TRUE(run("pushd " + tmp.string()).starts_with("OK: "));
  EXPECT_EQ(run("pwd"), "OK: " + std::filesystem::canonical(tmp).string());
  EXPECT_TRUE(run("popd").starts_with("OK: "));
  EXPECT_EQ(session->cwd, std::filesystem::weakly_canonical(process_dir));
  EXPECT_EQ(std::filesystem::current_path(), process_dir);
}

TEST_F(InterpreterTest, ShellLinesReportExitCodesAndEmptyOutput) {
#ifdef _WIN32
  EXPECT_EQ(run("! rem"), "OK: shell output:\n(no output)");
  std::string failed = run("! echo out& exit 3");
#else
  EXPECT_EQ(run("! true"), "OK: shell output:\n(no output)");
  std::string failed = run("! echo out; exit 3");
#endif
  std::erase(failed, '\r');
  EXPECT_EQ(failed, "OK: shell output:\nout\n[exit 3]");
}

}  // namespace
}  // namespace kx::lang

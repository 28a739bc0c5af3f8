#include "memory/memory_family.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "lang/interpreter.hpp"

#include <fstream>

#include "lang/session.hpp"
#include "memory/context_dir.hpp"
#include "memory/data_file.hpp"
#include "memory/test_dir.hpp"
#include "platform/read_file.hpp"

namespace kx::memory {
namespace {

namespace fs = std::filesystem;
using ::testing::HasSubstr;
using ::testing::StartsWith;

// One "process": a registry with the memory family over a contexts root.
class Process {
 public:
  explicit Process(const fs::path& root, HttpPost post = nullptr) {
    if (!post)
      post = [](const std::string&, const std::string&) {
        platform::HttpResponse refused;
        refused.error = "connection refused";
        return refused;
      };
    register_memory_family(registry_, root, std::move(post));
    session_ = std::make_unique<lang::Session>(registry_);
  }

  // Runs a line through the interpreter's own router.
  std::string run(std::string_view line) { return lang::dispatch(*session_, line); }
  std::string query(std::string_view inner) {
    return registry_.find_word_command("?(")->run(*session_, inner);
  }

 private:
  lang::Registry registry_;
  std::unique_ptr<lang::Session> session_;
};

class MemoryVerbs : public ::testing::Test {
 protected:
  fs::path data_of(std::string_view bot, std::string_view context) const {
    return dir_.path() / context_dir_name(bot, context) / "data.mem";
  }
  TempDir dir_;
  Process kx_{dir_.path()};
};

TEST_F(MemoryVerbs, AddPersistsAndSameTopicReplaces) {
  EXPECT_EQ(kx_.run("memory.add cli, notes, build, , how to build: cmake --preset release"),
            "OK: memory 'build' added to context(s): notes");
  EXPECT_EQ(kx_.run("memory.add cli, notes, build, , ninja -C build, then ctest"),
            "OK: memory 'build' added to context(s): notes");
  EXPECT_EQ(kx_.run("memory.retrieve cli, notes, build"), "ninja -C build, then ctest");

  Process later(dir_.path());  // a separate process reads the same file
  EXPECT_EQ(later.run("memory.retrieve cli, notes, build"), "ninja -C build, then ctest");
  EXPECT_THAT(later.run("memory.memos cli, notes, build"), HasSubstr("1 memo(s)"));
}

TEST_F(MemoryVerbs, AddWritesIntoEveryNamedContext) {
  EXPECT_EQ(kx_.run("memory.add cli, notes|work, t, , shared text"),
            "OK: memory 't' added to context(s): notes, work");
  EXPECT_EQ(kx_.run("memory.retrieve cli, work, t"), "shared text");
  EXPECT_EQ(kx_.run("memory.retrieve cli, notes, t"), "shared text");
}

TEST_F(MemoryVerbs, AddMemoAccumulatesTypedMemos) {
  EXPECT_EQ(kx_.run("memory.addmemo cli, notes, steps, , procedure|usage, run cmake\nthen ninja"),
            "OK: memo procedure|usage appended to 'steps' in context(s): notes");
  EXPECT_EQ(kx_.run("memory.addmemo cli, notes, steps, , , plain memo"),
            "OK: memo untyped appended to 'steps' in context(s): notes");
  EXPECT_EQ(kx_.run("memory.memos cli, notes, steps"),
            "OK: 'steps' — 2 memo(s)\n  1. [procedure|usage] run cmake\n  2. [untyped] plain memo");
  EXPECT_EQ(kx_.run("memory.getmemo cli, notes, steps, 1"),
            "OK: memo 1 of 2 in 'steps' [procedure|usage]\nrun cmake\nthen ninja");
  EXPECT_EQ(kx_.run("memory.retrieve cli, notes, steps"), "run cmake\nthen ninja\nplain memo");

  std::string bytes;
  ASSERT_TRUE(platform::read_whole_file(data_of("cli", "notes"), bytes, 0));
  EXPECT_EQ(static_cast<unsigned char>(bytes[4]), 129);  // flags of the first record
}

TEST_F(MemoryVerbs, UnknownPropertyIsRefusedAndNothingChanges) {
  EXPECT_EQ(kx_.run("memory.addmemo cli, notes, t, , note|bogus, x"),
            "ERROR: unknown memo property 'bogus' — valid: procedure|history|preference|note|"
            "example|foundation|protocol|usage|decision|constraint|reference|state|lesson|"
            "warning|design|todo");
  EXPECT_FALSE(fs::exists(data_of("cli", "notes")));
}

TEST_F(MemoryVerbs, TooFewArgumentsGiveUsageAndChangeNothing) {
  EXPECT_EQ(kx_.run("memory.add cli, notes, topic"),
            "ERROR: usage  memory.add <botid>, {contexts}, <topic>, <keywords>, <content>");
  EXPECT_EQ(kx_.run("memory.addmemo cli, notes, topic, kw"),
            "ERROR: usage  memory.addmemo <botid>, {contexts}, <topic>, <keywords>, <props>, "
            "<content>\n       props (|-combine, or leave empty): procedure|history|preference|"
            "note|example|foundation|protocol|usage|decision|constraint|reference|state|lesson|"
            "warning|design|todo");
  EXPECT_EQ(kx_.run("memory.getmemo cli, notes, topic"),
            "ERROR: usage  memory.getmemo <botid>, <context>, <topic>, <n>");
  EXPECT_EQ(kx_.run("memory.deletememo cli"),
            "ERROR: usage  memory.deletememo <botid>, <context>, <topic>, <n>");
  EXPECT_EQ(kx_.run("memory.retrieve cli, notes"),
            "ERROR: usage  memory.retrieve <botid>, <context>, <arg>   (memory.help shows the "
            "manual)");
  EXPECT_EQ(kx_.run("memory.clone cli, notes, notes"),
            "ERROR: usage  memory.clone <botid>, <context>, <dst-context>  (dst must differ)");
  EXPECT_TRUE(fs::is_empty(dir_.path()));
}

TEST_F(MemoryVerbs, PositionsAreOneBased) {
  kx_.run("memory.addmemo cli, notes, t, , , one");
  const std::string error = "ERROR: 't' has 1 memo(s) in context 'notes' — n is 1-based";
  EXPECT_EQ(kx_.run("memory.getmemo cli, notes, t, 0"), error);
  EXPECT_EQ(kx_.run("memory.getmemo cli, notes, t, 2"), error);
  EXPECT_EQ(kx_.run("memory.deletememo cli, notes, t, x"), error);
  EXPECT_EQ(kx_.run("memory.getmemo cli, notes, nope, 1"),
            "ERROR: no memory 'nope' in context 'notes'");
}

TEST_F(MemoryVerbs, DeletingTheOnlyMemoRemovesTheTopic) {
  kx_.run("memory.addmemo cli, notes, t, , note, only one");
  const std::string before = [&] {
    std::string b;
    platform::read_whole_file(data_of("cli", "notes"), b, 0);
    return b;
  }();
  EXPECT_EQ(kx_.run("memory.deletememo cli, notes, t, 1"),
            "OK: memo 1 [note] deleted from 't' (0 memo(s) left; previous file kept at "
            "data.mem.last)");
  EXPECT_EQ(kx_.run("memory.retrieve cli, notes, t"), "");
  EXPECT_EQ(kx_.run("memory.memos cli, notes, t"), "ERROR: no memory 't' in context 'notes'");
  std::string last;
  ASSERT_TRUE(platform::read_whole_file(crash_net_path(data_of("cli", "notes")), last, 0));
  EXPECT_EQ(last, before);
}

TEST_F(MemoryVerbs, DeleteTopicInBothForms) {
  kx_.run("memory.add cli, notes, a, , alpha");
  kx_.run("memory.add cli, notes, b, , beta");
  EXPECT_EQ(kx_.run("memory.delete cli, notes, a"),
            "OK: deleted 'a' from context 'notes' (previous file kept at data.mem.last)");
  EXPECT_EQ(kx_.run("memory.delete|cli|notes|b"),
            "OK: deleted 'b' from context 'notes' (previous file kept at data.mem.last)");
  EXPECT_EQ(kx_.run("memory.delete cli, notes, a"), "ERROR: no memory 'a' in context 'notes'");
  Process later(dir_.path());
  EXPECT_EQ(later.run("memory.contexts cli, notes"),
            "OK: context 'notes' (empty — memory.add puts the first record here)");
}

TEST_F(MemoryVerbs, KeywordLookupFoldsAndBringsRelatedTerms) {
  kx_.run("memory.add cli, notes, tok, , the tokenizer splits text");
  kx_.run("memory.add cli, notes, more, , tokens and the tokenizer");
  const std::string hit = kx_.run("memory.keywords cli, notes, TOKENIZER");
  EXPECT_THAT(hit, StartsWith("OK: keyword 'tokenizer' — 2 memo hit(s):\n  tok #1"));
  EXPECT_THAT(hit, HasSubstr("related in context: tokens (1 topic(s))"));
  // A miss still lands within one hop of the vocabulary that is there.
  EXPECT_THAT(kx_.run("memory.keywords|cli|notes|tokenize"),
              StartsWith("OK: keyword 'tokenize' — 0 memo hit(s):\nrelated in context: "));
  EXPECT_EQ(kx_.run("memory.keywords cli, notes, zebra"),
            "ERROR: keyword 'zebra' not in context 'notes'");
}

TEST_F(MemoryVerbs, StripToTokensShowsWhatTheIndexSees) {
  EXPECT_EQ(kx_.run("memory.striptotokens Hello, WORLD! hello Report.PDF a"),
            "OK: 3 token(s): hello world report.pdf");
  EXPECT_EQ(kx_.run("memory.striptotokens a b"), "OK: 0 token(s)");
}

TEST_F(MemoryVerbs, ListingContextsLoadsNothing) {
  kx_.run("memory.add cli, alpha, t, , text one");
  kx_.run("memory.add cli, beta, t, , text two");
  kx_.run("memory.add other, gamma, t, , not cli's");
  Process later(dir_.path());
  const std::string listing = later.run("memory.contexts cli");
  EXPECT_THAT(listing, StartsWith("OK: 2 context(s) under "));
  EXPECT_THAT(listing, HasSubstr("\n  alpha  "));
  EXPECT_THAT(listing, HasSubstr(" bytes on disk (not loaded)"));
  EXPECT_THAT(listing, ::testing::Not(HasSubstr("gamma")));
  EXPECT_THAT(listing, ::testing::Not(HasSubstr("(loaded)")));
  // Browsing loads exactly that one context.
  EXPECT_THAT(later.run("memory.browse|cli|alpha"),
              StartsWith("OK: context 'alpha' — 1 topic(s), 1 memo(s)"));
  const std::string after = later.run("memory.list cli");
  EXPECT_THAT(after, HasSubstr("alpha  1 topic(s), "));
  EXPECT_THAT(after, HasSubstr(" bytes (loaded)"));
  EXPECT_THAT(after, HasSubstr("beta  "));
}

TEST_F(MemoryVerbs, BrowseShowsALimitedNumberOfTopics) {
  for (int i = 0; i < 60; ++i) kx_.run("memory.add cli, big, topic" + std::to_string(i) + ", , x");
  const std::string browse = kx_.run("memory.browse cli, big");
  EXPECT_THAT(browse, HasSubstr("\n  topic59  (1 memo(s))"));  // most recent first
  EXPECT_THAT(browse, HasSubstr("\n  ... (10 more)"));
}

TEST_F(MemoryVerbs, IndexDirIsIdempotentAndUsesFileNameTokens) {
  TempDir source;
  std::ofstream(source.path() / "Build-Notes.md") << "x";
  fs::create_directories(source.path() / "sub");
  std::ofstream(source.path() / "sub" / "report.pdf") << "y";
  fs::create_directories(source.path() / ".git");
  std::ofstream(source.path() / ".git" / "HEAD") << "z";

  const std::string arg = source.path().string();
  const std::string result = kx_.run("memory.indexdir cli, " + arg);
  EXPECT_THAT(result, StartsWith("OK: indexed 2 file(s) from " + arg + " into context '"));
  EXPECT_EQ(kx_.run("memory.indexdir cli, " + arg), result);

  const std::string context = fs::weakly_canonical(source.path()).generic_string();
  EXPECT_THAT(kx_.run("memory.keywords cli, " + context + ", build"),
              HasSubstr("Build-Notes.md #1"));
  EXPECT_THAT(kx_.run("memory.keywords cli, " + context + ", report.pdf"),
              HasSubstr("sub/report.pdf #1"));
  EXPECT_THAT(kx_.run("memory.memos cli, " + context + ", Build-Notes.md"), HasSubstr("1 memo(s)"));
  // The unchanged re-run rewrote nothing: no rewrite, so no crash net either.
  const fs::path data = dir_.path() / context_dir_name("cli", context) / "data.mem";
  EXPECT_FALSE(fs::exists(crash_net_path(data)));
  EXPECT_EQ(kx_.run("memory.indexdir cli, " + arg + "/missing"),
            "ERROR: no such directory: " + arg + "/missing");
}

TEST_F(MemoryVerbs, QueryCombinesTopicAndKeywordGlobs) {
  kx_.run("memory.add cli, files, src/main.cpp, , entry point tokenizer");
  kx_.run("memory.add cli, files, src/util.hpp, , helpers");
  kx_.run("memory.add cli, files, docs/old.md, deleted, tokens explained");
  EXPECT_EQ(
      kx_.run("memory.query cli, files, ?(topics()==src/* | topics()==*.md) && keywords()==token*"),
      "OK: 2 match(es)\ndocs/old.md (deleted)\nsrc/main.cpp\n");
  EXPECT_EQ(kx_.run("memory.query cli, files, keywords()==nothing*"), "OK: no match");
  EXPECT_EQ(kx_.run("memory.query cli, files, ?()"), "ERROR: empty query");
  EXPECT_THAT(kx_.run("memory.query cli, files, topics()=x"), StartsWith("ERROR: "));
}

TEST_F(MemoryVerbs, GrammarQuerySearchesEveryContextOfTheBot) {
  kx_.run("memory.add cli, files, src/main.cpp, , tokenizer entry");
  kx_.run("memory.add cli, other, docs/a.md, deleted, tokens");
  kx_.run("memory.add bob, theirs, src/x.cpp, , tokens");
  // The grammar hands over the text inside "?(" without the final ")", if any.
  EXPECT_EQ(kx_.query("topics()==src/* | topics()==*.md) && keywords()==token*"),
            "OK: 2 match(es)\nfiles: src/main.cpp\nother: docs/a.md (deleted)\n");
  EXPECT_EQ(kx_.query("topics()==src/*) && (keywords()==entry"),
            "OK: 1 match(es)\nfiles: src/main.cpp\n");
  EXPECT_EQ(kx_.query("keywords()==zzz"), "OK: no match");
  EXPECT_EQ(kx_.query("  "), "ERROR: empty query");
  EXPECT_THAT(kx_.query("topics()=x"), StartsWith("ERROR: query not understood"));
}

TEST_F(MemoryVerbs, FiveWWebsAnswerInboundAndPerTopic) {
  kx_.run(
      "memory.addmemo cli, talk, alice: standup 2023-05-02, , , met @bob because the "
      "release slipped, see docs/plan.md");
  kx_.run("memory.addmemo cli, talk, carol: retro 2023-06-01, , , release went out");
  EXPECT_EQ(kx_.run("memory.w5 cli, talk, alice: standup 2023-05-02"),
            "OK: wwwww of 'alice: standup 2023-05-02'\n  who:   alice, bob\n  what:  alice, "
            "standup\n  when:  2023-05-02\n  where: docs/plan.md\n  why:   the release slipped");
  EXPECT_THAT(kx_.run("memory.when cli, talk, 2023-05"),
              StartsWith("OK: 1 topic(s) on the WHEN web"));
  EXPECT_THAT(kx_.run("memory.who cli, talk, Bo"), HasSubstr("alice: standup 2023-05-02"));
  EXPECT_EQ(kx_.run("memory.why cli, talk, nothing"),
            "ERROR: no topic carries 'nothing' on the WHY web of context 'talk'");
  EXPECT_EQ(kx_.run("memory.temporal cli, talk, release"),
            "OK: temporal chain for 'release' — 2 topic(s), oldest first\n  2023-05-02  alice: "
            "standup 2023-05-02\n  2023-06-01  carol: retro 2023-06-01");
  EXPECT_THAT(kx_.run("memory.chain cli, talk, unknownterm"),
              StartsWith("ERROR: no temporal chain for '"));
}

TEST_F(MemoryVerbs, ThematicNeighboursShareTheMostKeywords) {
  kx_.run("memory.add cli, n, a, , cmake ninja presets toolchain");
  kx_.run("memory.add cli, n, b, , cmake ninja presets");
  kx_.run("memory.add cli, n, c, , cmake coffee");
  kx_.run("memory.add cli, n, d, , unrelated words");
  EXPECT_EQ(kx_.run("memory.thematic cli, n, a"),
            "OK: thematic neighbours of 'a' — 2 topic(s) sharing keywords\n  3  b\n  1  c");
  EXPECT_EQ(kx_.run("memory.thematic cli, n, d"),
            "ERROR: no thematic neighbours for 'd' in context 'n'");
}

TEST_F(MemoryVerbs, WebsRebuildToTheSameTerms) {
  kx_.run("memory.add cli, n, bob: sync 2024-01-05, , see docs/x.md");
  const std::string before = kx_.run("memory.w5 cli, n, bob: sync 2024-01-05");
  EXPECT_EQ(kx_.run("memory.w5build cli, n"), "OK: 5W webs rebuilt for context 'n' from 1 memo(s)");
  EXPECT_EQ(kx_.run("memory.w5 cli, n, bob: sync 2024-01-05"), before);
  EXPECT_THAT(before, HasSubstr("when:  2024-01-05"));
}

TEST_F(MemoryVerbs, CloneCopiesByteForByteIntoAFreshContext) {
  kx_.run("memory.addmemo cli, src, t, , note, one");
  kx_.run("memory.add cli, src, u, , two");
  EXPECT_EQ(kx_.run("memory.clone cli, src, dst"),
            "OK: cloned 'src' into 'dst' (2 memo(s), 2 topic(s))");
  std::string a, b;
  ASSERT_TRUE(platform::read_whole_file(data_of("cli", "src"), a, 0));
  ASSERT_TRUE(platform::read_whole_file(data_of("cli", "dst"), b, 0));
  EXPECT_EQ(a, b);
  EXPECT_EQ(
      kx_.run("memory.clone cli, src, dst"),
      "ERROR: context 'dst' already holds 2 memo(s) (2 topics) — clone wants a fresh context");
}

TEST_F(MemoryVerbs, UnknownVerbIsNamed) {
  EXPECT_EQ(kx_.run("memory.frobnicate x"), "ERROR: unknown memory verb 'frobnicate'");
  EXPECT_EQ(kx_.run("memory.frob|a|b"), "ERROR: unknown memory verb 'frob|a|b'");
}

TEST_F(MemoryVerbs, HelpIsGeneratedFromTheRegistration) {
  const std::string help = kx_.run("memory");
  EXPECT_EQ(help, kx_.run("memory.help"));
  EXPECT_THAT(help, StartsWith("OK: memory"));
  EXPECT_THAT(help, HasSubstr("Generated from the live registry — it can't go stale."));
  EXPECT_THAT(help, HasSubstr("\nmemory.memos   (alias: enumerate)\n  Enumerate a topic's memos"));
  EXPECT_THAT(help, HasSubstr("usage: keywords|<keyword>"));
  EXPECT_THAT(help, HasSubstr("\nmemory.clone\n"));
  EXPECT_THAT(help, ::testing::Not(HasSubstr("temporal|")));  // not advertised as a property
  EXPECT_LT(help.find("\nmemory.add\n"), help.find("\nmemory.addmemo\n"));
}

TEST_F(MemoryVerbs, FailedWriteIsReportedAndNothingIsHalfDone) {
  kx_.run("memory.add cli, notes, a, , first");
  fs::remove(data_of("cli", "notes"));
  fs::create_directory(data_of("cli", "notes"));  // the file cannot be appended to now
  EXPECT_THAT(kx_.run("memory.add cli, notes, b, , second"),
              StartsWith("ERROR: memory 'b' was not saved in context(s): notes"));
  fs::remove(data_of("cli", "notes"));
  EXPECT_EQ(kx_.run("memory.retrieve cli, notes, b"), "");
  EXPECT_THAT(kx_.run("memory.add cli, notes, b, , second"), StartsWith("OK: "));
  EXPECT_EQ(kx_.run("memory.retrieve cli, notes, b"), "second");
}

// A process adding to a context it holds open writes behind whatever other processes
// did since: their appends, their rewrites, and damage they left, which the add that
// finds it reports.
TEST_F(MemoryVerbs, AddsFollowWhatOtherProcessesDidMeanwhile) {
  Process other(dir_.path());
  EXPECT_THAT(kx_.run("memory.add cli, notes, a, , first"), StartsWith("OK: "));
  EXPECT_THAT(other.run("memory.add cli, notes, b, , second"), StartsWith("OK: "));
  EXPECT_THAT(kx_.run("memory.add cli, notes, c, , third"), StartsWith("OK: "));
  EXPECT_THAT(other.run("memory.delete cli, notes, a"), StartsWith("OK: "));  // a rewrite
  EXPECT_THAT(kx_.run("memory.add cli, notes, d, , fourth"), StartsWith("OK: "));
  EXPECT_THAT(other.run("memory.add cli, notes, e, , fifth"), StartsWith("OK: "));
  EXPECT_THAT(kx_.run("memory.add cli, notes, b, , second again"), StartsWith("OK: "));
  {
    std::ofstream torn(data_of("cli", "notes"), std::ios::binary | std::ios::app);
    torn << std::string("\x07\x00\x00", 3);  // a writer killed mid-record
  }
  const std::string found = kx_.run("memory.addmemo cli, notes, f, , , sixth");
  EXPECT_THAT(found, StartsWith("OK: "));
  EXPECT_THAT(found, HasSubstr("\nwarning: data.mem of context 'notes' did not load whole"));

  Process fresh(dir_.path());
  EXPECT_EQ(fresh.run("memory.retrieve cli, notes, a"), "");
  EXPECT_EQ(fresh.run("memory.retrieve cli, notes, b"), "second again");
  EXPECT_EQ(fresh.run("memory.retrieve cli, notes, c"), "third");
  EXPECT_EQ(fresh.run("memory.retrieve cli, notes, d"), "fourth");
  EXPECT_EQ(fresh.run("memory.retrieve cli, notes, e"), "fifth");
  EXPECT_EQ(fresh.run("memory.retrieve cli, notes, f"), "sixth");
  EXPECT_EQ(kx_.run("memory.retrieve cli, notes, e"), "fifth");
}

TEST_F(MemoryVerbs, SyncModeIsKeptInTheSettings) {
  EXPECT_THAT(kx_.run("memory.sync cli, notes"), HasSubstr("within a few ms"));
  EXPECT_THAT(kx_.run("memory.sync cli, notes, each"), HasSubstr("on the disk before it answers"));
  std::string cfg;
  ASSERT_TRUE(
      platform::read_whole_file(data_of("cli", "notes").parent_path() / "store.cfg", cfg, 0));
  EXPECT_THAT(cfg, HasSubstr("sync=each"));
  EXPECT_THAT(kx_.run("memory.add cli, notes, t, , durable"), StartsWith("OK: "));
  EXPECT_EQ(kx_.run("memory.retrieve cli, notes, t"), "durable");
}

// Settings are read again only when the file's size or time moved; a file written
// moments before it was read is read again anyway.
TEST_F(MemoryVerbs, SettingsChangedByAnotherProcessAreSeenByTheNextCommand) {
  Process other(dir_.path());
  const fs::path cfg = data_of("cli", "notes").parent_path() / "store.cfg";
  const auto long_ago = fs::file_time_type::clock::now() - std::chrono::hours(2);
  const auto settle = [&](fs::file_time_type at) { fs::last_write_time(cfg, at); };
  const std::string each = "OK: each add of 'notes' is on the disk before it answers";
  const std::string group =
      "OK: adds of 'notes' reach the page cache at once and the disk within a few ms";
  EXPECT_EQ(other.run("memory.sync cli, notes, each"), each);
  settle(long_ago);
  EXPECT_EQ(kx_.run("memory.sync cli, notes"), each);
  EXPECT_THAT(kx_.run("memory.add cli, notes, a, , first"), StartsWith("OK: "));
  EXPECT_EQ(other.run("memory.sync cli, notes, group"), group);  // another size
  settle(long_ago);
  EXPECT_EQ(kx_.run("memory.sync cli, notes"), group);
  EXPECT_THAT(kx_.run("memory.add cli, notes, b, , second"), StartsWith("OK: "));
  // The same size, another time.
  std::string text;
  ASSERT_TRUE(platform::read_whole_file(cfg, text, 0));
  const auto at = text.find("sync=group");
  ASSERT_NE(at, std::string::npos);
  std::ofstream(cfg, std::ios::binary) << text.replace(at, 10, "sync=each ");
  settle(long_ago + std::chrono::hours(1));
  EXPECT_EQ(kx_.run("memory.sync cli, notes"), each);
  // Written moments before it was read: a change within the same tick (the same size,
  // the same time) is still seen.
  ASSERT_TRUE(platform::read_whole_file(cfg, text, 0));
  std::ofstream(cfg, std::ios::binary) << text.replace(text.find("sync=each "), 10, "sync=group");
  EXPECT_EQ(kx_.run("memory.sync cli, notes"), group);
  const auto stamp = fs::last_write_time(cfg);
  std::ofstream(cfg, std::ios::binary) << text.replace(text.find("sync=group"), 10, "sync=each ");
  fs::last_write_time(cfg, stamp);
  EXPECT_EQ(kx_.run("memory.sync cli, notes"), each);
}

TEST_F(MemoryVerbs, KeywordsFoldCaseForStoredAndAskedKeywords) {
  kx_.run("memory.add cli, ctxA, t, MyKW, some content");
  EXPECT_THAT(kx_.run("memory.keywords cli, ctxA, MyKW"),
              StartsWith("OK: keyword 'mykw' — 1 memo hit(s):"));
  EXPECT_THAT(kx_.run("memory.keywords cli, ctxA, mykw"),
              StartsWith("OK: keyword 'mykw' — 1 memo hit(s):"));
}

// --- the embedding lane, against a scripted transport -------------------------------

struct FakeEmbedder {
  std::vector<std::string> requests;
  HttpPost post() {
    return [this](const std::string& url, const std::string& body) {
      requests.push_back(url + " " + body);
      platform::HttpResponse r;
      r.ok = true;
      r.status = 200;
      r.body = body.find("build") != std::string::npos ? R"({"embedding":[1.0,0.0]})"
                                                       : R"({"embedding":[0.0,1.0]})";
      return r;
    };
  }
};

TEST_F(MemoryVerbs, ArmedContextsStoreVectorsAndRankBySimilarity) {
  FakeEmbedder embedder;
  Process kx(dir_.path(), embedder.post());
  EXPECT_EQ(kx.run("memory.embed cli, notes"), "OK: embedding lane of 'notes' is disarmed");
  EXPECT_EQ(kx.run("memory.embed cli, notes, on"),
            "OK: embedding lane ARMED for 'notes' — new memos embedded at ingest (needs ollama "
            "nomic-embed-text)");
  kx.run("memory.add cli, notes, b, , how to build");
  kx.run("memory.add cli, notes, c, , coffee");
  ASSERT_EQ(embedder.requests.size(), 2u);
  EXPECT_EQ(
      embedder.requests[0],
      R"(http://127.0.0.1:11434/api/embeddings {"model":"nomic-embed-text","prompt":"how to build"})");
  const std::string ranked = kx.run("memory.semantic cli, notes, build steps");
  EXPECT_THAT(ranked, StartsWith("OK: 1 semantic match(es) for 'build steps'\n  1.000  b #1"));

  // The switch is the context's setting: another process sees it.
  Process later(dir_.path());
  EXPECT_THAT(later.run("memory.embed cli, notes"), HasSubstr("is ARMED"));
  EXPECT_EQ(later.run("memory.semantic cli, notes, build"),
            "ERROR: embedder unreachable (ollama nomic-embed-text) — cannot embed the query");
  EXPECT_THAT(
      later.run("memory.add cli, notes, d, , text"),
      StartsWith("OK: memory 'd' added to context(s): notes\nwarning: embedder unreachable"));
}

}  // namespace
}  // namespace kx::memory

#include "vfs/file_families.hpp"

#include <algorithm>
#include <iostream>
#include <system_error>

#include "lang/session.hpp"
#include "lang/text.hpp"
#include "platform/home.hpp"
#include "platform/process_info.hpp"
#include "vfs/commands.hpp"
#include "vfs/enroll.hpp"
#include "vfs/outside_change.hpp"
#include "vfs/start_record.hpp"
#include "vfs/store_watchers.hpp"

namespace kx::vfs {

namespace fs = std::filesystem;
using kst::CommandContext;

namespace {

using Handler = std::string (*)(CommandContext&, std::string_view);

fs::path session_cwd(const lang::Session& session) {
  if (!session.cwd.empty()) return session.cwd;
  return platform::current_directory().value_or(fs::path("."));
}

// Whether a verb's result is a file's bytes, shown exactly as stored; every other
// result is made safe to print, since names on disk may hold terminal controls.
enum class Shows { kMessages, kContent };

lang::VerbHandler handler_of(const std::shared_ptr<kst::StoreSet>& stores, Handler handler,
                             Shows shows = Shows::kMessages) {
  return [stores, handler, shows](lang::Session& session, std::string_view args) -> std::string {
    try {
      CommandContext ctx{*stores, session.bot_id, session_cwd(session), stores->report()};
      // Versions written by other processes are in the edit log: read them first.
      kst::follow_edit_logs(*stores);
      std::string result = handler(ctx, args);
      return shows == Shows::kContent ? result : lang::printable_lines(result);
    } catch (const std::exception& e) {
      return std::string("ERROR: ") + e.what();
    }
  };
}

lang::Verb verb(std::string name, std::vector<std::string> aliases, std::string summary,
                std::string usage, std::string example, std::string section,
                lang::VerbHandler run) {
  lang::Verb v;
  v.name = std::move(name);
  v.aliases = std::move(aliases);
  v.summary = std::move(summary);
  v.usage = std::move(usage);
  v.example = std::move(example);
  v.section = std::move(section);
  v.run = std::move(run);
  return v;
}

lang::Family family(std::string name, std::string title, std::string unknown_text) {
  lang::Family f;
  f.name = std::move(name);
  f.separator = ':';
  f.title = std::move(title);
  std::string family_name = f.name;
  f.unknown_verb = [family_name, unknown_text](std::string_view v) {
    return "ERROR: unknown " + family_name + " op '" + lang::printable(v) + "' " + unknown_text;
  };
  return f;
}

}  // namespace

std::shared_ptr<kst::StoreSet> register_file_families(lang::Registry& registry, bool live_watch) {
  auto stores = std::make_shared<kst::StoreSet>(platform::home_dir());
  // The set owns the watchers through this callback, so their threads end before the
  // stores do.
  auto watchers = std::make_shared<kst::StoreWatchers>(stores->home(), live_watch, std::cerr);
  stores->on_add([watchers](kst::Store& store) { watchers->add(store); });
  stores->on_remove([watchers](kst::Store& store) { watchers->remove(store); });

  auto fs_family = family("fs", "Versioned files",
                          "(cat|rm|move|copy|restore). Use fsmk: to create, fsvctl: for "
                          "checkout/checkin/log/diff/revert, fsraw: for a direct OS op.");
  fs_family.verbs = {
      verb("cat", {"read"}, "print a versioned file's current text", "fs:cat <path>",
           "fs:cat src/main.cpp", "Files", handler_of(stores, kst::fs_cat, Shows::kContent)),
      verb("rm", {"del", "remove", "delete"}, "tombstone a file (history kept; fs:restore undoes)",
           "fs:rm <path>", "fs:rm notes/old.md", "Files", handler_of(stores, kst::fs_rm)),
      verb("move", {"mv", "rename"}, "move a file with its whole version chain",
           "fs:move <src> <dst>", "fs:move a.txt docs/a.txt", "Files",
           handler_of(stores, kst::fs_move)),
      verb("copy", {"cp"}, "copy a file's text into a new version of the destination",
           "fs:copy <src> <dst>", "fs:copy a.txt b.txt", "Files", handler_of(stores, kst::fs_copy)),
      verb("restore", {"undelete"}, "bring a tombstoned file back", "fs:restore <path>",
           "fs:restore notes/old.md", "Files", handler_of(stores, kst::fs_restore)),
  };
  registry.add_family(std::move(fs_family));

  auto mk = family("fsmk", "Create files and directories", "(file|dir)");
  mk.verbs = {
      verb("file", {"new", "create", "newfile", "touch"},
           "create a versioned file (or save a new version of it)",
           "fsmk:file <path> [<content><![CDATA[..]]></content>]",
           "fsmk:file src/a.txt <content><![CDATA[hello]]></content>", "Files",
           handler_of(stores, kst::fsmk_file)),
      verb("dir", {"mkdir", "folder", "newdir"}, "create a directory", "fsmk:dir <path>",
           "fsmk:dir src/util", "Files", handler_of(stores, kst::fsmk_dir)),
  };
  registry.add_family(std::move(mk));

  auto raw = family("fsraw", "Unversioned disk operations", "(copy|move|remove)");
  raw.verbs = {
      verb("copy", {"cp"}, "copy on disk without versioning", "fsraw:copy <src> <dst>",
           "fsraw:copy build/app.bin dist/app.bin", "Filesystem",
           handler_of(stores, kst::fsraw_copy)),
      verb("move", {"mv"}, "move on disk without versioning", "fsraw:move <src> <dst>",
           "fsraw:move tmp/out.log logs/out.log", "Filesystem",
           handler_of(stores, kst::fsraw_move)),
      verb("remove", {"rm", "del"}, "remove from disk without a tombstone", "fsraw:remove <path>",
           "fsraw:remove tmp/out.log", "Filesystem", handler_of(stores, kst::fsraw_remove)),
  };
  registry.add_family(std::move(raw));

  auto stat = family("fsstat", "Inspect the stores", "(exists|version|ls|stores|paths)");
  stat.verbs = {
      verb("exists", {}, "whether a file or directory is in the store", "fsstat:exists <path>",
           "fsstat:exists src/a.txt", "Inspect", handler_of(stores, kst::fsstat_exists)),
      verb("version", {"ver"}, "a node's version number", "fsstat:version <path>",
           "fsstat:version src/a.txt", "Inspect", handler_of(stores, kst::fsstat_version)),
      verb("ls", {"list", "children"}, "a directory's children", "fsstat:ls <dirpath>",
           "fsstat:ls src", "Inspect", handler_of(stores, kst::fsstat_ls)),
      verb("stores", {"filesystems", "mounts"}, "every enrolled store; * marks the active one",
           "fsstat:stores", "fsstat:stores", "Inspect", handler_of(stores, kst::fsstat_stores)),
      verb("vcstatus", {"syncstatus"}, "sync state of each enrolled directory as JSON",
           "fsstat:vcstatus", "fsstat:vcstatus", "Inspect",
           handler_of(stores, kst::fsstat_vcstatus)),
      verb("history", {"edits"}, "the edit log, newest first, one JSON object per line",
           "fsstat:history [limit=N]", "fsstat:history limit=20", "Version control",
           handler_of(stores, kst::fsstat_history)),
      verb("paths", {"files", "all"}, "every file of the active store with its version",
           "fsstat:paths [pattern]", "fsstat:paths *.cpp", "Inspect",
           handler_of(stores, kst::fsstat_paths)),
  };
  registry.add_family(std::move(stat));

  lang::PlainVerb enroll_verb;
  enroll_verb.words = {"EnrollVersionControl", "enroll", "enrollversioncontrol",
                       "enrollinversioncontrol"};
  enroll_verb.summary = "put a directory under version control and make it the active store";
  enroll_verb.usage = "Kestrune EnrollVersionControl <directory> [flags]";
  enroll_verb.example = "Kestrune EnrollVersionControl ~/proj ext=allbut:.log watch=on";
  enroll_verb.section = "Version control";
  enroll_verb.run = [stores](lang::Session& session, std::string_view args) -> std::string {
    try {
      return kst::enroll(*stores, args, session_cwd(session), stores->report());
    } catch (const std::exception& e) {
      return std::string("ERROR: ") + e.what();
    }
  };
  registry.add_plain_verb(std::move(enroll_verb));

  lang::PlainVerb policy_verb;
  policy_verb.words = {"policy", "vcpolicy", "flags"};
  policy_verb.summary = "change the version-control policy of an enrolled directory";
  policy_verb.usage = "Kestrune policy <directory> <flags>";
  policy_verb.example = "Kestrune policy ~/proj ext=only:.md,.txt";
  policy_verb.section = "Version control";
  policy_verb.run = [stores](lang::Session& session, std::string_view args) -> std::string {
    try {
      return kst::change_policy(*stores, args, session_cwd(session), stores->report());
    } catch (const std::exception& e) {
      return std::string("ERROR: ") + e.what();
    }
  };
  registry.add_plain_verb(std::move(policy_verb));

  lang::PlainVerb unenroll_verb;
  unenroll_verb.words = {"unenroll", "UnenrollVersionControl", "unenrollversioncontrol"};
  unenroll_verb.summary =
      "take a directory out of version control (its history stays on disk for a re-enroll)";
  unenroll_verb.usage = "Kestrune unenroll <directory>";
  unenroll_verb.example = "Kestrune unenroll ~/proj";
  unenroll_verb.section = "Version control";
  unenroll_verb.run = [stores](lang::Session& session, std::string_view args) -> std::string {
    try {
      return lang::printable_lines(kst::unenroll(*stores, args, session_cwd(session)));
    } catch (const std::exception& e) {
      return std::string("ERROR: ") + e.what();
    }
  };
  registry.add_plain_verb(std::move(unenroll_verb));
  return stores;
}

namespace {

// What enrolling one listed directory again came to.
struct ListedOutcome {
  kst::Store* store = nullptr;  // nullptr when it could not be enrolled
  std::string state;            // what the start record keeps of it
  bool healthy = false;
  std::string text;  // the report line's text after "->"
};

// Enrolls one listed directory again and makes it active. `was` is what the last
// start recorded of it ("" when nothing), so a changed policy can be named.
ListedOutcome enroll_listed(kst::StoreSet& stores, const kst::ConfigEntry& entry,
                            const std::string& was, std::ostream& load_report) {
  std::error_code ec;
  if (!fs::is_directory(entry.path, ec))
    return {nullptr, "missing", false,
            "skipped (no such directory); it stays listed and is enrolled again once it is back "
            "(Kestrune unenroll " +
                entry.path + " drops it)"};
  std::string error;
  auto policy = kst::parse_policy(entry.flags, error);
  if (!policy) return {nullptr, "bad policy: " + error, false, "ERROR: bad policy: " + error};
  auto store = stores.make_store(listed_root(entry), *policy);
  std::string reason;
  if (store->versioned() && !store->load(load_report, reason))
    return {nullptr, "ingest failed", false,
            "ERROR: ingest failed" + (reason.empty() ? "" : " (" + reason + ")")};
  const std::size_t count = store->files().size();
  kst::Store& adopted = stores.adopt(std::move(store));
  stores.set_active(&adopted);
  const std::string flags = kst::policy_text(*policy);
  const bool was_enrolled = was.empty() || was.starts_with("enrolled [");
  std::string text = std::string(was_enrolled ? "enrolled (" : "enrolled again (") +
                     std::to_string(count) + " file(s)), " +
                     (policy->watch ? "watching for changes" : "watch=off");
  if (!was.empty() && was_enrolled) text += " — policy now [" + flags + "], was " + was.substr(9);
  return {&adopted, "enrolled [" + flags + "]", true, text};
}

}  // namespace

fs::path listed_root(const kst::ConfigEntry& entry) {
  // The same directory written differently (a link, a trailing slash) is one store.
  std::error_code ec;
  fs::path root = fs::canonical(entry.path, ec);
  return ec ? fs::path(entry.path) : root;
}

void reenroll_from_config(kst::StoreSet& stores, std::ostream& report) {
  // A start tells only what changed since the last one.
  kst::StartRecord record(kst::start_record_file(stores.config_file().parent_path()));
  for (const auto& entry : kst::read_config_entries(stores.config_file())) {
    const std::string key = "dir " + entry.path;
    ListedOutcome outcome = enroll_listed(stores, entry, record.previous(key), report);
    if (record.note(key, outcome.state, outcome.healthy))
      report << "[versioncontroldirs] " << entry.path << " -> " << outcome.text << "\n";
  }
  record.forget_unnoted("dir ");
  (void)record.save();  // a failure costs one repeated line at the next start
}

void follow_enrolled_dirs(kst::StoreSet& stores, std::ostream& report) {
  const auto entries = kst::read_config_entries(stores.config_file());
  std::vector<fs::path> listed;
  for (const auto& entry : entries) listed.push_back(listed_root(entry));
  // Left first, so that the active store afterwards is a listed one.
  for (kst::Store* store : stores.all()) {
    if (std::find(listed.begin(), listed.end(), store->disk_root()) != listed.end()) continue;
    kst::Store* next = nullptr;
    for (const fs::path& root : listed)
      if (kst::Store* s = stores.find(root); s != nullptr && s != store) next = s;
    stores.retire(*store, next);
    report << "[versioncontroldirs] " << store->disk_root().string()
           << " -> unenrolled by another process\n";
  }
  // Another process's enrollment is news whatever the start record says.
  for (std::size_t n = 0; n < entries.size(); ++n)
    if (stores.find(listed[n]) == nullptr)
      report << "[versioncontroldirs] " << entries[n].path << " -> "
             << enroll_listed(stores, entries[n], "", report).text << "\n";
}

std::shared_ptr<kst::FileWatches> register_file_watches(lang::Registry& registry,
                                                        std::shared_ptr<kst::StoreSet> stores,
                                                        bool live_watch) {
  auto watches = std::make_shared<kst::FileWatches>(stores, live_watch, std::cerr);
  using Run = std::string (*)(kst::FileWatches&, std::string_view, const fs::path&);
  auto add = [&](std::string word, std::string summary, std::string usage, std::string example,
                 Run run) {
    lang::PlainVerb v;
    v.words = {std::move(word)};
    v.summary = std::move(summary);
    v.usage = std::move(usage);
    v.example = std::move(example);
    v.section = "Version control";
    v.run = [watches, run](lang::Session& session, std::string_view args) -> std::string {
      try {
        return lang::printable_lines(run(*watches, args, session_cwd(session)));
      } catch (const std::exception& e) {
        return std::string("ERROR: ") + e.what();
      }
    };
    registry.add_plain_verb(std::move(v));
  };
  add("watch", "version one file outside every store as other programs change it",
      "Kestrune watch <file>", "Kestrune watch ~/.bashrc",
      [](kst::FileWatches& w, std::string_view a, const fs::path& cwd) { return w.watch(a, cwd); });
  add("unwatch", "stop watching one file (its history stays)", "Kestrune unwatch <file>",
      "Kestrune unwatch ~/.bashrc",
      [](kst::FileWatches& w, std::string_view a, const fs::path& cwd) {
        return w.unwatch(a, cwd);
      });
  add("watches", "the files watched one by one, live or gone, with their archived versions",
      "Kestrune watches", "Kestrune watches",
      [](kst::FileWatches& w, std::string_view, const fs::path&) { return w.list(); });
  return watches;
}

}  // namespace kx::vfs

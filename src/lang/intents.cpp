#include "lang/intents.hpp"

#include <algorithm>
#include <array>
#include <cctype>
#include <functional>
#include <set>

#include "lang/text.hpp"

namespace kx::lang {
namespace {

constexpr std::array<std::string_view, 8> kContentMarkers = {
    "content:",   "contents:", "body:",      "with content ",
    "with body ", "saying ",   "that says ", "containing "};

// Words that carry no path: the keywords of every intent and the little words
// around them ("the file", "to version 3").
const std::set<std::string, std::less<>>& filler_words() {
  static const std::set<std::string, std::less<>> words = {
      "the",        "a",          "an",        "file",     "files",      "directory", "folder",
      "dir",        "to",         "from",      "of",       "in",         "into",      "at",
      "as",         "with",       "and",       "please",   "me",         "my",        "show",
      "new",        "named",      "called",    "for",      "all",        "is",        "it",
      "this",       "that",       "version",   "versions", "v",          "between",   "vs",
      "save",       "everything", "dump",      "write",    "update",     "overwrite", "modify",
      "change",     "force",      "dirty",     "override", "create",     "make",      "touch",
      "add",        "delete",     "remove",    "erase",    "trash",      "destroy",   "drop",
      "copy",       "duplicate",  "move",      "rename",   "unlock",     "toggle",    "locked",
      "holder",     "status",     "lock",      "exists",   "exist",      "present",   "find",
      "does",       "list",       "children",  "checkout", "check",      "out",       "grab",
      "claim",      "edit",       "commit",    "checkin",  "undo",       "discard",   "changes",
      "edits",      "reload",     "revert",    "rollback", "restore",    "diff",      "compare",
      "difference", "history",    "changelog", "flush",    "checkpoint", "ckpt",      "policy",
      "read",       "print",      "open",      "display",  "view",       "fetch",     "peek",
      "snapshot",   "serialize",  "export",    "backup",   "author",     "who",       "what",
      "whats",      "of",         "on",        "back"};
  return words;
}

std::string strip_punctuation(std::string_view word) {
  while (!word.empty() && std::string_view(",;!?'\"()").find(word.back()) != std::string_view::npos)
    word.remove_suffix(1);
  while (!word.empty() && std::string_view("'\"(").find(word.front()) != std::string_view::npos)
    word.remove_prefix(1);
  return std::string(word);
}

struct Words {
  std::vector<std::string> lower;    // for keyword matching
  std::vector<std::string> paths;    // candidate paths, in order
  std::vector<std::string> numbers;  // version numbers ("3", "v3")
};

Words read_words(std::string_view instruction) {
  Words words;
  std::vector<std::string> plain;
  for (std::string_view raw : split_words(instruction)) {
    std::string word = strip_punctuation(raw);
    if (word.empty()) continue;
    std::string lower = to_lower(word);
    words.lower.push_back(lower);
    std::string_view digits = lower;
    if (digits.size() > 1 && digits.front() == 'v' && is_integer(digits.substr(1)))
      digits.remove_prefix(1);
    if (is_integer(digits)) {
      words.numbers.emplace_back(digits);
      continue;
    }
    if (filler_words().contains(lower)) continue;
    if (word.back() == '.' && word.find_first_of("/\\") == std::string::npos)
      word.pop_back();  // sentence full stop
    if (!word.empty()) plain.push_back(word);
  }
  // Path-looking words first, then the rest, each group in the order written.
  for (const auto& w : plain)
    if (w.find_first_of("/\\.") != std::string::npos) words.paths.push_back(w);
  for (const auto& w : plain)
    if (w.find_first_of("/\\.") == std::string::npos) words.paths.push_back(w);
  return words;
}

bool has_any(const Words& words, std::initializer_list<std::string_view> keys) {
  for (const auto& word : words.lower)
    for (std::string_view key : keys)
      if (word == key) return true;
  return false;
}

std::string path_tag(const std::string& path) {
  return "<path>" + path + "</path>";
}

std::string content_tag(const std::string& body) {
  return "<content><![CDATA[" + body + "]]></content>";
}

using Builder = std::function<IntentMatch(const Words&, const Request&)>;

struct Intent {
  std::string name;
  std::function<bool(const Words&)> matches;
  Builder build;
};

IntentMatch needs_path(const std::string& intent, std::string_view what) {
  return {intent, "", "ERROR: " + intent + " which file? e.g. '" + std::string(what) + "'"};
}

// Every intent builds a command of the file families in tag form.
const std::vector<Intent>& intents() {
  static const std::vector<Intent> table = {
      {"save all",
       [](const Words& w) {
         return (has_any(w, {"save"}) && has_any(w, {"all", "everything"})) || has_any(w, {"dump"});
       },
       [](const Words&, const Request&) {
         return IntentMatch{"save all", "", ""};
       }},
      {"write",
       [](const Words& w) {
         return has_any(w, {"write", "update", "overwrite", "modify", "change"});
       },
       [](const Words& w, const Request& r) {
         if (w.paths.empty())
           return IntentMatch{"write", "",
                              "ERROR: write which file? e.g. 'write src/x.cpp content: ...'"};
         std::string command =
             "fsvctl:checkin " + path_tag(w.paths[0]) + content_tag(r.body.value_or(""));
         if (has_any(w, {"force", "dirty", "override"})) command += "<dirty>true</dirty>";
         return IntentMatch{"write", command, ""};
       }},
      {"create",
       [](const Words& w) {
         return has_any(w, {"create", "make", "touch"}) ||
                (has_any(w, {"add"}) && has_any(w, {"file", "directory", "folder", "dir"}));
       },
       [](const Words& w, const Request& r) {
         if (w.paths.empty())
           return IntentMatch{"create", "",
                              "ERROR: create — what path? e.g. 'create file src/x.cpp'"};
         if (has_any(w, {"directory", "folder", "dir"}))
           return IntentMatch{"create", "fsmk:dir " + path_tag(w.paths[0]), ""};
         std::string command = "fsmk:file " + path_tag(w.paths[0]);
         if (r.body) command += content_tag(*r.body);
         return IntentMatch{"create", command, ""};
       }},
      {"delete",
       [](const Words& w) {
         return has_any(w, {"delete", "remove", "erase", "trash", "destroy", "drop"});
       },
       [](const Words& w, const Request&) {
         if (w.paths.empty()) return needs_path("delete", "delete src/x.cpp");
         return IntentMatch{"delete", "fs:rm " + path_tag(w.paths[0]), ""};
       }},
      {"copy",
       [](const Words& w) {
         return has_any(w, {"copy", "duplicate"});
       },
       [](const Words& w, const Request&) {
         if (w.paths.size() < 2) return needs_path("copy", "copy src/a.cpp to src/b.cpp");
         return IntentMatch{"copy", "fs:copy " + w.paths[0] + " " + w.paths[1], ""};
       }},
      {"move",
       [](const Words& w) {
         return has_any(w, {"move", "rename"});
       },
       [](const Words& w, const Request&) {
         if (w.paths.size() < 2) return needs_path("move", "move src/a.cpp to src/b.cpp");
         return IntentMatch{"move", "fs:move " + w.paths[0] + " " + w.paths[1], ""};
       }},
      {"lock",
       [](const Words& w) {
         return has_any(w, {"unlock", "toggle", "locked", "holder", "status", "lock"});
       },
       [](const Words& w, const Request&) {
         if (w.paths.empty()) return needs_path("lock", "lock src/x.cpp");
         bool query = has_any(w, {"locked", "holder", "status"});
         // "unlock" only ever releases: flipping would lock a file nobody held.
         const char* verb = query                    ? "fslock:status "
                            : has_any(w, {"unlock"}) ? "fslock:unlock "
                                                     : "fslock:toggle ";
         return IntentMatch{"lock", verb + path_tag(w.paths[0]), ""};
       }},
      {"exists",
       [](const Words& w) {
         return has_any(w, {"exists", "exist", "present", "find"});
       },
       [](const Words& w, const Request&) {
         if (w.paths.empty()) return needs_path("exists", "does src/x.cpp exist");
         return IntentMatch{"exists", "fsstat:exists " + path_tag(w.paths[0]), ""};
       }},
      {"versions",
       [](const Words& w) {
         return has_any(w, {"version", "list", "children"});
       },
       [](const Words& w, const Request&) {
         if (has_any(w, {"list", "children"}))
           return IntentMatch{"versions",
                              "fsstat:ls " + path_tag(w.paths.empty() ? "." : w.paths[0]), ""};
         if (w.paths.empty()) return needs_path("version", "version of src/x.cpp");
         return IntentMatch{"versions", "fsstat:version " + path_tag(w.paths[0]), ""};
       }},
      {"checkout",
       [](const Words& w) {
         return has_any(w, {"checkout", "grab", "claim", "edit"});
       },
       [](const Words& w, const Request&) {
         if (w.paths.empty()) return needs_path("checkout", "checkout src/x.cpp");
         return IntentMatch{"checkout", "fsvctl:checkout " + path_tag(w.paths[0]), ""};
       }},
      {"checkin",
       [](const Words& w) {
         return has_any(w, {"commit", "checkin"});
       },
       [](const Words& w, const Request& r) {
         if (w.paths.empty()) return needs_path("checkin", "checkin src/x.cpp content: ...");
         return IntentMatch{
             "checkin", "fsvctl:checkin " + path_tag(w.paths[0]) + content_tag(r.body.value_or("")),
             ""};
       }},
      {"discard",
       [](const Words& w) {
         return has_any(w, {"undo", "discard", "changes", "edits", "reload"});
       },
       [](const Words& w, const Request&) {
         if (w.paths.empty() || w.numbers.empty())
           return IntentMatch{"discard", "",
                              "ERROR: undo to which version? e.g. 'revert src/x.cpp to 3' "
                              "(history src/x.cpp shows the chain)"};
         return IntentMatch{
             "discard",
             "fsvctl:revert " + path_tag(w.paths[0]) + "<version>" + w.numbers[0] + "</version>",
             ""};
       }},
      {"revert",
       [](const Words& w) {
         return has_any(w, {"revert", "rollback", "restore"});
       },
       [](const Words& w, const Request&) {
         if (w.paths.empty()) return needs_path("revert", "revert src/x.cpp to 3");
         if (w.numbers.empty()) {
           if (has_any(w, {"restore"}))  // no version: bring a tombstoned file back
             return IntentMatch{"revert", "fs:restore " + path_tag(w.paths[0]), ""};
           return IntentMatch{"revert", "",
                              "ERROR: revert to which version? e.g. 'revert " + w.paths[0] +
                                  " to 3' (history " + w.paths[0] + " shows the chain)"};
         }
         return IntentMatch{
             "revert",
             "fsvctl:revert " + path_tag(w.paths[0]) + "<version>" + w.numbers[0] + "</version>",
             ""};
       }},
      {"compare",
       [](const Words& w) {
         return has_any(w, {"diff", "compare", "difference"});
       },
       [](const Words& w, const Request&) {
         if (w.paths.empty() || w.numbers.empty())
           return IntentMatch{"compare", "",
                              "ERROR: compare which versions? e.g. 'diff src/x.cpp 2 5'"};
         std::string command =
             "fsvctl:diff " + path_tag(w.paths[0]) + "<a>" + w.numbers[0] + "</a>";
         if (w.numbers.size() > 1) command += "<b>" + w.numbers[1] + "</b>";
         return IntentMatch{"compare", command, ""};
       }},
      {"history",
       [](const Words& w) {
         return has_any(w, {"history", "changelog"});
       },
       [](const Words& w, const Request&) {
         if (w.paths.empty()) return IntentMatch{"history", "fsvctl:timeline", ""};
         return IntentMatch{"history", "fsvctl:log " + path_tag(w.paths[0]), ""};
       }},
      {"checkpoint",
       [](const Words& w) {
         return has_any(w, {"flush", "checkpoint", "ckpt"});
       },
       [](const Words&, const Request&) {
         return IntentMatch{"checkpoint", "", ""};
       }},
      {"policy", [](const Words& w) { return has_any(w, {"policy"}); },
       [](const Words&, const Request&) {
         return IntentMatch{
             "policy", "",
             "ERROR: say 'Kestrune policy <directory> <flags>' (flags: scope=|ext=|watch=|mode=)"};
       }},
      {"read",
       [](const Words& w) {
         return has_any(w, {"read", "print", "open", "display", "view", "fetch", "peek"});
       },
       [](const Words& w, const Request&) {
         if (w.paths.empty()) return needs_path("read", "read src/x.cpp");
         if (!w.numbers.empty())
           return IntentMatch{
               "read",
               "fsvctl:open " + path_tag(w.paths[0]) + "<version>" + w.numbers[0] + "</version>",
               ""};
         return IntentMatch{"read", "fs:cat " + path_tag(w.paths[0]), ""};
       }},
      {"snapshot",
       [](const Words& w) {
         return has_any(w, {"snapshot", "serialize", "export", "backup"});
       },
       [](const Words& w, const Request&) {
         return IntentMatch{
             "snapshot",
             "fsvctl:emit " + path_tag(w.paths.empty() ? "." : w.paths[0]) + "<asof>latest</asof>",
             ""};
       }},
      {"author", [](const Words& w) { return has_any(w, {"author"}); },
       [](const Words& w, const Request&) {
         if (w.paths.empty()) return needs_path("author", "author of src/x.cpp");
         return IntentMatch{"author", "fsvctl:log " + path_tag(w.paths[0]), ""};
       }},
  };
  return table;
}

}  // namespace

Request split_content(std::string_view text) {
  Request request;
  std::size_t cdata = text.find("<![CDATA[");
  if (cdata != std::string_view::npos) {
    std::size_t end = text.find("]]>", cdata + 9);
    request.body = std::string(text.substr(
        cdata + 9, end == std::string_view::npos ? std::string_view::npos : end - cdata - 9));
    request.instruction = std::string(trim(text.substr(0, cdata)));
    return request;
  }
  std::string lower = to_lower(text);
  std::size_t best = std::string::npos;
  std::size_t marker_len = 0;
  for (std::string_view marker : kContentMarkers) {
    std::size_t at = lower.find(marker);
    if (at < best) {
      best = at;
      marker_len = marker.size();
    }
  }
  if (best == std::string::npos) {
    request.instruction = std::string(trim(text));
    return request;
  }
  request.instruction = std::string(trim(text.substr(0, best)));
  std::string_view body = text.substr(best + marker_len);
  if (body.starts_with(' ')) body.remove_prefix(1);
  request.body = std::string(body);
  return request;
}

std::optional<IntentMatch> match_intent(const Request& request) {
  Words words = read_words(request.instruction);
  for (const Intent& intent : intents())
    if (intent.matches(words)) return intent.build(words, request);
  return std::nullopt;
}

std::optional<Guess> guess_family(std::string_view instruction) {
  Words words = read_words(instruction);
  if (has_any(words,
              {"remember", "memo", "memory", "memories", "note", "notes", "recall", "forget"}))
    return Guess{"use the memory store", "memory"};
  if (has_any(words, {"search", "grep", "look", "where", "occurrences"}))
    return Guess{"search your versioned files", "grep"};
  if (has_any(words, {"enroll", "track", "watch", "versioning", "control"}))
    return Guess{"put a directory under version control", "enroll"};
  if (has_any(words, {"cat", "ls", "show", "see", "contents"})) return Guess{"read a file", "cat"};
  return std::nullopt;
}

}  // namespace kx::lang

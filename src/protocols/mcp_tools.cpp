#include "protocols/mcp_tools.hpp"

#include <algorithm>

namespace kx::protocols {
namespace {

constexpr const char* kNotWired = "ERROR: mcp: interpreter bridge not wired";
constexpr const char* kNoChat =
    "ERROR: chat lives in the resident, and this MCP session runs without one (KESTRUNE_LOCAL "
    "is set, or no resident could be started); start it with 'kx boot' and reconnect";

std::string run(const ToolHost& host, const std::string& line) {
  return host.run ? host.run(line) : kNotWired;
}

// A tagged argument; the value is taken as written, so it must not hold its own
// closing tag (paths and versions never do).
std::string tag(const char* name, const std::string& value) {
  return std::string("<") + name + ">" + value + "</" + name + ">";
}

// File content as a tagged argument: CDATA keeps "</content>" literal; content
// holding "]]>" goes bare, which works unless it also holds "</content>".
std::optional<std::string> content_tag(const std::string& content) {
  if (content.find("]]>") == std::string::npos)
    return "<content><![CDATA[" + content + "]]></content>";
  if (content.find("</content>") == std::string::npos) return tag("content", content);
  return std::nullopt;
}

// A word the command language keeps whole: quoted when it holds blanks or quotes.
std::string quote_word(const std::string& word) {
  if (!word.empty() && word.find_first_of(" \t\"'") == std::string::npos) return word;
  std::string out = "\"";
  for (char c : word) {
    if (c == '"') out += '\\';
    out += c;
  }
  return out + "\"";
}

struct Prop {
  const char* name;
  const char* type;  // "string", "integer", "boolean"
  const char* description;
};

Json schema(std::initializer_list<Prop> props, std::initializer_list<const char*> required) {
  Json properties = Json::object();
  for (const Prop& p : props)
    properties[p.name] = Json{{"type", p.type}, {"description", p.description}};
  Json out{{"type", "object"}, {"properties", std::move(properties)}};
  if (required.size() > 0) {
    Json names = Json::array();
    for (const char* r : required) names.push_back(r);
    out["required"] = std::move(names);
  }
  return out;
}

// How a tool affects the workspace, for the client's approval prompts.
enum class Effect {
  kRead,       // reads only
  kVersioned,  // writes, and the previous state stays reachable as a version
  kReplaces,   // overwrites or deletes without a version
};

Tool make(const char* name, const char* title, const char* description, Json input_schema,
          Effect effect, bool idempotent, ToolCall call) {
  Tool tool;
  tool.name = name;
  tool.alias = name;
  // The dotted alias: the family prefix ends at the first underscore.
  if (auto underscore = tool.alias.find('_'); underscore != std::string::npos)
    tool.alias[underscore] = '.';
  tool.title = title;
  tool.description = description;
  tool.input_schema = std::move(input_schema);
  tool.read_only = effect == Effect::kRead;
  tool.destructive = effect == Effect::kReplaces;
  tool.idempotent = idempotent || effect == Effect::kRead;
  tool.call = std::move(call);
  return tool;
}

// A tool that runs `prefix` followed by its arguments, each rendered by `render`.
ToolCall line_of(std::function<std::string(const Json&)> build) {
  return [build = std::move(build)](const Json& args, const ToolHost& host) {
    return run(host, build(args));
  };
}

std::string memory_line(const char* verb, const Json& args,
                        std::initializer_list<const char*> keys) {
  // Memory verbs run for the bot "Kestrune", named first; fields are comma-separated
  // and the last one takes the rest of the line, commas included.
  std::string line = std::string("memory.") + verb + " " + kMemoryBot;
  for (const char* key : keys) line += ", " + arg_text(args, key);
  return line;
}

std::string fs_write(const std::string& path, const std::string& content, const ToolHost& host) {
  auto body = content_tag(content);
  if (!body)
    return "ERROR: content holds both ']]>' and '</content>' — write it in two steps with "
           "kst_run";
  std::string exists = run(host, "fsstat:exists " + tag("path", path));
  const char* verb = exists.find("OK: yes") != std::string::npos ? "fsvctl:checkin " : "fsmk:file ";
  return run(host, verb + tag("path", path) + *body);
}

bool is_error(const std::string& text) {
  return text.starts_with("ERROR");
}

// The changed region of an edit as "-"/"+" lines, a few lines each way at most.
std::string short_diff(std::string_view old_text, std::string_view new_text,
                       std::size_t first_line) {
  auto lines = [](std::string_view text) {
    std::vector<std::string_view> out;
    while (!text.empty()) {
      std::size_t eol = text.find('\n');
      out.push_back(text.substr(0, eol));
      if (eol == std::string_view::npos) break;
      text.remove_prefix(eol + 1);
    }
    return out;
  };
  constexpr std::size_t kShown = 12;
  std::string out = "@@ line " + std::to_string(first_line) + "\n";
  auto emit = [&](char sign, const std::vector<std::string_view>& list) {
    for (std::size_t i = 0; i < list.size() && i < kShown; ++i) {
      std::string_view l = list[i];
      if (l.ends_with('\r')) l.remove_suffix(1);
      out += sign;
      out += l;
      out += '\n';
    }
    if (list.size() > kShown)
      out +=
          std::string(1, sign) + " ... (" + std::to_string(list.size() - kShown) + " more lines)\n";
  };
  emit('-', lines(old_text));
  emit('+', lines(new_text));
  return out;
}

std::string fs_edit(const Json& args, const ToolHost& host) {
  const std::string path = arg_text(args, "path");
  const std::string old_text = arg_text(args, "old_text");
  const std::string new_text = arg_text(args, "new_text");
  if (path.empty() || old_text.empty())
    return "ERROR: fs_edit needs path and a non-empty old_text (use fs_write for a new file)";
  std::string current = run(host, "fs:cat " + tag("path", path));
  if (is_error(current)) return current;
  EditResult edit = replace_once(current, old_text, new_text);
  if (!edit.ok) return edit.error;
  std::string saved = fs_write(path, edit.text, host);
  if (is_error(saved)) return saved;
  std::string out = saved;
  if (edit.normalised) out += "\n(matched with line endings and trailing blanks ignored)";
  return out + "\n" + short_diff(old_text, new_text, edit.first_line);
}

std::string fs_read(const Json& args, const ToolHost& host) {
  std::string text = run(host, "fs:cat " + tag("path", arg_text(args, "path")));
  if (is_error(text)) return text;
  auto number = [&](const char* key) {
    std::string value = arg_text(args, key);
    return value.empty() ? 0L : std::strtol(value.c_str(), nullptr, 10);
  };
  return slice_lines(text, number("offset"), number("limit"), kReadCap);
}

std::string kst_query(const Json& args, const ToolHost& host) {
  std::string expr = arg_text(args, "expr");
  // A single field with a glob, path("*.cpp") or topics("loom*"), or a bare glob.
  std::string glob;
  std::string label = "Kestrune glob (";
  auto open = expr.find('(');
  if (open == std::string::npos) {
    glob = expr;
  } else {
    std::string field = expr.substr(0, open);
    std::string rest = expr.substr(open + 1);
    bool simple = (field == "path" || field == "topics") && rest.size() >= 3 &&
                  rest.back() == ')' && rest.front() == '"' && rest[rest.size() - 2] == '"' &&
                  rest.find_first_of("()&|", 0) == rest.size() - 1;
    if (!simple)
      return "ERROR: full ?( ) expressions don't ride the MCP lane. Supported here: a single "
             "field(\"glob\") such as path(\"*.cpp\") or topics(\"loom*\"), or a bare glob such "
             "as *.cpp. For anything richer call kst_run with \"fsstat:paths <glob>\".";
    glob = rest.substr(1, rest.size() - 3);
    label = "Kestrune files (";
  }
  std::string out = run(host, "fsstat:paths " + glob);
  if (is_error(out)) return out;
  return label + glob + ")\n" + out;
}

std::string grep(const Json& args, const ToolHost& host) {
  std::string pattern = arg_text(args, "pattern");
  if (pattern.empty()) return "ERROR: grep needs a pattern";
  std::string line = "grep";
  if (std::string flags = arg_text(args, "flags"); !flags.empty()) line += " " + flags;
  line += " -- " + quote_word(pattern);
  if (std::string scope = arg_text(args, "path"); !scope.empty()) line += " " + scope;
  return run(host, line);
}

std::vector<Tool> build_tools() {
  using E = Effect;
  const Prop path{"path", "string", "file path, relative to the active store's root"};
  const Prop context{"context", "string", "memory context name"};
  const Prop topic{"topic", "string", "topic name inside the context"};
  std::vector<Tool> t;
  t.push_back(make(
      "kst_run", "Run a Kestrune command",
      "Run one Kestrune command line (any family: fs:, fsvctl:, memory., grep, ...). "
      "fssys:help prints the manual.",
      schema({{"command", "string", "the command line, e.g. fsvctl:log src/a.cpp"}}, {"command"}),
      E::kReplaces, false, line_of([](const Json& a) { return arg_text(a, "command"); })));
  t.push_back(make("kst_query", "Find files by glob",
                   "List versioned files matching a bare glob (*.cpp) or a single field "
                   "query path(\"*.cpp\").",
                   schema({{"expr", "string", "a glob, or path(\"glob\")"}}, {"expr"}), E::kRead,
                   true, kst_query));
  t.push_back(make("kst_script", "Run a script (not over MCP)",
                   "Script statements are not run over MCP; call kst_run once per command.",
                   schema({{"source", "string", "script source"}}, {}), E::kRead, true,
                   [](const Json&, const ToolHost&) -> std::string {
                     return "ERROR: v2 script statements don't ride the MCP lane — run the "
                            "equivalent as discrete kst.run commands.";
                   }));
  t.push_back(make("fs_read", "Read a file",
                   "Read a versioned file's current text. offset (1-based line) and limit "
                   "(lines) read a part; answers over 96 KB are cut with a note on how to page.",
                   schema({path,
                           {"offset", "integer", "first line to read, 1-based"},
                           {"limit", "integer", "number of lines to read"}},
                          {"path"}),
                   E::kRead, true, fs_read));
  t.push_back(
      make("fs_write", "Write a file",
           "Write a whole file: a new file is created, an existing one gets a new "
           "version (the old one stays in the history).",
           schema({path, {"content", "string", "the complete new text"}}, {"path", "content"}),
           E::kVersioned, true, [](const Json& a, const ToolHost& host) {
             return fs_write(arg_text(a, "path"), arg_text(a, "content"), host);
           }));
  t.push_back(make("fs_edit", "Edit a file",
                   "Replace exactly one occurrence of old_text with new_text and save a new "
                   "version. Fails, naming the lines, when old_text occurs more than once.",
                   schema({path,
                           {"old_text", "string", "the exact text to replace"},
                           {"new_text", "string", "the replacement"}},
                          {"path", "old_text", "new_text"}),
                   E::kVersioned, false, fs_edit));
  t.push_back(make(
      "fs_list", "List files", "List the active store's files (with versions) matching a glob.",
      schema({{"glob", "string", "glob such as src/*.cpp; empty for all"}}, {}), E::kRead, true,
      line_of([](const Json& a) { return "fsstat:paths " + arg_text(a, "glob"); })));
  t.push_back(make("fs_remove", "Remove a file",
                   "Tombstone a file; its history is kept and fs_restore brings it back.",
                   schema({path}, {"path"}), E::kVersioned, true, line_of([](const Json& a) {
                     return "fs:rm " + tag("path", arg_text(a, "path"));
                   })));
  t.push_back(
      make("fs_move", "Move a file", "Move or rename a file together with its version history.",
           schema({{"source", "string", "current path"}, {"destination", "string", "new path"}},
                  {"source", "destination"}),
           E::kVersioned, false, line_of([](const Json& a) {
             return "fs:move " + tag("path", arg_text(a, "source")) +
                    tag("dest", arg_text(a, "destination"));
           })));
  t.push_back(make("fs_restore", "Restore a removed file", "Bring a tombstoned file back.",
                   schema({path}, {"path"}), E::kVersioned, true, line_of([](const Json& a) {
                     return "fs:restore " + tag("path", arg_text(a, "path"));
                   })));
  t.push_back(make("vc_log", "File history", "Every version of a file with when, what and who.",
                   schema({path}, {"path"}), E::kRead, true, line_of([](const Json& a) {
                     return "fsvctl:log " + tag("path", arg_text(a, "path"));
                   })));
  t.push_back(make(
      "vc_diff", "Compare versions", "Line diff between versions a and b of a file.",
      schema(
          {path, {"a", "string", "first version number"}, {"b", "string", "second version number"}},
          {"a", "b"}),
      E::kRead, true, line_of([](const Json& a) {
        std::string p = arg_text(a, "path");
        return "fsvctl:diff " + (p.empty() ? "" : tag("path", p)) + tag("a", arg_text(a, "a")) +
               tag("b", arg_text(a, "b"));
      })));
  t.push_back(make(
      "vc_revert", "Revert a file", "Save an earlier version of a file as its new current version.",
      schema({path, {"version", "string", "version number to bring back"}}, {"path", "version"}),
      E::kVersioned, false, line_of([](const Json& a) {
        return "fsvctl:revert " + tag("path", arg_text(a, "path")) +
               tag("version", arg_text(a, "version"));
      })));
  t.push_back(make("vc_open_version", "Read an old version", "The text of one version of a file.",
                   schema({path, {"version", "string", "version number"}}, {"path", "version"}),
                   E::kRead, true, line_of([](const Json& a) {
                     return "fsvctl:open " + tag("path", arg_text(a, "path")) +
                            tag("version", arg_text(a, "version"));
                   })));
  t.push_back(make("kst_stores", "List stores", "Every enrolled store; * marks the active one.",
                   schema({}, {}), E::kRead, true,
                   line_of([](const Json&) { return std::string("fsstat:stores"); })));
  t.push_back(make("kst_enroll", "Enroll a directory",
                   "Put a directory under automatic version control.",
                   schema({{"directory", "string", "absolute directory path"}}, {"directory"}),
                   E::kVersioned, true, line_of([](const Json& a) {
                     return "Kestrune EnrollVersionControl " + arg_text(a, "directory");
                   })));
  t.push_back(make("kst_turns", "Recent turns", "The most recent commands and their results.",
                   schema({}, {}), E::kRead, true,
                   line_of([](const Json&) { return std::string("fssys:turns"); })));
  t.push_back(make("grep", "Search file texts",
                   "Regex search over the versioned trees, in RAM. flags as in grep (-i -n -w "
                   "-l -c -C 2 --include '*.cpp' ...).",
                   schema({{"pattern", "string", "regular expression (ECMAScript)"},
                           {"path", "string", "directories, files or globs to search"},
                           {"flags", "string", "grep flags, e.g. -i -n"}},
                          {"pattern"}),
                   E::kRead, true, grep));
  t.push_back(
      make("memory_contexts", "List memory contexts",
           "Every memory context with its topic count and size.", schema({}, {}), E::kRead, true,
           line_of([](const Json&) { return std::string("memory.contexts ") + kMemoryBot; })));
  t.push_back(make("memory_browse", "Browse a memory context", "The topics of one context.",
                   schema({context}, {"context"}), E::kRead, true,
                   line_of([](const Json& a) { return memory_line("browse", a, {"context"}); })));
  t.push_back(make("memory_add", "Save a memory",
                   "Save content under a topic (same topic = replace). Keywords are extracted "
                   "from the content; leave keywords empty.",
                   schema({context,
                           topic,
                           {"keywords", "string", "optional extra keywords, comma-free"},
                           {"content", "string", "the memory text"}},
                          {"context", "topic", "content"}),
                   E::kReplaces, true, line_of([](const Json& a) {
                     return memory_line("add", a, {"context", "topic", "keywords", "content"});
                   })));
  t.push_back(
      make("memory_addmemo", "Append a memo",
           "Append one more memo to a topic's list, typed by props such as "
           "decision|lesson (empty = untyped).",
           schema({context,
                   topic,
                   {"keywords", "string", "optional extra keywords"},
                   {"props", "string", "memo properties joined by |"},
                   {"content", "string", "the memo text"}},
                  {"context", "topic", "content"}),
           E::kVersioned, false, line_of([](const Json& a) {
             return memory_line("addmemo", a, {"context", "topic", "keywords", "props", "content"});
           })));
  auto topic_tool = [&](const char* name, const char* verb, const char* title,
                        const char* description, Effect effect, bool with_n) {
    Json s = with_n ? schema({context, topic, {"n", "integer", "memo position, 1-based"}},
                             {"context", "topic", "n"})
                    : schema({context, topic}, {"context", "topic"});
    t.push_back(make(name, title, description, std::move(s), effect, effect == Effect::kRead,
                     line_of([verb, with_n](const Json& a) {
                       return with_n ? memory_line(verb, a, {"context", "topic", "n"})
                                     : memory_line(verb, a, {"context", "topic"});
                     })));
  };
  topic_tool("memory_memos", "memos", "List a topic's memos",
             "A topic's memos: position, properties, first line.", E::kRead, false);
  topic_tool("memory_getmemo", "getmemo", "Read one memo", "One memo of a topic by position.",
             E::kRead, true);
  topic_tool("memory_retrieve", "retrieve", "Read a topic",
             "All memos of a topic, joined, in append order.", E::kRead, false);
  topic_tool("memory_deletememo", "deletememo", "Delete one memo",
             "Remove one memo of a topic by position.", E::kReplaces, true);
  topic_tool("memory_delete", "delete", "Delete a topic", "Remove a whole topic.", E::kReplaces,
             false);
  t.push_back(make("memory_keywords", "Find topics by keyword",
                   "Topics linked to a keyword, with related keywords.",
                   schema({context, {"keyword", "string", "one keyword"}}, {"context", "keyword"}),
                   E::kRead, true, line_of([](const Json& a) {
                     return memory_line("keywords", a, {"context", "keyword"});
                   })));
  t.push_back(make("claude_status", "Agent set-up status",
                   "Each coding agent found and what is registered for it.", schema({}, {}),
                   E::kRead, true,
                   line_of([](const Json&) { return std::string("claude.status"); })));
  t.push_back(make("claude_doctor", "Check agent set-up",
                   "Check registrations, the resident and the token; fix repairs.",
                   schema({{"fix", "boolean", "repair what is wrong"}}, {}), E::kVersioned, true,
                   line_of([](const Json& a) {
                     return std::string("claude.doctor") +
                            (a.contains("fix") && a["fix"] == true ? " --fix" : "");
                   })));
  t.push_back(make("claude_show", "Show agent set-up",
                   "Print what the set-up writes: instructions, skill, mcp, hook.",
                   schema({{"section", "string", "instructions, skill, mcp or hook"}}, {}),
                   E::kRead, true,
                   line_of([](const Json& a) { return "claude.show " + arg_text(a, "section"); })));
  t.push_back(make("claude_setup", "Set up coding agents",
                   "Show (or with apply, do) the agents' MCP registration, instructions, skill "
                   "and session hook.",
                   schema({{"apply", "boolean", "make the changes"}}, {}), E::kVersioned, true,
                   line_of([](const Json& a) {
                     return std::string("claude.setup") +
                            (a.contains("apply") && a["apply"] == true ? " --apply" : "");
                   })));
  t.push_back(make("config_modules", "Configuration modules",
                   "Configuration modules with their keys, defaults and current values.",
                   schema({}, {}), E::kRead, true,
                   line_of([](const Json&) { return std::string("config.modules --json"); })));
  t.push_back(make("config_describe", "Describe a configuration module",
                   "The keys of one configuration module.",
                   schema({{"module", "string", "module name"}}, {"module"}), E::kRead, true,
                   line_of([](const Json& a) {
                     return "config.describe " + arg_text(a, "module") + " --json";
                   })));
  t.push_back(make(
      "chat_say", "Post to chat", "Post a message to a chat channel.",
      schema({{"text", "string", "message"}, {"channel", "string", "channel, default general"}},
             {"text"}),
      E::kVersioned, false, [](const Json& a, const ToolHost& host) -> std::string {
        if (!host.chat_say) return kNoChat;
        std::string channel = arg_text(a, "channel");
        return host.chat_say(channel.empty() ? "general" : channel, arg_text(a, "text"));
      }));
  t.push_back(
      make("chat_read", "Read chat",
           "Messages of a chat channel after `since` (the value the previous read answered), "
           "waiting about 25 s for the first; without `since`, the latest messages at once.",
           schema({{"channel", "string", "channel, default general"},
                   {"since", "integer", "sequence number of the last message already read"}},
                  {}),
           E::kRead, false, [](const Json& a, const ToolHost& host) -> std::string {
             if (!host.chat_read) return kNoChat;
             std::string channel = arg_text(a, "channel");
             std::optional<std::uint64_t> since;
             if (const std::string text = arg_text(a, "since"); !text.empty()) {
               if (text.find_first_not_of("0123456789") != std::string::npos || text.size() > 18)
                 return "ERROR: since must be a sequence number";
               since = std::stoull(text);
             }
             return host.chat_read(channel.empty() ? "general" : channel, since);
           }));
  return t;
}

std::size_t line_of_offset(std::string_view text, std::size_t offset) {
  return 1 + static_cast<std::size_t>(std::count(text.begin(), text.begin() + offset, '\n'));
}

// `text` without CR before LF and without blanks at line ends; `origin[i]` is the
// position in `text` of normalised byte i (origin[size] = text.size()).
std::string normalise(std::string_view text, std::vector<std::size_t>& origin) {
  std::string out;
  origin.clear();
  std::size_t i = 0;
  while (i < text.size()) {
    std::size_t run = i;
    while (run < text.size() && (text[run] == ' ' || text[run] == '\t' || text[run] == '\r')) ++run;
    if (run > i && (run == text.size() || text[run] == '\n')) {
      i = run;  // trailing blanks: dropped
      continue;
    }
    for (; i < run; ++i) {
      out += text[i];
      origin.push_back(i);
    }
    if (i < text.size()) {
      out += text[i];
      origin.push_back(i);
      ++i;
    }
  }
  origin.push_back(text.size());
  return out;
}

std::vector<std::size_t> find_all(std::string_view text, std::string_view needle) {
  std::vector<std::size_t> at;
  for (std::size_t p = text.find(needle); p != std::string_view::npos; p = text.find(needle, p + 1))
    at.push_back(p);
  return at;
}

}  // namespace

std::string arg_text(const Json& args, const char* key) {
  if (!args.is_object()) return {};
  auto it = args.find(key);
  if (it == args.end() || it->is_null()) return {};
  if (it->is_string()) return it->get<std::string>();
  return it->dump();
}

EditResult replace_once(std::string_view text, std::string_view old_text,
                        std::string_view new_text) {
  EditResult result;
  std::vector<std::size_t> at = find_all(text, old_text);
  std::size_t start = 0, end = 0;
  std::string replacement(new_text);
  if (at.size() == 1) {
    start = at[0];
    end = start + old_text.size();
  } else if (at.empty()) {
    std::vector<std::size_t> origin, unused;
    std::string norm_text = normalise(text, origin);
    std::string norm_old = normalise(old_text, unused);
    std::vector<std::size_t> loose =
        norm_old.empty() ? std::vector<std::size_t>{} : find_all(norm_text, norm_old);
    if (loose.empty()) {
      result.error =
          "ERROR: old_text not found in the file (also not with line endings and "
          "trailing blanks ignored) — fs_read it and copy the text exactly";
      return result;
    }
    if (loose.size() == 1) {
      start = origin[loose[0]];
      std::size_t last = loose[0] + norm_old.size();
      // A match that ends with a line feed takes the dropped blanks before it too.
      end = origin[last - 1] + 1;
      if (text.find("\r\n") != std::string_view::npos) {
        // Keep the file's CR LF line ends in the new text.
        std::string crlf;
        for (std::size_t i = 0; i < replacement.size(); ++i) {
          if (replacement[i] == '\n' && (i == 0 || replacement[i - 1] != '\r')) crlf += '\r';
          crlf += replacement[i];
        }
        replacement = std::move(crlf);
      }
      result.normalised = true;
    } else {
      for (std::size_t& p : loose) p = origin[p];
      at = std::move(loose);
    }
  }
  if (at.size() > 1) {
    std::string lines;
    std::size_t shown = 0, previous = 0;
    for (std::size_t i = 0; i < at.size() && shown < 20; ++i) {
      std::size_t line = line_of_offset(text, at[i]);
      if (line == previous) continue;
      lines += (shown++ ? ", " : "") + std::to_string(line);
      previous = line;
    }
    result.error = "ERROR: old_text occurs " + std::to_string(at.size()) + " times (lines " +
                   lines + ") — include more surrounding text so that it matches once";
    return result;
  }
  result.ok = true;
  result.first_line = line_of_offset(text, start);
  result.text = std::string(text.substr(0, start)) + replacement + std::string(text.substr(end));
  return result;
}

std::string slice_lines(std::string_view text, long offset, long limit, std::size_t cap) {
  std::size_t first = offset > 1 ? static_cast<std::size_t>(offset) : 1;
  std::size_t line = 1, pos = 0;
  while (line < first && pos < text.size()) {
    std::size_t eol = text.find('\n', pos);
    if (eol == std::string_view::npos) {
      pos = text.size();
      break;
    }
    pos = eol + 1;
    ++line;
  }
  if (line < first || (pos >= text.size() && first > 1))
    return "ERROR: offset " + std::to_string(first) + " is past the end of the file (" +
           std::to_string(line_of_offset(text, text.size()) - (text.ends_with('\n') ? 1 : 0)) +
           " lines)";
  std::size_t end = pos;
  std::size_t taken = 0;
  while (end < text.size() && (limit <= 0 || taken < static_cast<std::size_t>(limit))) {
    std::size_t eol = text.find('\n', end);
    std::size_t next = eol == std::string_view::npos ? text.size() : eol + 1;
    if (next - pos > cap && taken > 0) break;
    end = next;
    ++taken;
  }
  std::string out(text.substr(pos, end - pos));
  if (out.size() > cap) out.resize(cap);  // one line longer than the cap
  if (end < text.size() && (limit <= 0 || taken < static_cast<std::size_t>(limit))) {
    if (!out.ends_with('\n')) out += '\n';
    out += "[cut at 96 KB after line " + std::to_string(first + taken - 1) +
           " — call fs_read again with offset=" + std::to_string(first + taken) + " to read on]";
  }
  return out;
}

const std::vector<Tool>& tools() {
  static const std::vector<Tool> all = build_tools();
  return all;
}

const Tool* find_tool(std::string_view name) {
  for (const Tool& tool : tools())
    if (tool.name == name || tool.alias == name) return &tool;
  return nullptr;
}

}  // namespace kx::protocols

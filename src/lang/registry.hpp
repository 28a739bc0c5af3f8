#pragma once
// The live registry of command families. Each family is one module that registers
// its verbs here (name, aliases, summary, usage, example); dispatch and the help
// system both read this registry, so help can never describe a verb that is gone.
//
// A module registers itself with a free function such as
//   void register_fs_family(lang::Registry&, Store&);
// called once from the launcher while the process sets up. After set-up the
// registry is read-only and may be shared by every thread.
#include <functional>
#include <string>
#include <string_view>
#include <vector>

namespace kx::lang {

struct Session;

// (session, argument text) -> command result. Must not throw.
using VerbHandler = std::function<std::string(Session&, std::string_view args)>;

// Help-overview sections, in the order the overview prints them.
inline constexpr const char* kHelpSections[] = {"Files", "Version control", "Concurrency",
                                                "Inspect", "Filesystem"};

struct Verb {
  std::string name;                  // "cat"
  std::vector<std::string> aliases;  // {"read"}
  std::string summary;               // one line: what it does
  std::string usage;                 // "fs:cat <path>"
  std::string example;               // "fs:cat src/main.cpp"
  std::string section;               // one of kHelpSections, or "" (reference only)
  std::string next_tip;              // guided mode: what to do next (optional)
  VerbHandler run;
};

struct Family {
  std::string name;      // namespace: "fs", "memory"
  char separator = ':';  // how the family is written: "fs:cat", "memory.add"
  std::string title;     // heading in the full reference
  std::vector<Verb> verbs;
  // The family's own answer to a verb it does not know.
  std::function<std::string(std::string_view verb)> unknown_verb;
};

// A plain-language verb: a word the natural-language entry runs directly, such as
// "EnrollVersionControl" in "Kestrune EnrollVersionControl ~/proj". Words match
// case-insensitively.
struct PlainVerb {
  std::vector<std::string> words;
  std::string summary;
  std::string usage;
  std::string example;
  std::string section;
  VerbHandler run;
};

// A command that is one word without a namespace, such as "grep".
struct WordCommand {
  std::string name;
  std::string summary;
  std::string usage;
  std::string example;
  VerbHandler run;
};

class Registry {
 public:
  void add_family(Family family);
  void add_plain_verb(PlainVerb verb);
  void add_word_command(WordCommand command);

  const Family* find_family(std::string_view name) const;
  const PlainVerb* find_plain_verb(std::string_view word) const;
  const WordCommand* find_word_command(std::string_view name) const;

  const std::vector<Family>& families() const { return families_; }
  const std::vector<PlainVerb>& plain_verbs() const { return plain_verbs_; }
  const std::vector<WordCommand>& word_commands() const { return word_commands_; }

 private:
  std::vector<Family> families_;
  std::vector<PlainVerb> plain_verbs_;
  std::vector<WordCommand> word_commands_;
};

// The verb of a family called `name` or one of its aliases (exact, case-sensitive).
const Verb* find_verb(const Family& family, std::string_view name);

}  // namespace kx::lang

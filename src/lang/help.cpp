// The help system. Every entry is generated from the live registry, so a verb that
// is registered is documented and a verb that is gone is not.
#include <algorithm>
#include <string>
#include <vector>

#include "lang/interpreter.hpp"
#include "lang/text.hpp"

namespace kx::lang {
namespace {

struct Entry {
  std::string name;                // "fs:cat", "grep", "EnrollVersionControl"
  std::vector<std::string> words;  // every name it answers to, lower-case
  std::string summary, usage, example, section;
};

std::vector<Entry> all_entries(const Registry& registry) {
  std::vector<Entry> entries;
  for (const Family& family : registry.families()) {
    for (const Verb& verb : family.verbs) {
      Entry entry{family.name + family.separator + verb.name,
                  {},
                  verb.summary,
                  verb.usage,
                  verb.example,
                  verb.section};
      entry.words.push_back(to_lower(entry.name));
      entry.words.push_back(to_lower(verb.name));
      for (const auto& alias : verb.aliases) {
        entry.words.push_back(to_lower(alias));
        entry.words.push_back(to_lower(family.name + family.separator + alias));
      }
      entries.push_back(std::move(entry));
    }
  }
  for (const PlainVerb& verb : registry.plain_verbs()) {
    Entry entry{verb.words.front(), {}, verb.summary, verb.usage, verb.example, verb.section};
    for (const auto& word : verb.words) entry.words.push_back(to_lower(word));
    entries.push_back(std::move(entry));
  }
  for (const WordCommand& command : registry.word_commands()) {
    entries.push_back({command.name,
                       {to_lower(command.name)},
                       command.summary,
                       command.usage,
                       command.example,
                       "Inspect"});
  }
  return entries;
}

std::string entry_line(const Entry& entry) {
  std::string line = "  " + entry.usage;
  if (line.size() < 44)
    line.resize(44, ' ');
  else
    line += "  ";
  return line + entry.summary + "\n";
}

std::string entry_detail(const Entry& entry) {
  std::string text = entry.usage + "\n  " + entry.summary + "\n";
  if (!entry.example.empty()) text += "  try: " + entry.example + "\n";
  return text;
}

std::string section_text(const std::vector<Entry>& entries, std::string_view section) {
  std::string text = std::string(section) + "\n";
  std::size_t shown = 0;
  for (const Entry& entry : entries) {
    if (entry.section != section) continue;
    text += entry_line(entry);
    ++shown;
  }
  if (shown == 0) text += "  (no commands in this build yet)\n";
  return text;
}

std::string overview(const std::vector<Entry>& entries) {
  std::string text =
      "Kestrune — say what you want in plain language; version control is automatic (this FS's "
      "own, not git).\n\n";
  for (const char* section : kHelpSections) text += section_text(entries, section) + "\n";
  text +=
      "\n  help <topic>   detail on a section (help filesystem) or command (help revert)\n  help "
      "all       the full generated reference\n  gui            launch the workstation (chat "
      "server on :9999)\n";
  return text;
}

std::string full_reference(const Registry& registry) {
  std::string text =
      "OK: Kestrune — one entrypoint; say what you want in plain language. Version control\nis "
      "automatic (this FS's own, NOT git) — you never check in by hand.\n\nFull reference "
      "(generated from the live registry):\n";
  auto block = [&](const std::string& title, const std::vector<Entry>& entries) {
    text += "\n== " + title + " ==\n";
    for (const Entry& entry : entries) text += entry_detail(entry);
  };
  std::vector<Entry> entries = all_entries(registry);
  for (const Family& family : registry.families()) {
    std::vector<Entry> mine;
    std::string prefix = family.name + family.separator;
    for (const Entry& entry : entries)
      if (entry.name.starts_with(prefix)) mine.push_back(entry);
    block(family.title.empty() ? family.name : family.title, mine);
  }
  std::vector<Entry> plain;
  for (const Entry& entry : entries)
    if (entry.name.find_first_of(":.") == std::string::npos) plain.push_back(entry);
  if (!plain.empty()) block("Plain-language verbs and word commands", plain);
  text +=
      "\n== Plain language ==\nKestrune <what you want>   e.g. 'Kestrune read src/x.cpp', "
      "'Kestrune history src/x.cpp', 'Kestrune revert src/x.cpp to 3'\nKestrune guided on|off   "
      "next-step tips after each action\n";
  return text;
}

}  // namespace

std::string help(const Registry& registry, std::string_view topic) {
  std::string key = to_lower(trim(topic));
  std::vector<Entry> entries = all_entries(registry);
  if (key.empty()) return overview(entries);
  if (key == "all" || key == "full" || key == "manifest" || key == "everything")
    return full_reference(registry);
  for (const char* section : kHelpSections)
    if (key == to_lower(section)) return section_text(entries, section);

  // Exact names first; then entries whose name contains the topic.
  std::vector<const Entry*> exact, partial;
  for (const Entry& entry : entries) {
    if (std::find(entry.words.begin(), entry.words.end(), key) != entry.words.end())
      exact.push_back(&entry);
    else if (to_lower(entry.name).find(key) != std::string::npos)
      partial.push_back(&entry);
  }
  std::vector<const Entry*>& found = exact.empty() ? partial : exact;
  if (found.empty())
    return "no help topic '" + std::string(trim(topic)) +
           "'.   `help` = overview   ·   `help all` = everything.";
  std::string text;
  if (found.size() > 1) text += "best: " + found.front()->usage + "\n";
  for (const Entry* entry : found) text += entry_detail(*entry);
  return text;
}

std::string prompt(const Session& session) {
  std::string text;
  if (session.raw_depth > 0) text += "\033[91mRAW" + std::to_string(session.raw_depth) + "\033[0m ";
  std::string dir = session.cwd.string();
  text += dir.empty() || dir.size() >= 260 ? "kx> " : "kx" + dir + "> ";
  return text;
}

}  // namespace kx::lang

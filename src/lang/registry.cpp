#include "lang/registry.hpp"

#include <algorithm>
#include <cctype>

namespace kx::lang {
namespace {

bool equals_ignoring_case(std::string_view a, std::string_view b) {
  return a.size() == b.size() && std::equal(a.begin(), a.end(), b.begin(), [](char x, char y) {
           return std::tolower(static_cast<unsigned char>(x)) ==
                  std::tolower(static_cast<unsigned char>(y));
         });
}

}  // namespace

void Registry::add_family(Family family) {
  families_.push_back(std::move(family));
}
void Registry::add_plain_verb(PlainVerb verb) {
  plain_verbs_.push_back(std::move(verb));
}
void Registry::add_word_command(WordCommand command) {
  word_commands_.push_back(std::move(command));
}

const Family* Registry::find_family(std::string_view name) const {
  for (const Family& family : families_)
    if (family.name == name) return &family;
  return nullptr;
}

const PlainVerb* Registry::find_plain_verb(std::string_view word) const {
  for (const PlainVerb& verb : plain_verbs_)
    for (const std::string& candidate : verb.words)
      if (equals_ignoring_case(candidate, word)) return &verb;
  return nullptr;
}

const WordCommand* Registry::find_word_command(std::string_view name) const {
  for (const WordCommand& command : word_commands_)
    if (command.name == name) return &command;
  return nullptr;
}

const Verb* find_verb(const Family& family, std::string_view name) {
  for (const Verb& verb : family.verbs) {
    if (verb.name == name) return &verb;
    if (std::find(verb.aliases.begin(), verb.aliases.end(), name) != verb.aliases.end())
      return &verb;
  }
  return nullptr;
}

}  // namespace kx::lang

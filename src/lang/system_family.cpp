#include "lang/system_family.hpp"

#include "lang/actions.hpp"
#include "lang/interpreter.hpp"
#include "lang/session.hpp"
#include "lang/text.hpp"

namespace kx::lang {

void register_system_family(Registry& registry) {
  Family family{"fssys", ':', "System: help, manual, turns and actions", {}, nullptr};
  family.verbs.push_back(Verb{"help",
                              {"manual", "man"},
                              "the full command manual, or help on one topic",
                              "fssys:help [topic]",
                              "fssys:help revert",
                              "Inspect",
                              "",
                              [](Session& session, std::string_view args) {
                                return help(session.registry,
                                            trim(args).empty() ? std::string_view("all") : args);
                              }});
  add_turn_verbs(family);
  family.unknown_verb = [](std::string_view verb) {
    return "ERROR: unknown fssys op '" + std::string(verb) +
           "' (help|manual|turns|turndepth|promote|actionrun)";
  };
  registry.add_family(std::move(family));
}

}  // namespace kx::lang

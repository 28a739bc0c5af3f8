#pragma once
// A recording family for tests: every verb call is remembered with its arguments.
#include <string>
#include <vector>

#include "lang/registry.hpp"

namespace kx::lang::testing {

struct Call {
  std::string family, verb, args;
};

// Registers `name` (separator ':' or '.') with verbs that answer "OK: <verb>" and
// record their calls in `calls`.
inline void add_recording_family(Registry& registry, const std::string& name, char separator,
                                 const std::vector<std::string>& verbs, std::vector<Call>& calls) {
  Family family{name, separator, name + " (test)", {}, nullptr};
  for (const std::string& verb : verbs) {
    family.verbs.push_back(Verb{verb,
                                {verb + "-alias"},
                                "summary of " + verb,
                                name + separator + verb + " <path>",
                                name + separator + verb + " a.txt",
                                "Files",
                                "next after " + verb,
                                [&calls, name, verb](Session&, std::string_view args) {
                                  calls.push_back({name, verb, std::string(args)});
                                  return "OK: " + verb;
                                }});
  }
  family.unknown_verb = [name](std::string_view verb) {
    return "ERROR: unknown " + name + " op '" + std::string(verb) + "'";
  };
  registry.add_family(std::move(family));
}

}  // namespace kx::lang::testing

// The config family: which configuration keys exist, their defaults and the values
// the configuration files give them now.
#include <nlohmann/json.hpp>

#include "lang/session.hpp"
#include "lang/text.hpp"
#include "launcher/agent_setup.hpp"
#include "launcher/server_config.hpp"
#include "platform/home.hpp"

namespace kx::launcher {
namespace {

struct Key {
  const char* name;
  const char* default_value;
  const char* meaning;
};
struct Module {
  const char* name;
  const char* summary;
  std::vector<Key> keys;
};

const std::vector<Module>& modules() {
  static const std::vector<Module> all = {
      {"server",
       "the resident's HTTP server",
       {{"server.listen", "127.0.0.1", "address to listen on; 0.0.0.0 opens the port"}}},
      {"grep",
       "in-RAM search",
       {{"grep.cachesearchedfiles", "true", "keep RAM copies of files grep read from disk"},
        {"grep.trackedithistory", "true", "archive pre-edit bytes of searched trees"}}},
  };
  return all;
}

nlohmann::ordered_json describe_json(const Module& m) {
  nlohmann::ordered_json keys = nlohmann::ordered_json::array();
  for (const Key& k : m.keys) {
    auto current = configured_value(k.name);
    keys.push_back({{"key", k.name},
                    {"default", k.default_value},
                    {"value", current.value_or(k.default_value)},
                    {"set", current.has_value()},
                    {"meaning", k.meaning}});
  }
  return {{"module", m.name}, {"summary", m.summary}, {"keys", keys}};
}

std::string describe_text(const Module& m) {
  std::string out = "OK: " + std::string(m.name) + " — " + m.summary + " (" +
                    platform::main_config_file().string() + ")\n";
  for (const Key& k : m.keys) {
    auto current = configured_value(k.name);
    out += "  " + std::string(k.name) + " = " + current.value_or(k.default_value) +
           (current ? "" : "  (default)") + "   # " + k.meaning + "\n";
  }
  return out;
}

// The arguments without "--json", and whether it was there.
std::pair<bool, std::string> json_flag(std::string_view args) {
  std::string rest;
  bool json = false;
  for (auto w : lang::split_words(args)) {
    if (w == "--json")
      json = true;
    else
      rest += std::string(rest.empty() ? "" : " ") + std::string(w);
  }
  return {json, rest};
}

}  // namespace

void register_config_family(lang::Registry& registry) {
  lang::Family config{"config", ':', "Configuration keys", {}, nullptr};
  config.verbs.push_back(lang::Verb{"modules",
                                    {},
                                    "configuration modules with their keys",
                                    "config.modules [--json]",
                                    "config.modules --json",
                                    "",
                                    "",
                                    [](lang::Session&, std::string_view args) {
                                      if (json_flag(args).first) {
                                        nlohmann::ordered_json all =
                                            nlohmann::ordered_json::array();
                                        for (const Module& m : modules())
                                          all.push_back(describe_json(m));
                                        return all.dump(2);
                                      }
                                      std::string out;
                                      for (const Module& m : modules()) out += describe_text(m);
                                      return out;
                                    }});
  config.verbs.push_back(lang::Verb{"describe",
                                    {},
                                    "the keys of one module",
                                    "config.describe <module> [--json]",
                                    "config.describe grep --json",
                                    "",
                                    "",
                                    [](lang::Session&, std::string_view args) {
                                      auto [json, name] = json_flag(args);
                                      for (const Module& m : modules())
                                        if (name == m.name)
                                          return json ? describe_json(m).dump(2) : describe_text(m);
                                      std::string known;
                                      for (const Module& m : modules())
                                        known += std::string(known.empty() ? "" : ", ") + m.name;
                                      return "ERROR: no configuration module '" + name +
                                             "' — modules: " + known;
                                    }});
  config.unknown_verb = [](std::string_view v) {
    return "ERROR: unknown config verb '" + std::string(v) + "' (modules|describe)";
  };
  registry.add_family(std::move(config));
}

}  // namespace kx::launcher

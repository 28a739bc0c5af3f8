#include "memory/memory_family.hpp"

#include <memory>

#include "lang/result.hpp"
#include "lang/session.hpp"
#include "memory/memory_verbs.hpp"

namespace kx::memory {

void register_memory_family(lang::Registry& registry, std::filesystem::path contexts_dir) {
  register_memory_family(registry, std::move(contexts_dir), default_http_post());
}

void register_memory_family(lang::Registry& registry, std::filesystem::path contexts_dir,
                            HttpPost post) {
  auto state = std::make_shared<MemoryState>(std::move(contexts_dir), std::move(post));
  lang::Family family;
  family.name = "memory";
  family.separator = '.';
  family.title = "Memory — persistent, keyword-indexed memos per bot and context";
  family.verbs = make_memory_verbs(state);
  for (lang::Verb& verb : family.verbs) {
    if (verb.name != "help") continue;
    // Reads the family back from the registry, so help shows what is registered now.
    verb.run = [&registry](lang::Session&, std::string_view) {
      const lang::Family* self = registry.find_family("memory");
      return self ? memory_help(*self) : error_result("memory family not registered");
    };
  }
  // The '|' forms arrive as one word ("keywords|cli|notes|build"): the part before the
  // first bar names the verb and the rest is its argument text.
  family.unknown_verb = [](std::string_view verb) -> std::string {
    return error_result("unknown memory verb '" + std::string(verb) + "'");
  };
  registry.add_family(std::move(family));

  lang::WordCommand query;
  query.name = "?(";
  query.summary = "Boolean search over topics and keywords with globs, across the bot's contexts.";
  query.usage = "?(topics()==prefix* | topics()==*suffix) && keywords()==*partial*";
  query.example = "?(topics()==src/* && keywords()==token*)";
  query.run = [state](lang::Session& session, std::string_view inner) {
    return run_query_word(*state, session, inner) + state->contexts.take_warnings();
  };
  registry.add_word_command(std::move(query));
}

}  // namespace kx::memory
